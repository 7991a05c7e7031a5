// Records as the rows of one flat table.
#include "formats/rows.h"

#include "commands/locate.h"
#include "commands/payload_limit.h"
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

// Takes the records of tables, with what is common to them all.
struct Taker {
  const FlatSource& source;
  const std::function<void(const FlatRow&)>& take;
  PayloadLimit limit;

  uint64_t takeTable(const Table& table, int64_t place, const WalkOptions& options);
};

uint64_t Taker::takeTable(const Table& table, int64_t place, const WalkOptions& options) {
  uint64_t count = 0;
  std::vector<std::byte> buffer;
  FlatRow row;
  row.table = table.name();
  for (RecordRange records = table.records(options); const Record& record : records) {
    throwIfInterrupted();
    ++place;
    if (source.since && record.info().modify_time < *source.since) continue;
    if (!source.takesOverlapping) limit.count(table, record, "--force writes the others too");
    row.place = place;
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
  Taker taker{source, take, PayloadLimit(database)};
  if (!source.table) {
    uint64_t count = 0;
    for (const Table& table : database.tables()) {
      count += taker.takeTable(table, 0, WalkOptions{.load = Load::payloads});
    }
    return count;
  }
  const Table table = findTable(database, *source.table);
  if (!source.after) return taker.takeTable(table, 0, WalkOptions{.load = Load::payloads});
  const Id id = recordId(database, table, *source.after);
  const int64_t place = placeOf(database, table, id);
  return taker.takeTable(table, place,
                         WalkOptions{.from = WalkStart::after(id), .load = Load::payloads});
}

}  // namespace qvdb::tool
