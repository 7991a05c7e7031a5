// Commands that a signal ends: each one that can take long answers to the first one, whatever the
// library is at. Here that is the first read of the database. The commands run in children of this
// process.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "kit/forked.h"
#include "kit/replaced_calls.h"
#include "kit/temp_folder.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/command_line/command_line.h"
#include "tools/qvdb/streams/failure.h"
#include "tools/qvdb/streams/interrupt.h"
#include "tools/qvdb/streams/output.h"

namespace qvdbase::test {
namespace {

class ToolSignals : public ToolTest {
 protected:
  // What main() does with a command.
  static int runAsMain(const Words& words) {
    std::vector<const char*> pointers = {"qvdb"};
    for (const std::string& word : words) pointers.push_back(word.c_str());
    try {
      const auto action =
          qvdb::tool::readCommandLine(static_cast<int>(pointers.size()), pointers.data());
      return action ? (*action)() : qvdb::tool::kDone;
    } catch (const qvdb::tool::Interrupted&) {
      qvdb::tool::complain("interrupted");
      return qvdb::tool::kFailed;
    } catch (const std::exception& error) {
      qvdb::tool::complain(error.what());
      return kAnotherEnd;
    }
  }

  // The status of a command that gets the signal with its first read, and what it complains about.
  Outcome signalled(const Words& words, int signal) {
    static int signalToSend;
    signalToSend = signal;
    Outcome outcome;
    outcome.status = inForkedChild([&] {
      if (::freopen((streams / "out").c_str(), "w", stdout) == nullptr ||
          ::freopen((streams / "err").c_str(), "w", stderr) == nullptr) {
        return kAnotherEnd;
      }
      qvdb::tool::catchInterrupts();
      ReplacedCalls calls;
      calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) {
        if (signalToSend != 0) ::raise(std::exchange(signalToSend, 0));
        return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
      };
      return runAsMain(words);
    });
    const Bytes complaint = readFile(streams / "err");
    outcome.err.assign(complaint.begin(), complaint.end());
    return outcome;
  }

  const TempFolder streams;  // what the children write, which are no databases
  static constexpr int kAnotherEnd = 99;
};

TEST_F(ToolSignals, EndEachCommandThatReadsAWholeFile) {
  const Words ids = notes({bytesOf("a"), bytesOf("b")});
  const std::string file = path();
  const std::vector<Words> commands = {
      {"check", file},
      {"check", "--wait", "600", file},
      {"stat", file},
      {"map", file},
      {"map", "--json", file},
      {"hexdump", file, "4630"},
      {"history", file, "notes", ids[0]},
      {"records", "--deleted", file, "notes"},
      {"get", "--at", "2000-01-01", file, "notes", ids[0]},
      {"salvage", file, path("new.qvd")},
      {"mend", file},
      {"trim", file},
      {"repair", "--dry-run", file},
      {"compact", file, path("new.qvd")},
      {"backup", file, path("new.qvd")},
      {"dump", file},
      {"digest", file},
      {"diff", file, file},
      {"records", file, "notes"},
  };
  expectUnchanged([&] {
    for (const Words& command : commands) {
      const int signal = command.size() % 2 == 0 ? SIGINT : SIGTERM;
      const Outcome outcome = signalled(command, signal);
      EXPECT_EQ(outcome.status, 1) << command[0] << ": " << outcome;
      EXPECT_EQ(outcome.err, "qvdb: interrupted\n") << command[0];
      EXPECT_FALSE(std::filesystem::exists(path("new.qvd"))) << command[0];
    }
  });
}

}  // namespace
}  // namespace qvdbase::test
