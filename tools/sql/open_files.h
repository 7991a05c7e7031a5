// The databases that virtual tables have open, and the indexes of their tables.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb::sql {

// A database, open for reading. It stays open between statements; where another file has its name
// meanwhile, as after a compaction, the next statement opens that one.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path);

  const std::string& path() const { return path_; }
  Database& database() { return database_; }

  // A table by its name, else by its identifier. Throws Error table_missing.
  Table table(const std::string& nameOrId) const;

  // Finds a record. A table in which records are looked up again and again gets an index.
  std::optional<Record> find(const Table& table, Id record);

 private:
  struct Lookups {
    uint64_t count = 0;
    std::optional<RecordIndex> index;
  };

  std::string path_;
  Database database_;
  std::map<Id, Lookups> lookups_;
};

// The files that one virtual table has open: one, or for a function in a FROM clause those that
// were named last.
class OpenFiles {
 public:
  // Opens the file unless it is open, and is still the file of that name. Throws Error.
  std::shared_ptr<OpenFile> at(std::string_view path);

 private:
  std::vector<std::shared_ptr<OpenFile>> files_;  // the latest last
};

}  // namespace qvdb::sql
