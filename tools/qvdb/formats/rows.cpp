// Records as the rows of one flat table.
#include "formats/rows.h"

#include "commands/locate.h"
#include "streams/interrupt.h"
#include "streams/text.h"

namespace qvdb::tool {
namespace {

// The place of a record; a walk over headers. Throws Failure when the table does not have it.
int64_t placeOf(const Database& database, const Table& table, Id id) {
  int64_t place = 0;
  for (RecordRange records = table.records(); const Record& record : records) {
    throwIfInterrupted();
    ++place;
    if (record.id() == id) return place;
  }
  throw noSuchRecord(database, table, id);
}

uint64_t takeTable(const Table& table, int64_t place, const WalkOptions& options,
                   const std::function<void(const FlatRow&)>& take) {
  uint64_t count = 0;
  std::vector<std::byte> buffer;
  FlatRow row;
  row.table = table.name();
  for (RecordRange records = table.records(options); const Record& record : records) {
    throwIfInterrupted();
    row.place = ++place;
    row.id = to_string(record.id());
    row.created = record.info().create_time;
    row.modified = record.info().modify_time;
    row.payload = record.loaded();
    if (!record.is_loaded()) {
      record.payload(buffer);
      row.payload = buffer;
    }
    take(row);
    ++count;
  }
  return count;
}

}  // namespace

uint64_t forEachRow(const FlatSource& source, const std::function<void(const FlatRow&)>& take) {
  const Database database = openToRead(source.file);
  if (!source.table) {
    uint64_t count = 0;
    for (const Table& table : database.tables()) {
      count += takeTable(table, 0, WalkOptions{.load = Load::payloads}, take);
    }
    return count;
  }
  const Table table = findTable(database, *source.table);
  if (!source.after) return takeTable(table, 0, WalkOptions{.load = Load::payloads}, take);
  const Id id = recordId(database, table, *source.after);
  const int64_t place = placeOf(database, table, id);
  return takeTable(table, place, WalkOptions{.from = WalkStart::after(id), .load = Load::payloads},
                   take);
}

}  // namespace qvdb::tool
