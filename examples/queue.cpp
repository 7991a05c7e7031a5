// A queue of lines that survives the end of the process at any moment: no line is delivered twice.
//
// Usage: queue FILE put     adds the lines of standard input, and prints how many are safe
//        queue FILE take    takes the lines, one after the other, and prints each
//
// A line is taken out of the queue and put among those that are done in one transaction. So who
// takes lines, and is killed, begins again with the first line that was not done. The one that was
// taken right before the end may not have been printed: it is among those that are done.
#include <exception>
#include <iostream>
#include <qvdbase/qvdb.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

class Queue {
 public:
  explicit Queue(const std::string& file)
      : database_(qvdb::Database::open(file, {.mode = qvdb::Mode::exclusive, .create = true})),
        waiting_(database_.find_or_add_table("waiting")),
        done_(database_.find_or_add_table("done")) {}

  void put(const std::string& line) { waiting_.add(line); }

  // The oldest line, which counts as done from now on. False when there is none.
  bool take(std::string* line) {
    return database_.transaction([&](qvdb::Transaction&) {
      const auto oldest = waiting_.first();
      if (!oldest) return false;
      const auto payload = oldest->payload();
      line->assign(reinterpret_cast<const char*>(payload.data()), payload.size());
      waiting_.remove(*oldest);
      done_.add(*line);
      return true;
    });
  }

  auto count_done() const { return done_.count(); }

 private:
  qvdb::Database database_;
  qvdb::Table waiting_;
  qvdb::Table done_;
};

// Lines are not to be taken for a reader that is gone.
void say(const std::string& text) {
  if (!(std::cout << text << std::endl)) throw std::runtime_error("cannot write the line " + text);
}

int run(const std::string& file, std::string_view command) {
  Queue queue(file);
  std::string line;
  if (command == "put") {
    for (int count = 1; std::getline(std::cin, line); ++count) {
      queue.put(line);
      say(std::to_string(count));
    }
    return 0;
  }
  while (queue.take(&line)) say(std::to_string(queue.count_done()) + ' ' + line);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view command = argc == 3 ? argv[2] : "";
  if (command != "put" && command != "take") {
    std::cerr << "usage: queue FILE put|take\n";
    return 2;
  }
  try {
    return run(argv[1], command);
  } catch (const std::exception& error) {
    std::cerr << "queue: " << error.what() << '\n';
    return 1;
  }
}
