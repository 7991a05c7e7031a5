// qvdb::Reader: reading an open database in several threads in parallel.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/database.hpp>

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace qvdb {

// A view of an open database for one thread that reads. Operations on a Database take turns; those
// of its readers wait for no thread that reads, and for one that writes only during a single
// change. So each thread that walks and looks up in parallel to others has a reader of its own:
//
//   std::thread([reader = database.reader()] {
//     for (const qvdb::Record& record : reader.table("notes").records()) ...
//   });
//
// A reader, its tables and its records belong to one thread at a time. What they read is what a
// database that is open with Mode::read_only reads in another process: each operation sees all of a
// change or nothing of it, and what was finished before it began it sees. Changes by the C
// functions in this process are not excluded. Operations that write throw read_only. Where other
// processes may write, because the database is not open exclusively, operations also wait for their
// changes, as those of the Database do.
//
// The file stays open as long as a reader of it exists. After Database::close() a reader continues;
// after Database::reopen() it continues in the file that was open before. It takes one of the
// 32,767 handles of the process and no descriptor.
class QVDBASE_API Reader {
 public:
  // Closed: to be assigned to. Each operation throws not_open.
  Reader() noexcept = default;

  // All tables, in the order in which they were added. Throws as Database::tables().
  std::vector<Table> tables() const { return database_.tables(); }

  // A table by its name; nothing when there is none. Throws as Database::find_table().
  std::optional<Table> find_table(std::string_view name) const {
    return database_.find_table(name);
  }

  // The same by its identifier.
  std::optional<Table> find_table(Id table) const { return database_.find_table(table); }

  // Whether there is a table of that name. Throws as find_table().
  bool contains(std::string_view name) const { return database_.contains(name); }

  // The table of that name, which must exist. Throws as Database::table().
  Table table(std::string_view name) const { return database_.table(name); }

  // Reads the header from the file. Throws as Database::info().
  DatabaseInfo info() const { return database_.info(); }

 private:
  friend class Database;
  explicit Reader(Database database) noexcept : database_(std::move(database)) {}

  Database database_;
};

}  // namespace qvdb
