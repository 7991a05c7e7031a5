// The lines of a dump. docs/text.md describes them for other programs.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "content/json_lines.h"

namespace qvdb::tool {

inline constexpr uint64_t kDumpFormat = 1;
// Payloads of more bytes than this are written on several lines.
inline constexpr uint32_t kMostOnOneLine = uint32_t{1} << 20;

// What is dumped of a database.
struct DumpSelection {
  std::optional<std::string> table;  // only this one, by name or identifier
  std::optional<Id> after;           // only the records after this one
  std::optional<int64_t> since;      // only records that were modified at this time or later

  bool isWhole() const { return !table && !hasPartOfATable(); }
  bool hasPartOfATable() const { return after || since; }
};

// Reads a part of a payload, or of a table's data, as qvdb::Record::read does.
using ReadPart = std::function<size_t(uint64_t offset, std::span<std::byte> buffer)>;

// Dumps the database. Throws Failure where it cannot be dumped so that loading it yields the same,
// ChangedMeanwhile, before the last line, where a whole database or table was written to meanwhile,
// Error, Interrupted, and what the sink throws.
void dumpDatabase(const Database& database, const DumpSelection& selection, JsonLines& lines);

// The members of a table's line; with `isWhole` also how many records and blocks of data are gone.
void writeTableMembers(const TableInfo& info, bool isWhole, JsonLines& lines);

// The bytes of a table's data, as they are, on the line that was begun and on further ones, which
// are ended: "none" where it has none.
void writeTableData(const Database& database, const Table& table, JsonLines& lines);

// Whether the record has a checksum that agrees with its payload. Another one is not restored: it
// is spare capacity. Throws Error with payload_damaged for a payload that is rotten, also where it
// is then read in parts, which nothing compares.
bool hasChecksum(const Record& record);

// The members of a record's line, and the lines that follow it where its payload has more than
// kMostOnOneLine bytes. The line was begun, and is ended.
void writeRecord(const Record& record, bool mayBeCategory, JsonLines& lines);

}  // namespace qvdb::tool
