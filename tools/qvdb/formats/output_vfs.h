// SQLite's way to the file that a command makes: a database that SQLite writes goes into an
// OutputFile, which is placed as all other files of the tool are.
#pragma once

#include <qvdbase/qvdb.hpp>

#ifdef QVDB_HAS_SQLITE
#include <sqlite3.h>

namespace qvdb::tool {

// A file system of SQLite's with one file, which is new and which no other connection opens: it
// has no journal, takes no locks and waits for no device. Temporary files are those of SQLite's own
// file system.
class OutputVfs {
 public:
  // `file` is empty and outlives this object, which outlives the connection.
  explicit OutputVfs(OutputFile& file);
  ~OutputVfs();
  OutputVfs(const OutputVfs&) = delete;
  OutputVfs& operator=(const OutputVfs&) = delete;

  const char* name() const { return vfs_.zName; }

 private:
  OutputFile& file_;
  sqlite3_vfs vfs_;
};

}  // namespace qvdb::tool

#endif
