// Writes rows into a new SQLite database.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <memory>
#include <string>

#include "formats/rows.h"

namespace qvdb::tool {

// Throws Failure when files of SQLite's lie beside the target that belong to a database of its
// name: SQLite would take what is in them for changes of the new one.
void requireNoJournal(const std::string& target);

class SqliteFile {
 public:
  // `file` is empty, and outlives this object; `target` is its name, for messages. Throws Failure,
  // also when the tool is built without SQLite.
  SqliteFile(OutputFile& file, const std::string& target);
  ~SqliteFile();

  void add(const FlatRow& row);

  // Completes the database. The file is not placed yet.
  void finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qvdb::tool
