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
#include "format/identifiers.h"
#include "qvdb/open_database.h"
#include "qvdb/records.h"
#include "qvdb/table_index.h"

namespace qvdb {

using detail::Operation;
using detail::ReadScope;

namespace {

std::uint32_t sizeOf(const Operation& operation, std::span<const std::byte> bytes) {
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    operation.fail(Reason::too_large, "it would be " + std::to_string(bytes.size()) +
                                          " bytes, and 4,294,967,295 are the most");
  }
  return static_cast<std::uint32_t>(bytes.size());
}

const unsigned char* bytesOf(std::span<const std::byte> bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

// Puts the file position back after a C function that leaves it somewhere.
class PositionKeeper {
 public:
  explicit PositionKeeper(std::int16_t db) : db_(db), position_(myGetFilePos(db)) {}
  ~PositionKeeper() { myFileSeek(db_, position_, kFromStart); }
  PositionKeeper(const PositionKeeper&) = delete;
  PositionKeeper& operator=(const PositionKeeper&) = delete;

 private:
  std::int16_t db_;
  std::int64_t position_;
};

// An append failed: the table is gone, its ends contradict its count, its last record is not one or
// has a successor, or the file cannot be written.
[[noreturn]] void failedAppend(const Operation& operation, Id table, std::uint64_t size) {
  ReadScope scope(operation.db());
  const tablePart1 slot = operation.table(table).slot;
  const std::string of = "table '" + detail::storedName(slot) + "'";
  const bool hasLast = slot.recordCount != 0;
  if (!qvdbase::chainHeadMatchesCount(slot) || hasLast != (slot.lastRecordPos != 0)) {
    operation.fail(Reason::chain_damaged,
                   "the ends of the chain of " + of + " contradict its number of records");
  }
  recordPart1 last;
  if (hasLast &&
      !qvdbase::readRecordHeaderAt(operation.db(), slot.lastRecordPos, slot.tableID, &last)) {
    operation.fail(Reason::chain_damaged, "the last record of " + of + " cannot be read",
                   slot.recordCount);
  }
  if (hasLast && last.nextRecordPos != 0) {
    operation.fail(Reason::chain_damaged, "the last record of " + of + " has a successor",
                   slot.recordCount);
  }
  operation.failedWrite(size + qvdbase::kRecordBlockOverhead);
}

bool locate(const Operation& operation, Id table, const Record& record,
            qvdbase::FoundRecord* found) {
  found->table = operation.table(table);
  found->recordPos = record.info().position;
  return qvdbase::readRecordHeaderAt(operation.db(), found->recordPos, found->table.slot.tableID,
                                     &found->header) &&
         qvdbase::identifierNumber(found->header.recordID) == record.id().value &&
         detail::standsInChain(operation.db(), found->table.slot, found->header, found->recordPos);
}

// The length of one writing operation: gives the file position back and ends the transfer scope
// however the operation is left.
class WriteScope {
 public:
  explicit WriteScope(std::int16_t db) : position_(db) {}
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
  qvdbase::SavedPosition position_;
  bool isFinished_ = false;
};

// What AddRecordData does, with the new record's place noted in the table's index.
Id addRecord(const Operation& operation, detail::OpenDatabase& database, Id table,
             const NewRecord& record) {
  const std::uint32_t size = sizeOf(operation, record.payload);
  operation.requireWritable();
  unsigned char recordID[qvdbase::kIdentifierSize];
  if (record.id) internal_ConvertInt64_2UuID(record.id->value, recordID);
  {
    WriteScope scope(operation.db());
    qvdbase::FoundTable found = operation.table(table);
    ++database.changes;
    const bool done =
        internal_AddOneRecordData(operation.db(), &found.slot, found.slot.tableID, found.slotPos,
                                  found.slotSize, bytesOf(record.payload), size, record.reserve,
                                  recordID, record.id ? 1 : 0) == 1;
    if (scope.finish(done)) {
      const Id id{qvdbase::identifierNumber(recordID)};
      detail::noteAdded(database, found.slot, id, found.slot.lastRecordPos);
      return id;
    }
  }
  failedAppend(operation, table, std::max(size, record.reserve));
}

// Makes sure that the record's table has been read, for the changes that need more of it than its
// identifier.
void needTable(const Operation& operation, Id table, qvdbase::FoundRecord* found) {
  if (found->table.slotSize == 0) found->table = operation.table(table);
}

// What ModifyRecordData does behind its search.
bool changePayload(const Operation& operation, detail::OpenDatabase& database, Id table,
                   qvdbase::FoundRecord* found, std::span<const std::byte> payload) {
  const auto size = static_cast<std::uint32_t>(payload.size());
  ++database.changes;
  if (size <= found->header.dataCapacity) {
    return qvdbase::overwriteRecord(operation.db(), found->recordPos, bytesOf(payload), size);
  }
  needTable(operation, table, found);
  std::int64_t newPosition = 0;
  const Id record{qvdbase::identifierNumber(found->header.recordID)};
  if (!qvdbase::relocateRecord(operation.db(), found, bytesOf(payload), size, &newPosition)) {
    return false;
  }
  detail::noteMoved(database, found->table.slot, record, newPosition);
  return true;
}

// What DeleteOneRecord does behind its search.
bool unlink(const Operation& operation, detail::OpenDatabase& database, Id table,
            qvdbase::FoundRecord* found) {
  needTable(operation, table, found);
  ++database.changes;
  if (!qvdbase::unlinkRecord(operation.db(), found)) return false;
  detail::noteRemoved(database, found->table.slot,
                      Id{qvdbase::identifierNumber(found->header.recordID)});
  return true;
}

bool touchRecord(const Operation& operation, const qvdbase::FoundRecord& found) {
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
  qvdbase::FoundRecord found;
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
  qvdbase::FoundRecord found;
  const Answer answer = detail::askIndex(operation, *index, record, &found);
  if (answer == Answer::absent) return Changed::absent;
  if (answer != Answer::found) return Changed::unknown;
  found.table.slotSize = 0;  // see needTable
  if (scope.finish(change(&found))) return Changed::done;
  index->isStale = true;
  return Changed::failed;
}

}  // namespace

Id Table::add(std::span<const std::byte> payload, std::uint32_t reserve) {
  const Operation operation(database_, "add a record");
  return addRecord(operation, *database_, id_, NewRecord(payload, reserve));
}

void Table::add_with_id(Id record, std::span<const std::byte> payload, std::uint32_t reserve) {
  const Operation operation(database_, "add a record");
  addRecord(operation, *database_, id_, NewRecord(payload, reserve, record));
}

bool Table::modify(Id record, std::span<const std::byte> payload) {
  const Operation operation(database_, "change the record");
  const std::uint32_t size = sizeOf(operation, payload);
  if (size == 0) {
    operation.fail(Reason::empty_payload, "a record cannot be changed to hold nothing; delete it");
  }
  operation.requireWritable();
  const Changed changed =
      changeByIndex(operation, *database_, id_, record, [&](qvdbase::FoundRecord* found) {
        return changePayload(operation, *database_, id_, found, payload);
      });
  if (isDecided(changed)) return changed == Changed::done;
  if (changed == Changed::unknown) {
    PositionKeeper position(operation.db());
    ++database_->changes;
    if (ModifyRecordData(operation.db(), id_.value, bytesOf(payload), size, record.value,
                         nullptr) == 1) {
      return true;
    }
  }
  return failedChange(operation, record, size);
}

bool Table::touch(Id record) {
  const Operation operation(database_, "touch the record");
  operation.requireWritable();
  const Changed changed =
      changeByIndex(operation, *database_, id_, record,
                    [&](qvdbase::FoundRecord* found) { return touchRecord(operation, *found); });
  if (isDecided(changed)) return changed == Changed::done;
  if (changed == Changed::unknown &&
      ModifyOneRecordInfo_LMTime(operation.db(), id_.value, record.value) == 1) {
    return true;
  }
  return failedTouch(operation, record);
}

bool Table::remove(Id record) {
  const Operation operation(database_, "delete the record");
  operation.requireWritable();
  const Changed changed = changeByIndex(
      operation, *database_, id_, record,
      [&](qvdbase::FoundRecord* found) { return unlink(operation, *database_, id_, found); });
  if (isDecided(changed)) return changed == Changed::done;
  if (changed == Changed::unknown) {
    ++database_->changes;
    if (DeleteOneRecord(operation.db(), id_.value, record.value, nullptr) == 1) return true;
  }
  return failedChange(operation, record, 0);
}

bool Table::modify(const Record& record, std::span<const std::byte> payload) {
  const Operation operation(database_, "change the record");
  if (sizeOf(operation, payload) == 0) return modify(record.id(), payload);
  operation.requireWritable();
  const Changed changed = changeAt(operation, id_, record, [&](qvdbase::FoundRecord* found) {
    return changePayload(operation, *database_, id_, found, payload);
  });
  if (changed == Changed::unknown) return modify(record.id(), payload);
  return changed == Changed::done || failedChange(operation, record.id(), payload.size());
}

bool Table::touch(const Record& record) {
  const Operation operation(database_, "touch the record");
  operation.requireWritable();
  const Changed changed = changeAt(operation, id_, record, [&](qvdbase::FoundRecord* found) {
    return touchRecord(operation, *found);
  });
  if (changed == Changed::unknown) return touch(record.id());
  return changed == Changed::done || failedTouch(operation, record.id());
}

bool Table::remove(const Record& record) {
  const Operation operation(database_, "delete the record");
  operation.requireWritable();
  const Changed changed = changeAt(operation, id_, record, [&](qvdbase::FoundRecord* found) {
    return unlink(operation, *database_, id_, found);
  });
  if (changed == Changed::unknown) return remove(record.id());
  return changed == Changed::done || failedChange(operation, record.id(), 0);
}

// False when the record is not there. Else its neighbours, or the file, must have refused.
bool Table::failedChange(const detail::Operation& operation, Id id, std::uint64_t size) const {
  const std::optional<Record> found = find(id);
  if (!found) return false;
  const Record& record = *found;
  ReadScope scope(operation.db());
  const tablePart1 slot = operation.table(id_).slot;
  recordPart1 header;
  const std::int64_t position = record.info().position;
  if (!qvdbase::readRecordHeaderAt(operation.db(), position, slot.tableID, &header) ||
      !detail::standsInChain(operation.db(), slot, header, position)) {
    operation.fail(
        Reason::chain_damaged,
        "the chain of table '" + name_ + "' is damaged beside record " + to_string(record.id()));
  }
  if (size == 0 && slot.recordCount == 1 && slot.firstRecordPos != slot.lastRecordPos) {
    operation.fail(Reason::chain_damaged,
                   "the ends of the chain of table '" + name_ + "' contradict its count");
  }
  operation.failedWrite(size + qvdbase::kRecordBlockOverhead);
}

bool Table::failedTouch(const detail::Operation& operation, Id record) const {
  if (!find(record)) return false;
  operation.failedWrite(0);
}

void Table::set_data(std::span<const std::byte> data, std::uint32_t reserve) {
  const Operation operation(database_, "set the table's data");
  const std::uint32_t size = sizeOf(operation, data);
  operation.requireWritable();
  if (SetTableData(operation.db(), id_.value, bytesOf(data), size, reserve) == 1) return;
  static_cast<void>(data_size());
  operation.failedWrite(std::max(size, reserve) + qvdbase::kTableDataBlockOverhead);
}

}  // namespace qvdb
