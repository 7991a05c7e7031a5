// Dumping a database as JSON Lines.
#include "content/dump_writer.h"

#include <algorithm>
#include <set>
#include <vector>

#include "archive/imported_files.h"
#include "commands/locate.h"
#include "commands/payload_limit.h"
#include "content/category_text.h"
#include "content/claimed_space.h"
#include "content/file_entry_text.h"
#include "content/steady_file.h"
#include "format/layout.h"
#include "streams/failure.h"
#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

// A list of imported files is decoded as a whole; larger ones stay what they are.
constexpr uint32_t kLargestList = uint32_t{256} << 20;

void writeContent(std::string_view bytes, JsonLines& lines) {
  lines.bytes("text", "base64", bytes);
}

// The rest of the line, and further lines: each has a piece of at most kMostOnOneLine bytes, and
// no character is cut in two.
void writePieces(uint64_t size, const ReadPart& read, JsonLines& lines) {
  std::vector<std::byte> buffer(kMostOnOneLine);
  uint64_t offset = 0;
  for (uint64_t number = 1; number == 1 || offset < size; ++number) {
    throwIfInterrupted();
    const size_t got = read(offset, buffer);
    if (got == 0) throw Failure("a payload became shorter while it was read; try again");
    std::string_view piece = textOf(std::span(buffer).first(got));
    if (offset + got < size) {
      const size_t whole = wholeCharacters(piece);
      if (whole != 0) piece = piece.substr(0, whole);
    }
    if (number > 1) {
      lines.begin();
      lines.number("more", number);
    }
    writeContent(piece, lines);
    lines.end();
    offset += piece.size();
  }
}

constexpr const char* kRefusal = "cannot be dumped";

[[noreturn]] void refuse(const Database& database, const std::string& why) {
  refuseSource(database, kRefusal, why);
}

// ---- table data

void writeList(const ImportedFiles& files, JsonLines& lines) {
  lines.number("files", files.list().size());
  writeListHead(files.head(), lines);
  lines.end();
  for (const ImportedFile& file : files.list()) {
    throwIfInterrupted();
    lines.begin();
    writeFileEntry(file, lines);
    lines.end();
  }
}

// Whether the entries, written again, are the same bytes.
bool isCanonical(const ImportedFiles& files, std::span<const std::byte> data) {
  return files.isWhole() &&
         encodeList(files.head(), files.list()) == std::vector<std::byte>(data.begin(), data.end());
}

void writeBytesOf(const Table& table, uint32_t size, JsonLines& lines) {
  if (size > kMostOnOneLine) {
    lines.number("size", size);
    return writePieces(
        size, [&](uint64_t offset, std::span<std::byte> to) { return table.read_data(offset, to); },
        lines);
  }
  const auto data = table.data();
  writeContent(textOf(*data), lines);
  lines.end();
}

void writeCapacity(const Database& database, const Table& table, uint32_t size, JsonLines& lines) {
  const uint32_t capacity = table.data_capacity().value_or(size);
  ClaimedSpace(database, kRefusal).requireData(table);
  if (capacity != size) lines.number("capacity", capacity);
}

void writeData(const Database& database, const Table& table, JsonLines& lines) {
  const std::optional<uint32_t> size = requireDataSize(database, table);
  if (!size) return;
  lines.begin();
  lines.truth("data", true);
  writeCapacity(database, table, *size, lines);
  if (ImportedFiles::versionOf(table) == ListVersion::known && *size <= kLargestList) {
    const auto data = table.data();
    const auto files = ImportedFiles::from(*data);
    if (files && isCanonical(*files, *data)) return writeList(*files, lines);
  }
  writeBytesOf(table, *size, lines);
}

// ---- tables

WalkOptions walkOf(const DumpSelection& selection) {
  WalkOptions walk;
  if (selection.after) walk.from = WalkStart::after(*selection.after);
  walk.load = Load::payloads;
  walk.largest_loaded = kMostOnOneLine;
  return walk;
}

// Returns the number of records.
uint64_t writeTable(const Database& database, const Table& table, const DumpSelection& selection,
                    PayloadLimit& limit, JsonLines& lines) {
  const TableInfo info = table.info();
  const bool isWhole = !selection.hasPartOfATable();
  lines.begin();
  writeTableMembers(info, isWhole, lines);
  lines.end();
  writeData(database, table, lines);
  const bool mayBeCategory = isCategoryTable(info.name);
  uint64_t count = 0;
  uint64_t lastWritten = 0;
  ClaimedSpace space(database, kRefusal);
  for (const Record& record : table.records(walkOf(selection))) {
    throwIfInterrupted();
    if (selection.since && record.info().modify_time < *selection.since) continue;
    if (record.info().capacity < record.size()) {
      refuse(database, "record " + to_string(record.id()) + " has more bytes than capacity");
    }
    space.require(record);
    limit.count(table, record, "'qvdb salvage' writes a file without it");
    ++count;
    if (record.info().position == info.last_written_record_position) lastWritten = count;
    lines.begin();
    writeRecord(record, mayBeCategory, lines);
  }
  lines.begin();
  lines.bytes("end", "end", "table");
  lines.number("records", count);
  if (isWhole && lastWritten != 0 && lastWritten != count)
    lines.number("last_written", lastWritten);
  lines.end();
  return count;
}

// What no load could restore: tables that the library cannot tell apart, or would not add.
void requireTellable(const Database& database, const std::vector<Table>& tables) {
  std::set<Id> ids;
  std::set<std::string> names;
  if (tables.size() > qvdbase::format::kNewSlotCount - 1)
    refuse(database, "it has more than 31 tables");
  for (const Table& table : tables) {
    if (table.name().empty()) refuse(database, "a table has no name");
    if (table.id().value == 0) refuse(database, "table '" + table.name() + "' has identifier 0");
    const bool mayBeCut = table.name().size() == qvdbase::format::kTableNameSize;
    if (!names.insert(table.name()).second && !mayBeCut) {
      refuse(database, "two tables have the name '" + table.name() + "'");
    }
    if (!ids.insert(table.id()).second) {
      refuse(database, "two tables have the identifier " + to_string(table.id()));
    }
  }
}

}  // namespace

void writeTableMembers(const TableInfo& info, bool isWhole, JsonLines& lines) {
  lines.bytes("table", "table_base64", info.name);
  lines.id("id", info.id);
  lines.number("version", info.version);
  lines.openList("flags");
  lines.number(JsonLines::kElement, info.flags_1);
  lines.number(JsonLines::kElement, info.flags_2);
  lines.close(']');
  if (isWhole) {
    const uint32_t ownData = info.data_position != 0 ? 1 : 0;
    lines.number("former_records", info.record_write_count - info.record_count);
    lines.number("former_data", info.data_write_count - ownData);
  }
}

void writeTableData(const Database& database, const Table& table, JsonLines& lines) {
  const std::optional<uint32_t> size = requireDataSize(database, table);
  if (!size) {
    lines.truth("none", true);
    return lines.end();
  }
  writeCapacity(database, table, *size, lines);
  writeBytesOf(table, *size, lines);
}

bool hasChecksum(const Record& record) {
  const RecordInfo& info = record.info();
  if (info.capacity - info.size < qvdbase::format::kChecksumCapacity) return false;
  const PayloadState state = record.verify();
  if (state == PayloadState::rotten) record.require_sound();
  return state == PayloadState::verified;
}

void writeRecord(const Record& record, bool mayBeCategory, JsonLines& lines) {
  const RecordInfo& info = record.info();
  lines.id("record", info.id);
  lines.number("created", info.create_time);
  lines.number("modified", info.modify_time);
  if (info.capacity != info.size) lines.number("capacity", info.capacity);
  if (hasChecksum(record)) lines.truth("checksum", true);
  if (!record.is_loaded() && info.size > kMostOnOneLine) {
    lines.number("size", info.size);
    return writePieces(
        info.size,
        [&](uint64_t offset, std::span<std::byte> to) { return record.read(offset, to); }, lines);
  }
  std::vector<std::byte> own;
  if (!record.is_loaded()) record.payload(own);
  const std::string_view payload = textOf(record.is_loaded() ? record.loaded() : own);
  const auto category = mayBeCategory ? decodeCategory(payload) : std::nullopt;
  if (category) {
    lines.openObject("category");
    writeCategory(*category, lines);
    lines.close('}');
  } else {
    writeContent(payload, lines);
  }
  lines.end();
}

void dumpDatabase(const Database& database, const DumpSelection& selection, JsonLines& lines) {
  std::optional<SteadyFile> steady;
  if (!selection.hasPartOfATable()) steady.emplace(database);
  const DatabaseInfo info = database.info();
  std::vector<Table> tables = database.tables();
  requireTellable(database, tables);
  if (selection.table) tables = {findTable(database, *selection.table)};
  lines.begin();
  lines.bytes("qvdb", "qvdb", "dump");
  lines.number("format", kDumpFormat);
  lines.bytes("signature", "signature_base64", {info.signature.data(), info.signature.size()});
  lines.number("version", info.version);
  lines.id("id", info.id);
  if (!selection.isWhole()) lines.truth("part", true);
  lines.end();
  uint64_t records = 0;
  PayloadLimit limit(database);
  for (const Table& table : tables) records += writeTable(database, table, selection, limit, lines);
  if (steady) steady->require();
  lines.begin();
  lines.bytes("end", "end", "dump");
  lines.number("tables", tables.size());
  lines.number("records", records);
  lines.end();
  lines.flush();
}

}  // namespace qvdb::tool
