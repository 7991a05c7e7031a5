// Records as the rows of one flat table, for other programs' formats:
//
//   place, table_name, id, created, modified, payload
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace qvdb::tool {

struct FlatRow {
  int64_t place = 0;  // in the order of its table, from 1
  std::string table;
  std::string id;
  int64_t created = 0;  // seconds since 1970
  int64_t modified = 0;
  std::span<const std::byte> payload;
};

// What is exported of a database.
struct FlatSource {
  std::string file;
  std::optional<std::string> table = {};  // all of them unless named
  std::optional<std::string> after = {};  // of the table: the records after this one
  std::optional<int64_t> since = {};      // records that were added or modified then or later
  bool takesOverlapping = false;  // also records that have more bytes together than the file
};

// Calls the function with each record, table by table, each in its own order. Returns their number.
// Throws Failure for a table or a record that is not there, Error where a table is damaged.
uint64_t forEachRow(const FlatSource& source, const std::function<void(const FlatRow&)>& take);

}  // namespace qvdb::tool
