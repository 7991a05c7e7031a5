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

// The record at the place where it was found, if it is still there and in the chain: its own header
// and both neighbours, or the slot where it has none, must say so.
bool standsInChain(std::int16_t db, const tablePart1& slot, const recordPart1& header,
                   std::int64_t position) {
  recordPart1 neighbour;
  if (header.prevRecordPos == 0) {
    if (slot.firstRecordPos != position) return false;
  } else if (!qvdbase::readRecordHeaderAt(db, header.prevRecordPos, slot.tableID, &neighbour) ||
             neighbour.nextRecordPos != position) {
    return false;
  }
  if (header.nextRecordPos == 0) return slot.lastRecordPos == position;
  return qvdbase::readRecordHeaderAt(db, header.nextRecordPos, slot.tableID, &neighbour) &&
         neighbour.prevRecordPos == position;
}

bool locate(const Operation& operation, Id table, const Record& record,
            qvdbase::FoundRecord* found) {
  found->table = operation.table(table);
  found->recordPos = record.info().position;
  return qvdbase::readRecordHeaderAt(operation.db(), found->recordPos, found->table.slot.tableID,
                                     &found->header) &&
         qvdbase::identifierNumber(found->header.recordID) == record.id().value &&
         standsInChain(operation.db(), found->table.slot, found->header, found->recordPos);
}

}  // namespace

Id Table::add(std::span<const std::byte> payload, std::uint32_t reserve) {
  const Operation operation(database_, "add a record");
  const std::uint32_t size = sizeOf(operation, payload);
  operation.requireWritable();
  Id record;
  ++database_->changes;
  if (AddRecordData(operation.db(), id_.value, bytesOf(payload), size, reserve, &record.value) !=
      1) {
    failedAppend(operation, id_, std::max(size, reserve));
  }
  return record;
}

void Table::add_with_id(Id record, std::span<const std::byte> payload, std::uint32_t reserve) {
  const Operation operation(database_, "add a record");
  const std::uint32_t size = sizeOf(operation, payload);
  operation.requireWritable();
  ++database_->changes;
  if (AddRecordData_AssignRecordID(operation.db(), id_.value, bytesOf(payload), size, reserve,
                                   &record.value) != 1) {
    failedAppend(operation, id_, std::max(size, reserve));
  }
}

bool Table::modify(Id record, std::span<const std::byte> payload) {
  const Operation operation(database_, "change the record");
  const std::uint32_t size = sizeOf(operation, payload);
  if (size == 0) {
    operation.fail(Reason::empty_payload, "a record cannot be changed to hold nothing; delete it");
  }
  operation.requireWritable();
  {
    PositionKeeper position(operation.db());
    ++database_->changes;
    if (ModifyRecordData(operation.db(), id_.value, bytesOf(payload), size, record.value,
                         nullptr) == 1) {
      return true;
    }
  }
  const std::optional<Record> found = find(record);
  if (!found) return false;
  failedChange(operation, *found, size);
}

bool Table::touch(Id record) {
  const Operation operation(database_, "touch the record");
  operation.requireWritable();
  if (ModifyOneRecordInfo_LMTime(operation.db(), id_.value, record.value) == 1) return true;
  if (!find(record)) return false;
  operation.failedWrite(0);
}

bool Table::remove(Id record) {
  const Operation operation(database_, "delete the record");
  operation.requireWritable();
  ++database_->changes;
  if (DeleteOneRecord(operation.db(), id_.value, record.value, nullptr) == 1) return true;
  const std::optional<Record> found = find(record);
  if (!found) return false;
  failedChange(operation, *found, 0);
}

bool Table::modify(const Record& record, std::span<const std::byte> payload) {
  const Operation operation(database_, "change the record");
  const std::uint32_t size = sizeOf(operation, payload);
  if (size == 0) return modify(record.id(), payload);
  operation.requireWritable();
  {
    qvdbase::SavedPosition position(operation.db());
    qvdbase::FoundRecord found;
    bool done = false;
    if (locate(operation, id_, record, &found)) {
      ++database_->changes;
      std::int64_t newPosition = 0;
      done = size <= found.header.dataCapacity
                 ? qvdbase::overwriteRecord(operation.db(), found.recordPos, bytesOf(payload), size)
                 : qvdbase::relocateRecord(operation.db(), &found, bytesOf(payload), size,
                                           &newPosition);
    }
    if (position.restore(done)) return true;
  }
  return modify(record.id(), payload);
}

bool Table::touch(const Record& record) {
  const Operation operation(database_, "touch the record");
  operation.requireWritable();
  {
    qvdbase::SavedPosition position(operation.db());
    qvdbase::FoundRecord found;
    const bool done = locate(operation, id_, record, &found) &&
                      internal_ModifyOneRecordDataInfo_LMTime(
                          operation.db(), found.table.slot.tableID, found.recordPos) == 1;
    if (position.restore(done)) return true;
  }
  return touch(record.id());
}

bool Table::remove(const Record& record) {
  const Operation operation(database_, "delete the record");
  operation.requireWritable();
  {
    qvdbase::SavedPosition position(operation.db());
    qvdbase::FoundRecord found;
    bool done = false;
    if (locate(operation, id_, record, &found)) {
      ++database_->changes;
      done = qvdbase::unlinkRecord(operation.db(), &found);
    }
    if (position.restore(done)) return true;
  }
  return remove(record.id());
}

// The record is there, so its neighbours, or the file, must have refused.
void Table::failedChange(const detail::Operation& operation, const Record& record,
                         std::uint64_t size) const {
  ReadScope scope(operation.db());
  const tablePart1 slot = operation.table(id_).slot;
  recordPart1 header;
  const std::int64_t position = record.info().position;
  if (!qvdbase::readRecordHeaderAt(operation.db(), position, slot.tableID, &header) ||
      !standsInChain(operation.db(), slot, header, position)) {
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

void Table::set_data(std::span<const std::byte> data, std::uint32_t reserve) {
  const Operation operation(database_, "set the table's data");
  const std::uint32_t size = sizeOf(operation, data);
  operation.requireWritable();
  if (SetTableData(operation.db(), id_.value, bytesOf(data), size, reserve) == 1) return;
  static_cast<void>(data_size());
  operation.failedWrite(std::max(size, reserve) + qvdbase::kTableDataBlockOverhead);
}

}  // namespace qvdb
