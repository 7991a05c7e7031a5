// qvdb::Table: adding, changing and deleting records, and setting table data.
//
// Everything is written by the C functions, or, where the record's place is known already, by the
// parts of the engine that they consist of behind their search. When one of them reports failure,
// the file is looked at to find out why.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <limits>

#include "QVDbase/record_append.h"
#include "QVDbase/record_delete.h"
#include "QVDbase/record_find.h"
#include "QVDbase/record_modify.h"
#include "format/Aliment8.h"
#include "format/identifiers.h"
#include "objects/failed_append.h"
#include "objects/open_database.h"
#include "objects/records.h"
#include "objects/table_index.h"
#include "platform/host/host_failure.h"

using namespace qvdbase;

namespace qvdb {

using detail::Operation;
using detail::ReadScope;
using Kind = detail::RecordChange::Kind;

namespace {

uint32_t sizeOf(const Operation& operation, ByteView bytes) {
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) {
    operation.fail(Reason::too_large, "it would be " + std::to_string(bytes.size()) +
                                          " bytes, and 4,294,967,295 are the most");
  }
  return static_cast<uint32_t>(bytes.size());
}

const unsigned char* bytesOf(ByteView bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

// An append failed: the table is gone, its ends contradict its count, its last record is not one or
// has a successor, or the file cannot be written.
[[noreturn]] void failedAppend(const Operation& operation, Id table, uint64_t length) {
  ReadScope scope(operation.db());
  const tablePart1 slot = operation.table(table).slot;
  const std::string of = "table '" + format::storedName(slot) + "'";
  const bool hasLast = slot.recordCount != 0;
  if (!engine::chainHeadMatchesCount(slot) || hasLast != (slot.lastRecordPos != 0)) {
    operation.fail(Reason::chain_damaged,
                   "the ends of the chain of " + of + " contradict its number of records");
  }
  recordPart1 last;
  if (hasLast &&
      !engine::readRecordHeaderAt(operation.db(), slot.lastRecordPos, slot.tableID, &last)) {
    operation.fail(Reason::chain_damaged, "the last record of " + of + " cannot be read",
                   slot.recordCount);
  }
  if (hasLast && last.nextRecordPos != 0) {
    operation.fail(Reason::chain_damaged, "the last record of " + of + " has a successor",
                   slot.recordCount);
  }
  operation.failedWrite(length);
}

bool locate(const Operation& operation, Id table, const Record& record,
            engine::FoundRecord* found) {
  found->table = operation.table(table);
  found->recordPos = record.info().position;
  return engine::readRecordHeaderAt(operation.db(), found->recordPos, found->table.slot.tableID,
                                    &found->header) &&
         format::identifierNumber(found->header.recordID) == record.id().value &&
         detail::standsInChain(operation.db(), found->table.slot, found->header, found->recordPos);
}

// The length of one writing operation: gives the file position back and ends the transfer scope
// however the operation is left.
class WriteScope {
 public:
  explicit WriteScope(int16_t db) : position_(db) {}
  ~WriteScope() {
    if (!isFinished_) static_cast<void>(position_.restore(0));
  }
  WriteScope(const WriteScope&) = delete;
  WriteScope& operator=(const WriteScope&) = delete;

  // Whether the operation was done and all its writes are with the operating system.
  bool finish(bool done) {
    isFinished_ = true;
    return position_.restore(done);
  }

 private:
  engine::SavedPosition position_;
  bool isFinished_ = false;
};

// What AddRecordData does, with the new record's place noted in the table's index.
Id addRecord(const Operation& operation, detail::OpenDatabase& database, Id table,
             std::optional<Id> record, ByteView payload, uint32_t reserve) {
  const uint32_t size = sizeOf(operation, payload);
  operation.requireWritable();
  operation.requireNoBulk();
  if (record) operation.requireIdentifier(*record);
  unsigned char recordID[format::kIdentifierSize];
  if (record) internal_ConvertInt64_2UuID(record->value, recordID);
  int64_t blockPos = 0;
  int64_t last = 0;
  {
    WriteScope scope(operation.db());
    engine::FoundTable found = operation.table(table);
    last = found.slot.lastRecordPos;
    ++database.changes;
    const bool done =
        engine::chainHeadMatchesCount(found.slot) &&
        engine::appendRecord(operation.db(), &found.slot, found.slot.tableID, recordID,
                             found.slotPos, found.slotSize, bytesOf(payload), size, reserve,
                             record.has_value(), &blockPos);
    if (scope.finish(done)) {
      const Id id{format::identifierNumber(recordID)};
      detail::noteAdded(database, found.slot, id, blockPos);
      database.noteChange({Kind::added, table, blockPos});
      return id;
    }
  }
  const bool isLinked =
      detail::takeBackBlock(operation, table, blockPos, {{last, format::record::kNextRecordPos}});
  const uint64_t length = uint64_t{std::max(size, reserve)} + format::kRecordBlockOverhead;
  operation.failIfWriteWasRefused(length);
  if (isLinked && platform::lastHostFailure()) operation.failedWrite(length);
  failedAppend(operation, table, length);
}

// Makes sure that the record's table has been read, for the changes that need more of it than its
// identifier.
void needTable(const Operation& operation, Id table, engine::FoundRecord* found) {
  if (found->table.slotSize == 0) found->table = operation.table(table);
}

// A record that moves to a new block, and its neighbours.
struct Move {
  int64_t newPosition = 0;  // 0: it does not move
  int64_t previous = 0;
  int64_t next = 0;
};

// What ModifyRecordData does after its search.
bool changePayload(const Operation& operation, detail::OpenDatabase& database, Id table,
                   engine::FoundRecord* found, ByteView payload, Move* move) {
  const auto size = static_cast<uint32_t>(payload.size());
  ++database.changes;
  if (size <= found->header.dataCapacity) {
    database.noteChange({Kind::inPlace, table, found->recordPos});
    return engine::overwriteRecord(operation.db(), found->recordPos, bytesOf(payload), size);
  }
  operation.requireNoBulk();
  needTable(operation, table, found);
  const Id record{format::identifierNumber(found->header.recordID)};
  move->previous = found->header.prevRecordPos;
  move->next = found->header.nextRecordPos;
  if (!engine::relocateRecord(operation.db(), found, bytesOf(payload), size, &move->newPosition)) {
    return false;
  }
  detail::noteMoved(database, found->table.slot, record, move->newPosition);
  database.noteChange({Kind::moved, table, found->recordPos, move->newPosition});
  return true;
}

bool changePart(const Operation& operation, detail::OpenDatabase& database, Id table,
                const engine::FoundRecord& found, uint64_t offset, ByteView bytes) {
  const uint32_t size = found.header.dataLength;
  if (offset > size || bytes.size() > size - offset) {
    operation.fail(Reason::bad_argument, "it would end beyond the " + std::to_string(size) +
                                             " bytes that the record has");
  }
  ++database.changes;
  database.noteChange({Kind::inPlace, table, found.recordPos});
  return engine::overwritePart(operation.db(), found.recordPos, static_cast<uint32_t>(offset),
                               bytesOf(bytes), static_cast<uint32_t>(bytes.size()));
}

// What DeleteOneRecord does after its search.
bool unlink(const Operation& operation, detail::OpenDatabase& database, Id table,
            engine::FoundRecord* found) {
  operation.requireNoBulkOf(table);
  needTable(operation, table, found);
  ++database.changes;
  if (!engine::unlinkRecord(operation.db(), found)) return false;
  detail::noteRemoved(database, found->table.slot,
                      Id{format::identifierNumber(found->header.recordID)});
  database.noteChange({Kind::removed, table, found->recordPos, found->header.nextRecordPos});
  return true;
}

bool touchRecord(const Operation& operation, const engine::FoundRecord& found) {
  return internal_ModifyOneRecordDataInfo_LMTime(operation.db(), found.header.tableID,
                                                 found.recordPos) == 1;
}

// What became of a change whose place was known. A change that was begun and failed is not tried
// another way: what is in the file of it would be written once more.
enum class Changed { done, absent, failed, unknown };

bool isDecided(Changed changed) {
  return changed == Changed::done || changed == Changed::absent;
}

// Changes the record that was found before, if it still stands there. `change` is given the record
// and tells whether it was done.
template <typename Change>
Changed changeAt(const Operation& operation, Id table, const Record& record, const Change& change) {
  WriteScope scope(operation.db());
  engine::FoundRecord found;
  if (!locate(operation, table, record, &found)) return Changed::unknown;
  return scope.finish(change(&found)) ? Changed::done : Changed::failed;
}

// Changes a record by way of the table's index; the table has not been read when `change` is
// called. `unknown` also when there is no index.
template <typename Change>
Changed changeByIndex(const Operation& operation, detail::OpenDatabase& database, Id table,
                      Id record, const Change& change) {
  using detail::Answer;
  const std::shared_ptr<detail::TableIndex> index = detail::indexOf(database, table);
  if (index == nullptr) return Changed::unknown;
  WriteScope scope(operation.db());
  engine::FoundRecord found;
  const Answer answer = detail::askIndex(operation, *index, record, &found);
  if (answer == Answer::absent) return Changed::absent;
  if (answer != Answer::found) return Changed::unknown;
  found.table.slotSize = 0;  // see needTable
  if (scope.finish(change(&found))) return Changed::done;
  index->isStale = true;
  return Changed::failed;
}

// Changes a record by walking to it.
template <typename Change>
Changed changeByWalk(const Operation& operation, Id table, Id record, const Change& change) {
  WriteScope scope(operation.db());
  engine::FoundRecord found;
  if (!engine::findRecord(operation.db(), table.value, record.value, &found)) {
    return Changed::unknown;
  }
  return scope.finish(change(&found)) ? Changed::done : Changed::failed;
}

// Changes a record on the shortest way there is: one that was found before, or one by identifier.
template <typename Change>
Changed changeOne(const Operation& operation, detail::OpenDatabase& database, Id table, Id record,
                  const Change& change) {
  const Changed changed = changeByIndex(operation, database, table, record, change);
  return changed == Changed::unknown ? changeByWalk(operation, table, record, change) : changed;
}

template <typename Change>
Changed changeOne(const Operation& operation, detail::OpenDatabase& database, Id table,
                  const Record& record, const Change& change) {
  const Changed changed = changeAt(operation, table, record, change);
  if (changed != Changed::unknown) return changed;
  return changeOne(operation, database, table, record.id(), change);
}

Id idOf(Id record) {
  return record;
}
Id idOf(const Record& record) {
  return record.id();
}

// What the host answered to a write, kept over the operations that look for another reason.
class KeptHostFailure {
 public:
  KeptHostFailure() : code_(platform::lastHostFailure().value()) {}
  ~KeptHostFailure() {
    if (code_ != 0) platform::noteHostFailure(code_);
  }
  KeptHostFailure(const KeptHostFailure&) = delete;
  KeptHostFailure& operator=(const KeptHostFailure&) = delete;

 private:
  int code_;
};

std::optional<Record> findAfterFailure(const Table& table, Id record) {
  const KeptHostFailure kept;
  return table.find(record);
}

// False when the record is not there. Else its neighbours, or the file, must have refused. `size`
// is what was to be written, at least.
bool failedChange(const Operation& operation, const Table& table, Id id, uint64_t size,
                  bool isDeletion) {
  operation.failIfWriteWasRefused(size);
  const std::optional<Record> found = findAfterFailure(table, id);
  if (!found) return false;
  ReadScope scope(operation.db());
  const tablePart1 slot = operation.table(table.id()).slot;
  recordPart1 header;
  const int64_t position = found->info().position;
  if (!engine::readRecordHeaderAt(operation.db(), position, slot.tableID, &header) ||
      !detail::standsInChain(operation.db(), slot, header, position)) {
    operation.fail(Reason::chain_damaged, "the chain of table '" + table.name() +
                                              "' is damaged beside record " + to_string(id));
  }
  if (isDeletion && slot.recordCount == 1 && slot.firstRecordPos != slot.lastRecordPos) {
    operation.fail(Reason::chain_damaged,
                   "the ends of the chain of table '" + table.name() + "' contradict its count");
  }
  operation.failedWrite(size);
}

// The four changes, each for a record that was found before and for one by identifier.
template <typename Whom>
bool modifyOne(const Operation& operation, detail::OpenDatabase& database, const Table& table,
               const Whom& record, ByteView payload) {
  const uint32_t size = sizeOf(operation, payload);
  operation.requireWritable();
  Move move;
  const Changed changed =
      changeOne(operation, database, table.id(), record, [&](engine::FoundRecord* found) {
        return changePayload(operation, database, table.id(), found, payload, &move);
      });
  if (isDecided(changed)) return changed == Changed::done;
  ++database.changes;  // it may have been made in part
  const bool isLinked = detail::takeBackBlock(operation, table.id(), move.newPosition,
                                              {{move.previous, format::record::kNextRecordPos},
                                               {move.next, format::record::kPrevRecordPos}});
  const uint64_t length = uint64_t{size} + format::kRecordBlockOverhead;
  if (isLinked && platform::lastHostFailure()) operation.failedWrite(length);
  return failedChange(operation, table, idOf(record), length, false);
}

template <typename Whom>
bool writeOne(const Operation& operation, detail::OpenDatabase& database, const Table& table,
              const Whom& record, uint64_t offset, ByteView bytes) {
  operation.requireWritable();
  const Changed changed =
      changeOne(operation, database, table.id(), record, [&](engine::FoundRecord* found) {
        return changePart(operation, database, table.id(), *found, offset, bytes);
      });
  if (isDecided(changed)) return changed == Changed::done;
  return failedChange(operation, table, idOf(record), 0, false);
}

template <typename Whom>
bool touchOne(const Operation& operation, detail::OpenDatabase& database, const Table& table,
              const Whom& record) {
  operation.requireWritable();
  const Changed changed =
      changeOne(operation, database, table.id(), record,
                [&](engine::FoundRecord* found) { return touchRecord(operation, *found); });
  if (isDecided(changed)) return changed == Changed::done;
  operation.failIfWriteWasRefused(0);
  if (!findAfterFailure(table, idOf(record))) return false;
  operation.failedWrite(0);
}

template <typename Whom>
bool removeOne(const Operation& operation, detail::OpenDatabase& database, const Table& table,
               const Whom& record) {
  operation.requireWritable();
  const Changed changed = changeOne(
      operation, database, table.id(), record,
      [&](engine::FoundRecord* found) { return unlink(operation, database, table.id(), found); });
  if (isDecided(changed)) return changed == Changed::done;
  ++database.changes;  // it may have been made in part
  return failedChange(operation, table, idOf(record), 0, true);
}

constexpr const char* kAdd = "add a record";
constexpr const char* kChange = "change the record";
constexpr const char* kTouch = "touch the record";
constexpr const char* kDelete = "delete the record";

}  // namespace

Id Table::add(ByteView payload, uint32_t reserve) {
  const Operation operation(database_, kAdd);
  return addRecord(operation, *database_, id_, std::nullopt, payload, reserve);
}

void Table::add_with_id(Id record, ByteView payload, uint32_t reserve) {
  const Operation operation(database_, kAdd);
  addRecord(operation, *database_, id_, record, payload, reserve);
}

bool Table::modify(Id record, ByteView payload) {
  const Operation operation(database_, kChange);
  return modifyOne(operation, *database_, *this, record, payload);
}

bool Table::modify(const Record& record, ByteView payload) {
  const Operation operation(database_, kChange);
  return modifyOne(operation, *database_, *this, record, payload);
}

bool Table::write(Id record, uint64_t offset, ByteView bytes) {
  const Operation operation(database_, kChange);
  return writeOne(operation, *database_, *this, record, offset, bytes);
}

bool Table::write(const Record& record, uint64_t offset, ByteView bytes) {
  const Operation operation(database_, kChange);
  return writeOne(operation, *database_, *this, record, offset, bytes);
}

bool Table::touch(Id record) {
  const Operation operation(database_, kTouch);
  return touchOne(operation, *database_, *this, record);
}

bool Table::touch(const Record& record) {
  const Operation operation(database_, kTouch);
  return touchOne(operation, *database_, *this, record);
}

bool Table::remove(Id record) {
  const Operation operation(database_, kDelete);
  return removeOne(operation, *database_, *this, record);
}

bool Table::remove(const Record& record) {
  const Operation operation(database_, kDelete);
  return removeOne(operation, *database_, *this, record);
}

void Table::set_data(ByteView data, uint32_t reserve) {
  const Operation operation(database_, "set the table's data");
  const uint32_t size = sizeOf(operation, data);
  operation.requireWritable();
  operation.requireNoBulk();
  const auto end = static_cast<int64_t>(operation.fileLength());
  if (SetTableData(operation.db(), id_.value, bytesOf(data), size, reserve) == 1) return;
  detail::takeBackBlock(operation, id_, end);
  const uint64_t length = uint64_t{std::max(size, reserve)} + format::kTableDataBlockOverhead;
  operation.failIfWriteWasRefused(length);
  {
    const KeptHostFailure kept;
    static_cast<void>(data_size());
  }
  operation.failedWrite(length);
}

}  // namespace qvdb
