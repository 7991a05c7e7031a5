// An open batch: from its beginning until its records are linked into the table, or removed.
#include "objects/writing/bulk.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <string>

#include "format/identifiers.h"
#include "objects/indexes/table_index.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/turns.h"
#include "objects/transactions/held_commits.h"
#include "objects/transactions/own_commit.h"
#include "objects/transactions/transaction_steps.h"
#include "objects/walks/chain_ends.h"
#include "platform/host/clock.h"

using namespace qvdbase;

namespace qvdb::detail {

std::shared_ptr<Bulk> Bulk::open(const std::shared_ptr<OpenDatabase>& database, Id table) {
  const Operation operation(database, kAppend);
  operation.requireWritable();
  operation.requireNoBulk();
  if (operation.stage() == nullptr) static_cast<void>(putInPlace(operation));
  beginBatchTurn(operation);
  try {
    return begin(operation, database, table);
  } catch (...) {
    endBatchTurn(*database);
    throw;
  }
}

std::shared_ptr<Bulk> Bulk::begin(const Operation& operation,
                                  const std::shared_ptr<OpenDatabase>& database, Id table) {
  engine::SavedPosition scope(operation.db());
  auto bulk = std::make_shared<Bulk>(database, operation.table(table));
  const char* problem = problemAtEnd(operation.db(), bulk->batch.table().slot);
  if (problem == nullptr && !bulk->batch.begin()) problem = "the end of its chain is damaged";
  if (problem != nullptr) {
    operation.fail(Reason::chain_damaged,
                   std::string("nothing can be added to the table: ") + problem);
  }
  bulk->table = table;
  bulk->state = State::open;
  database->bulk = bulk.get();
  return bulk;
}

void Bulk::requireOpen(const Operation& operation) const {
  operation.requireOwn();
  if (state == State::finished) operation.fail(Reason::bad_argument, "the batch is finished");
  if (state == State::discarded) operation.fail(Reason::bad_argument, "the batch was discarded");
}

void Bulk::requireIdle(const Operation& operation) const {
  requireOpen(operation);
  if (!inPieces) return;
  operation.fail(Reason::appender_open,
                 "a record of the batch is being written in pieces; finish its writer first");
}

engine::BatchRecord Bulk::entryOf(const Operation& operation, const NewRecord& record) {
  engine::BatchRecord entry = {};
  if (record.id) {
    if (record.given_ids == GivenIds::unique) requireNew(operation, *record.id);
    internal_ConvertInt64_2UuID(record.id->value, entry.recordID);
  } else {
    identifiers.next(entry.recordID);
  }
  entry.createTime = record.create_time ? *record.create_time : platform::secondsSinceEpoch();
  entry.modifyTime = record.modify_time.value_or(entry.createTime);
  entry.reserve = record.reserve;
  entry.isProtected = database->wantsChecksum(table, record.checksum);
  return entry;
}

// A single record is looked for; with the second one, an index costs less than another walk.
void Bulk::requireNew(const Operation& operation, Id record) {
  operation.requireIdentifier(record);
  if (++checked == 2) {
    index = makeIndex(database, table);
    if (index->isStale) static_cast<void>(buildIndex(operation, *index));
  }
  if (checked == 1) knowOwnRecords(operation);
  bool exists = own.contains(record);
  if (!exists) {
    engine::SavedPosition scope(operation.db());
    engine::FoundRecord found;
    exists = locate(operation, table, record, &found) != Located::no;
  }
  if (!exists) return;
  operation.fail(Reason::record_exists,
                 "a record with the identifier " + to_string(record) + " exists already");
}

// Those of the records that were added before an identifier had to be new.
void Bulk::knowOwnRecords(const Operation& operation) {
  if (batch.lastBlock() == 0) return;
  const OwnWrites writes(*database);
  if (!batch.writeOut()) failed(operation, 1);
  engine::SavedPosition scope(operation.db());
  int64_t position = batch.firstBlock();
  for (recordPart1 header; position != 0; position = header.nextRecordPos) {
    if (!engine::readRecordHeaderAt(operation.db(), position, batch.table().slot.tableID,
                                    &header)) {
      operation.fail(Reason::cannot_read, "the records of the batch cannot be read");
    }
    own.insert(Id{format::identifierNumber(header.recordID)});
  }
}

// After many records the index is rebuilt, or catches up, when it is next used: that costs less
// than noting each.
void Bulk::finish(const Operation& operation) {
  link(operation);
  state = State::finished;
  database->bulk = nullptr;
  endBatchTurn(*database);
  const tablePart1& slot = batch.table().slot;
  keys.finish(*database, table, slot, batch.taken());
  if (batch.taken() == 1) return noteAdded(*database, slot, latest, slot.lastRecordPos);
  noteManyAdded(*database, table);
}

// The blocks are in the file, where nothing leads to them, before the transaction begins that links
// them.
void Bulk::finishCommitted(const char* name) {
  if (!commitsEach(database)) return finish(Operation(database, name));
  writeOut(Operation(database, name));
  if (batch.firstByte() == batch.endByte()) return finish(Operation(database, name));
  OwnCommit transaction(database, name, batch.firstByte());
  finish(Operation(database, name));
  transaction.commit();
}

void Bulk::writeOut(const Operation& operation) {
  requireIdle(operation);
  const ChangeTurn turn(operation);
  engine::SavedPosition scope(operation.db());
  if (!batch.writeOut()) failed(operation, 1);
}

void Bulk::link(const Operation& operation) {
  const ChangeTurn turn(operation);
  engine::SavedPosition scope(operation.db());
  ++database->changes;
  if (!batch.writeOut() || !batch.finish()) failed(operation, 1);
}

void Bulk::discard() noexcept {
  const DatabaseTurn turn(*database);
  if (!isOpen()) return;
  state = State::discarded;
  database->bulk = nullptr;
  if (!ownsFile()) return;
  {
    const StageInUse stage(*database);
    const OwnWrites writes(*database);
    engine::SavedPosition scope(database->handle);
    batch.discard();
  }
  keys.discard();
  endBatchTurn(*database);
}

void Bulk::dropRecord() noexcept {
  const DatabaseTurn turn(*database);
  inPieces = false;
  pieces.reset();
  if (!isOpen() || !ownsFile()) return;
  const StageInUse stage(*database);
  const OwnWrites writes(*database);
  engine::SavedPosition scope(database->handle);
  batch.dropRecord();
}

void Bulk::forget() noexcept {
  state = State::discarded;
  inPieces = false;
  pieces.reset();
  database->bulk = nullptr;
  keys.discard();
  endBatchTurn(*database);
}

bool Bulk::add(const Operation& operation, const NewRecord& record, KeyChange& change) {
  const bool isProtected = database->wantsChecksum(table, record.checksum);
  const uint32_t size = operation.requireSize(record.payload.size(), isProtected);
  if (!change.isReady(operation, {record.payload, {}}, 0)) return false;
  engine::BatchRecord entry = entryOf(operation, record);
  keys.take(change);
  const OwnWrites writes(*database);
  entry.dataLength = size;
  if (!batch.add(entry, bytesOf(record.payload))) {
    failed(operation,
           std::max(entry.dataLength, entry.reserve) + uint64_t{format::kRecordBlockOverhead});
  }
  latest = Id{format::identifierNumber(entry.recordID)};
  if (checked > 0) own.insert(latest);
  keys.add(change, batch.lastBlock());
  return true;
}

bool Bulk::addPieces(const Operation& operation, Id record, KeyChange& change) {
  if (pieces && !change.isReady(operation, {*pieces, {}}, 0)) return false;
  keys.take(change);
  const OwnWrites writes(*database);
  if (!batch.closeRecord()) failed(operation, format::kRecordBlockOverhead);
  inPieces = false;
  pieces.reset();
  latest = record;
  if (checked > 0) own.insert(latest);
  keys.add(change, batch.lastBlock());
  return true;
}

void Bulk::failed(const Operation& operation, uint64_t bytes) {
  discard();
  markIndexStale(*database, table);
  forgetKeysOf(*database, table);
  if (batch.wasDisturbed()) {
    operation.fail(Reason::cannot_write,
                   "the file or the table was changed by other means meanwhile; nothing was added");
  }
  engine::SavedPosition scope(operation.db());
  operation.failedWrite(bytes);
}

}  // namespace qvdb::detail
