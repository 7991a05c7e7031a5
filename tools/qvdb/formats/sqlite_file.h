// Writes rows into a new SQLite database.
#pragma once

#include <memory>
#include <string>

#include "formats/rows.h"

namespace qvdb::tool {

class SqliteFile {
 public:
  // Begins the file beside `target`, under a temporary name; only its owner can read it.
  // Throws Failure, also when the target exists and is not to be replaced, or the tool is built
  // without SQLite.
  SqliteFile(const std::string& target, const std::string& source, bool replaces);
  ~SqliteFile();  // removes a file that was not placed

  void add(const FlatRow& row);

  // Completes the file, gives it the permissions of the source, and its name.
  void place();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qvdb::tool
