// Fills the database that docs/growing.md moves: adds records to the tables "letters" and "notes".
//
// Usage: fill FILE RECORDS
#include <qvdbase/qvdb.hpp>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

int main(int argc, char** argv) try {
  if (argc != 3) return 2;
  auto database = qvdb::Database::open(argv[1], {.mode = qvdb::Mode::exclusive, .create = true});
  const long records = std::atol(argv[2]);
  for (const char* name : {"letters", "notes"}) {
    auto table = database.find_or_add_table(name);
    const long first = table.count();
    auto appender = table.appender();
    for (long i = first; i < first + records / 2; ++i) {
      std::string payload = "record " + std::to_string(i) + " of " + name;
      payload += static_cast<char>(i % 256);
      payload.append(static_cast<size_t>(i % 97), 'x');
      appender.add(payload);
    }
    appender.finish();
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << "fill: " << error.what() << '\n';
  return 1;
}
