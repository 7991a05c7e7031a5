// qvdb::Table: adding, changing and deleting records.
//
// Each change has three steps. The record is located; the engine changes it as the C functions do
// after their search; and when that fails, the file is looked at to find out why. Where the table
// has indexes of keys, the operation ends after the first step and begins again once the keys are
// made: see key_changes.h.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <algorithm>
#include <type_traits>

#include "QVDbase/record_append.h"
#include "QVDbase/record_delete.h"
#include "QVDbase/record_find.h"
#include "QVDbase/record_modify.h"
#include "QVDbase/record_protection.h"
#include "format/identifiers.h"
#include "objects/indexes/key_changes.h"
#include "objects/indexes/table_index.h"
#include "objects/indexes/table_keys.h"
#include "objects/open_database.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/turns.h"
#include "objects/transactions/own_commit.h"
#include "objects/writing/failed_append.h"
#include "platform/host/host_failure.h"

using namespace qvdbase;

namespace qvdb {

using detail::bytesOf;
using detail::Located;
using detail::Operation;
using engine::FoundRecord;
using engine::SavedPosition;
using Kind = detail::RecordChange::Kind;

namespace {

Id idOf(const recordPart1& header) {
  return Id{format::identifierNumber(header.recordID)};
}

[[noreturn]] void failEnds(const Operation& operation) {
  operation.fail(Reason::chain_damaged, "the ends of the chain of " + operation.quotedTable() +
                                            " contradict its number of records");
}

// An append failed: the table is gone, its ends contradict its count, its last record is not one or
// has a successor, or the file cannot be written.
[[noreturn]] void explainAppend(const Operation& operation, Id table, uint64_t length) {
  SavedPosition scope(operation.db());
  const tablePart1 slot = operation.table(table).slot;
  const bool hasLast = slot.recordCount != 0;
  if (!engine::chainHeadMatchesCount(slot) || hasLast != (slot.lastRecordPos != 0)) {
    failEnds(operation);
  }
  recordPart1 last;
  if (hasLast &&
      !engine::readRecordHeaderAt(operation.db(), slot.lastRecordPos, slot.tableID, &last)) {
    operation.fail(Reason::chain_damaged,
                   "the last record of " + operation.quotedTable() + " cannot be read",
                   slot.recordCount);
  }
  if (hasLast && last.nextRecordPos != 0) {
    operation.fail(Reason::chain_damaged,
                   "the last record of " + operation.quotedTable() + " has a successor",
                   slot.recordCount);
  }
  operation.failedWrite(length);
}

// A change of a record that was located failed: its neighbours do not lead to it, the ends of its
// chain contradict the count, or the file cannot be written.
[[noreturn]] void explainChange(const Operation& operation, Id table, const FoundRecord& found,
                                uint64_t length) {
  SavedPosition scope(operation.db());
  const Id record = idOf(found.header);
  FoundRecord present;
  if (!detail::readInChain(operation, table, record, found.recordPos, &present)) {
    operation.fail(Reason::chain_damaged, "the chain of " + operation.quotedTable() +
                                              " is damaged beside record " + to_string(record));
  }
  const tablePart1& slot = present.table.slot;
  if (slot.recordCount == 1 && slot.firstRecordPos != slot.lastRecordPos) failEnds(operation);
  operation.failedWrite(length);
}

// What AddRecordData does, with the new record noted in the table's indexes. Nothing when its keys
// are not ready.
std::optional<Id> addRecord(const Operation& operation, detail::KeyChange& keys, Id table,
                            std::optional<Id> record, ByteView payload, uint32_t reserve,
                            Checksum checksum) {
  const bool isProtected = operation.database().wantsChecksum(table, checksum);
  const uint32_t size = operation.requireSize(payload.size(), isProtected);
  operation.requireWritable();
  operation.requireNoBulk();
  if (record) operation.requireIdentifier(*record);
  if (!keys.isReady(operation, {payload.span(), {}}, 0)) return std::nullopt;
  const detail::ChangeTurn turn(operation, detail::OwnBatch::isWaitedFor);
  unsigned char recordID[format::kIdentifierSize];
  if (record) internal_ConvertInt64_2UuID(record->value, recordID);
  detail::OpenDatabase& database = operation.database();
  int64_t blockPos = 0;
  int64_t last = 0;
  {
    SavedPosition scope(operation.db());
    engine::FoundTable found = operation.table(table);
    last = found.slot.lastRecordPos;
    ++database.changes;
    const bool done =
        engine::chainHeadMatchesCount(found.slot) &&
        engine::appendRecord(operation.db(), &found.slot, found.slot.tableID, recordID,
                             found.slotPos, found.slotSize, bytesOf(payload), size, reserve,
                             record.has_value(), &blockPos, isProtected);
    if (scope.restore(done)) {
      const Id id{format::identifierNumber(recordID)};
      detail::noteAdded(database, found.slot, id, blockPos);
      keys.noteAdded(found.slot, blockPos);
      database.noteChange({Kind::added, table, blockPos});
      return id;
    }
  }
  detail::forgetKeysOf(database, table);
  const uint64_t length = uint64_t{isProtected ? format::capacityWithChecksum(size, reserve)
                                               : std::max(size, reserve)} +
                          format::kRecordBlockOverhead;
  detail::takeBack(operation, table, blockPos, {{last, format::record::kNextRecordPos}}, length);
  explainAppend(operation, table, length);
}

// Changes one record, which is given as a Record or by its identifier. Returns whether it is there,
// and nothing when its new keys are not ready.
//
// after   returns the payload that the located record will have; null where that stays
// change  given the located record and where to store the position of a block that it appends;
//         returns whether it was done
// length  by how much the file would become longer, at most
template <typename Whom, typename After, typename Change>
std::optional<bool> changeRecord(const Operation& operation, detail::KeyChange& keys, Id table,
                                 const Whom& whom, uint64_t length, const After& after,
                                 const Change& change) {
  operation.requireWritable();
  const detail::ChangeTurn turn(operation);
  FoundRecord found;
  int64_t blockPos = 0;
  {
    SavedPosition scope(operation.db());
    const Located located = detail::locate(operation, table, whom, &found);
    if (located == Located::no) return false;
    if constexpr (!std::is_null_pointer_v<After>) {
      if (detail::KeyChange::concerns(operation, table)) {
        std::optional<detail::PayloadAfter> made = after(found);
        if (made && !keys.isReady(operation, *std::move(made), found.recordPos)) {
          return std::nullopt;
        }
      }
    }
    const bool mayChange = located != Located::atEarlyEnd;
    if (mayChange && scope.restore(change(&found, &blockPos))) return true;
  }
  // It may have been made in part.
  ++operation.database().changes;
  detail::markIndexStale(operation.database(), table);
  detail::forgetKeysOf(operation.database(), table);
  using namespace format::record;
  const recordPart1& header = found.header;
  detail::takeBack(operation, table, blockPos,
                   {{header.prevRecordPos, kNextRecordPos}, {header.nextRecordPos, kPrevRecordPos}},
                   length);
  explainChange(operation, table, found, length);
}

// Makes sure that the table has been read, for the changes that need more of it than its
// identifier.
void requireTable(const Operation& operation, Id table, FoundRecord* found) {
  if (found->table.slotSize == 0) found->table = operation.table(table);
}

// The checksum of a record that was found; one beyond the end of the file is none.
engine::StoredChecksum checksumOf(const Operation& operation, const FoundRecord& found) {
  const recordPart1& header = found.header;
  engine::StoredChecksum stored;
  if (!engine::readChecksum(operation.db(), found.recordPos, header.dataLength, header.dataCapacity,
                            &stored) &&
      platform::lastHostFailure()) {
    operation.fail(Reason::cannot_read, "the system cannot read the file");
  }
  return stored;
}

// Hashes the payload of a record that was found, as it is and with a part written over, for a new
// checksum. Returns false where its checksum is none of it any more: then it stays so. Throws
// payload_damaged: a new checksum would make it look sound.
bool hashPayload(const Operation& operation, const FoundRecord& found,
                 const engine::StoredChecksum& stored, format::PayloadHash* present,
                 const engine::PayloadPart& part = {}, format::PayloadHash* after = nullptr) {
  if (!stored.isThere) return false;
  const format::PayloadIdentity identity = format::payloadIdentity(found.header);
  if (stateWithoutHash(stored.bytes, identity)) return false;
  const RecordInfo info = detail::recordInfo(found.header, found.recordPos);
  if (!engine::hashStoredPayload(operation.db(), found.recordPos, info.size, present, part,
                                 after)) {
    detail::requireInsideFile(operation, info);
    operation.fail(Reason::cannot_read, "the payload of the record cannot be read");
  }
  if (stateOfPayload(stored.bytes, identity, *present) == format::PayloadState::rotten) {
    operation.failPayload(info);
  }
  return true;
}

// The slot of a table names no block that a transaction has taken out of its chain: of such a block
// the commit writes no links, so that it may seem to be half taken out.
bool nameMovedAsWritten(const Operation& operation, FoundRecord* found, int64_t from, int64_t to) {
  tablePart1& slot = found->table.slot;
  if (operation.stage() == nullptr || slot.lastWrittenRecordPos != from) return true;
  slot.lastWrittenRecordPos = to;
  return engine::rewriteSlot(operation.db(), found->table.slotPos, slot);
}

// The block of a record that is in its table no more.
void noteDeadBlock(detail::OpenDatabase& database, uint32_t capacity) {
  database.noteDead(uint64_t{capacity} + format::kRecordBlockOverhead);
}

// A transaction changes no block in place that is in the file: the record gets a copy of its block
// first, which is changed then.
bool makeChangeable(const Operation& operation, const detail::KeyChange& keys, Id table,
                    FoundRecord* found, int64_t* blockPos) {
  if (!operation.isKept(found->recordPos)) return true;
  operation.requireNoBulk();
  requireTable(operation, table, found);
  const int64_t from = found->recordPos;
  detail::OpenDatabase& database = operation.database();
  ++database.changes;
  if (!engine::moveRecord(operation.db(), found, blockPos) ||
      !nameMovedAsWritten(operation, found, from, *blockPos)) {
    return false;
  }
  detail::noteMoved(database, found->table.slot, idOf(found->header), from, *blockPos);
  keys.noteMoved(found->table.slot, from, *blockPos);
  database.noteChange({Kind::moved, table, from, *blockPos});
  noteDeadBlock(database, found->header.dataCapacity);
  return true;
}

// What ModifyRecordData does after its search. A record with a checksum keeps one; one without gets
// it where its table's default says so and there is space.
bool replacePayload(const Operation& operation, const detail::KeyChange& keys, Id table,
                    FoundRecord* found, ByteView payload, int64_t* blockPos) {
  detail::OpenDatabase& database = operation.database();
  const auto size = static_cast<uint32_t>(payload.size());
  const uint32_t capacity = found->header.dataCapacity;
  const bool hasChecksum = checksumOf(operation, *found).isThere;
  const bool isProtected = hasChecksum || database.wantsChecksum(table, Checksum::by_default);
  const bool hasSpace = format::hasChecksumSpace(size, capacity);
  if (size <= capacity && (hasSpace || !hasChecksum)) {
    if (!makeChangeable(operation, keys, table, found, blockPos)) return false;
    ++database.changes;
    database.noteChange({Kind::inPlace, table, found->recordPos});
    keys.noteInPlace(found->recordPos);
    if (isProtected && hasSpace) {
      return engine::overwriteProtected(operation.db(), found->header, found->recordPos,
                                        bytesOf(payload), size);
    }
    return engine::overwriteRecord(operation.db(), found->recordPos, bytesOf(payload), size);
  }
  operation.requireNoBulk();
  operation.requireSize(size, isProtected);
  requireTable(operation, table, found);
  ++database.changes;
  if (!engine::relocateRecord(operation.db(), found, bytesOf(payload), size, blockPos,
                              isProtected) ||
      !nameMovedAsWritten(operation, found, found->recordPos, *blockPos)) {
    return false;
  }
  detail::noteMoved(database, found->table.slot, idOf(found->header), found->recordPos, *blockPos);
  keys.noteMoved(found->table.slot, found->recordPos, *blockPos);
  database.noteChange({Kind::moved, table, found->recordPos, *blockPos});
  noteDeadBlock(database, capacity);
  return true;
}

void requirePart(const Operation& operation, const FoundRecord& found, uint64_t offset,
                 ByteView bytes) {
  const uint32_t size = found.header.dataLength;
  if (offset <= size && bytes.size() <= size - offset) return;
  operation.fail(Reason::bad_argument,
                 "it would end beyond the " + std::to_string(size) + " bytes that the record has");
}

// The payload with a part of it written over.
detail::PayloadAfter payloadWith(const Operation& operation, const FoundRecord& found,
                                 uint64_t offset, ByteView bytes) {
  requirePart(operation, found, offset, bytes);
  detail::PayloadAfter after;
  const RecordInfo info = detail::recordInfo(found.header, found.recordPos);
  detail::appendPayload(operation, Id{format::identifierNumber(found.header.tableID)}, info,
                        info.size, &after.own);
  std::copy(bytes.begin(), bytes.end(), after.own.begin() + static_cast<ptrdiff_t>(offset));
  after.bytes = after.own;
  return after;
}

bool overwritePart(const Operation& operation, const detail::KeyChange& keys, Id table,
                   FoundRecord* found, uint64_t offset, ByteView bytes, int64_t* blockPos) {
  requirePart(operation, *found, offset, bytes);
  const auto count = static_cast<uint32_t>(bytes.size());
  const engine::PayloadPart part = {offset, bytesOf(bytes), count};
  const engine::StoredChecksum stored = checksumOf(operation, *found);
  const bool isWhole = stored.isThere && count == found->header.dataLength;
  format::PayloadHash present;
  format::PayloadHash after;
  const bool isHashed = !isWhole && hashPayload(operation, *found, stored, &present, part, &after);
  if (!makeChangeable(operation, keys, table, found, blockPos)) return false;
  ++operation.database().changes;
  operation.database().noteChange({Kind::inPlace, table, found->recordPos});
  keys.noteInPlace(found->recordPos);
  if (isWhole) {
    return engine::overwriteProtected(operation.db(), found->header, found->recordPos, part.bytes,
                                      count);
  }
  if (isHashed) {
    return engine::overwritePartProtected(operation.db(), found->header, found->recordPos, part,
                                          after);
  }
  return engine::overwritePart(operation.db(), found->recordPos, static_cast<uint32_t>(offset),
                               part.bytes, count);
}

bool touchFound(const Operation& operation, const FoundRecord& found) {
  format::PayloadHash present;
  if (hashPayload(operation, found, checksumOf(operation, found), &present)) {
    return engine::touchProtected(operation.db(), found.header, found.recordPos, present);
  }
  return internal_ModifyOneRecordDataInfo_LMTime(operation.db(), found.header.tableID,
                                                 found.recordPos) == 1;
}

// What DeleteOneRecord does after its search.
bool unlink(const Operation& operation, Id table, FoundRecord* found) {
  detail::OpenDatabase& database = operation.database();
  operation.requireNoBulkOf(table);
  requireTable(operation, table, found);
  ++database.changes;
  if (!engine::unlinkRecord(operation.db(), found)) return false;
  detail::noteRemoved(database, found->table.slot, idOf(found->header), found->recordPos);
  detail::noteKeysRemoved(database, table, found->table.slot);
  database.noteChange({Kind::removed, table, found->recordPos, found->header.nextRecordPos,
                       found->header.prevRecordPos});
  noteDeadBlock(database, found->header.dataCapacity);
  return true;
}

constexpr const char* kAdd = "add a record";
constexpr const char* kChange = "change the record";
constexpr const char* kTouch = "touch the record";
constexpr const char* kDelete = "delete the record";

using Opened = std::shared_ptr<detail::OpenDatabase>;

Id addWithKeys(const Opened& database, Id table, std::optional<Id> record, ByteView payload,
               uint32_t reserve, Checksum checksum) {
  return detail::committed(database, kAdd, [&] {
    return detail::withKeys(
        database, kAdd, table, [&](const Operation& operation, detail::KeyChange& keys) {
          return addRecord(operation, keys, table, record, payload, reserve, checksum);
        });
  });
}

// The four changes, each for a record that was found before and for one by identifier.
template <typename Whom>
bool modifyRecord(const Opened& database, Id table, const Whom& whom, ByteView payload) {
  return detail::withKeys(
      database, kChange, table, [&](const Operation& operation, detail::KeyChange& keys) {
        const uint64_t size = operation.requireSize(payload.size());
        return changeRecord(
            operation, keys, table, whom, size + format::kRecordBlockOverhead,
            [&](const FoundRecord&) {
              return detail::PayloadAfter{payload.span(), {}};
            },
            [&](FoundRecord* found, int64_t* blockPos) {
              return replacePayload(operation, keys, table, found, payload, blockPos);
            });
      });
}

template <typename Whom>
bool writeRecord(const Opened& database, Id table, const Whom& whom, uint64_t offset,
                 ByteView bytes) {
  return detail::withKeys(
      database, kChange, table, [&](const Operation& operation, detail::KeyChange& keys) {
        return changeRecord(
            operation, keys, table, whom, 0,
            [&](const FoundRecord& found) { return payloadWith(operation, found, offset, bytes); },
            [&](FoundRecord* found, int64_t* blockPos) {
              return overwritePart(operation, keys, table, found, offset, bytes, blockPos);
            });
      });
}

// Its keys stay; they have to be known only where its block moves.
std::optional<detail::PayloadAfter> payloadIfMoved(const Operation& operation,
                                                   const FoundRecord& found) {
  if (!operation.isKept(found.recordPos)) return std::nullopt;
  detail::PayloadAfter after;
  const RecordInfo info = detail::recordInfo(found.header, found.recordPos);
  detail::appendPayload(operation, Id{format::identifierNumber(found.header.tableID)}, info,
                        info.size, &after.own);
  after.bytes = after.own;
  return after;
}

template <typename Whom>
bool touchRecord(const Opened& database, Id table, const Whom& whom) {
  return detail::withKeys(
      database, kTouch, table, [&](const Operation& operation, detail::KeyChange& keys) {
        return changeRecord(
            operation, keys, table, whom, 0,
            [&](const FoundRecord& found) { return payloadIfMoved(operation, found); },
            [&](FoundRecord* found, int64_t* blockPos) {
              return makeChangeable(operation, keys, table, found, blockPos) &&
                     touchFound(operation, *found);
            });
      });
}

template <typename Whom>
bool removeRecord(const Opened& database, Id table, const Whom& whom) {
  const Operation operation(database, kDelete);
  detail::KeyChange none(database, kDelete, table);
  return *changeRecord(operation, none, table, whom, 0, nullptr, [&](FoundRecord* found, int64_t*) {
    return unlink(operation, table, found);
  });
}

}  // namespace

Id Table::add(ByteView payload, uint32_t reserve, Checksum checksum) {
  return addWithKeys(database_, id_, std::nullopt, payload, reserve, checksum);
}

void Table::add_with_id(Id record, ByteView payload, uint32_t reserve, Checksum checksum) {
  addWithKeys(database_, id_, record, payload, reserve, checksum);
}

// A batch of one: it takes times, and is written in the same order.
Id Table::addNew(const NewRecord& record) {
  BulkAppender batch = appender();
  const Id id = batch.add(record);
  batch.finish();
  return id;
}

bool Table::set_last_written(const Record& record) {
  constexpr const char* kNote = "note the record that was written last";
  return detail::committed(database_, kNote, [&] {
    const Operation operation(database_, kNote);
    detail::KeyChange none(database_, kNote, id_);
    return *changeRecord(
        operation, none, id_, record, 0, nullptr, [&](FoundRecord* found, int64_t*) {
          requireTable(operation, id_, found);
          found->table.slot.lastWrittenRecordPos = found->recordPos;
          return engine::rewriteSlot(operation.db(), found->table.slotPos, found->table.slot);
        });
  });
}

bool Table::modify(Id record, ByteView payload) {
  return detail::committed(database_, kChange,
                           [&] { return modifyRecord(database_, id_, record, payload); });
}

bool Table::modify(const Record& record, ByteView payload) {
  return detail::committed(database_, kChange,
                           [&] { return modifyRecord(database_, id_, record, payload); });
}

bool Table::write(Id record, uint64_t offset, ByteView bytes) {
  return detail::committed(database_, kChange,
                           [&] { return writeRecord(database_, id_, record, offset, bytes); });
}

bool Table::write(const Record& record, uint64_t offset, ByteView bytes) {
  return detail::committed(database_, kChange,
                           [&] { return writeRecord(database_, id_, record, offset, bytes); });
}

bool Table::touch(Id record) {
  return detail::committed(database_, kTouch, [&] { return touchRecord(database_, id_, record); });
}

bool Table::touch(const Record& record) {
  return detail::committed(database_, kTouch, [&] { return touchRecord(database_, id_, record); });
}

bool Table::remove(Id record) {
  return detail::committed(database_, kDelete,
                           [&] { return removeRecord(database_, id_, record); });
}

bool Table::remove(const Record& record) {
  return detail::committed(database_, kDelete,
                           [&] { return removeRecord(database_, id_, record); });
}

}  // namespace qvdb
