// Locating a record: where it was found before, by the table's index, or along the chain.
#include "objects/record_search.h"

#include "QVDbase/record_append.h"
#include "format/identifiers.h"
#include "objects/indexes/table_index.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "objects/walks/chain_walker.h"
#include "platform/host/threads.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

using engine::FoundRecord;

// Not inline: what it needs is not prepared where an index answers.
__attribute__((noinline)) Located walkTo(const Operation& operation, Id table, Id record,
                                         FoundRecord* found) {
  found->table = operation.table(table);
  ChainWalker walker(found->table.slot);
  for (Steps steps(operation);
       walker.next(operation.db(), &found->header, &found->recordPos) == ChainWalker::Step::record;
       steps.next()) {
    if (format::identifierNumber(found->header.recordID) != record.value) continue;
    const bool endsEarly = found->header.nextRecordPos == 0 && !walker.isAtCount();
    return endsEarly ? Located::atEarlyEnd : Located::alongChain;
  }
  if (walker.isDamaged() && !hasBecomeShorter(operation, walker)) {
    failDamagedChain(operation, walker);
  }
  return Located::no;
}

// Reads the table, and the header at a position.
bool readAt(const Operation& operation, Id table, int64_t position, FoundRecord* found) {
  found->table = operation.table(table);
  found->recordPos = position;
  return engine::readRecordHeaderAt(operation.db(), position, found->table.slot.tableID,
                                    &found->header);
}

// Whether the table is no longer as it was when the walk began, and the record that was passed last
// ends its chain now, or is in it no more.
bool isEndNow(const Operation& operation, const ChainWalker& walker) {
  FoundRecord last;
  last.table = operation.table(Id{format::identifierNumber(walker.slot().tableID)});
  last.recordPos = walker.passedPosition();
  const tablePart1& slot = last.table.slot;
  if (last.recordPos == 0 || engine::hasSameChain(slot, walker.slot())) return false;
  if (last.recordPos == (walker.isForward() ? slot.lastRecordPos : slot.firstRecordPos))
    return true;
  return readHead(operation.db(), last.recordPos, slot.tableID, &last.header) &&
         !isReachable(operation.db(), last);
}

}  // namespace

bool hasBecomeShorter(const Operation& operation, const ChainWalker& walker) {
  return operation.database().readsBesideWriters() && walker.endedEarly() &&
         isEndNow(operation, walker);
}

int64_t positionOf(const Operation& operation, const Record& record) {
  const OpenDatabase& database = operation.database();
  const auto position =
      database.transactions.presentPosition(record.transaction_, record.info().position);
  return position ? database.placeNow(*position, record.opening_) : 0;
}

namespace {

Located locateBy(TableIndex* index, const Operation& operation, Id table, Id record,
                 FoundRecord* found) {
  if (index == nullptr) return walkTo(operation, table, record, found);
  found->table.slotSize = 0;
  const Answer answer = askIndex(operation, *index, record, found);
  if (answer != Answer::unknown) return answer == Answer::found ? Located::byIndex : Located::no;
  const Located located = walkTo(operation, table, record, found);
  if (located == Located::alongChain) noteFound(operation, *index, record, found->recordPos);
  if (located == Located::no) noteAbsent(operation, *index, record);
  return located;
}

// Another thread may give the index up meanwhile. Not inline: holding it needs space.
__attribute__((noinline)) Located locateBesideThreads(const Operation& operation, Id table,
                                                      Id record, FoundRecord* found) {
  const std::shared_ptr<TableIndex> index = indexOf(operation.database(), table);
  return locateBy(index.get(), operation, table, record, found);
}

}  // namespace

Located locate(const Operation& operation, Id table, Id record, FoundRecord* found) {
  if (!platform::isOnlyThread()) return locateBesideThreads(operation, table, record, found);
  TableIndex* const index = indexOfOnlyThread(operation.database(), table);
  return locateBy(index, operation, table, record, found);
}

Located locate(const Operation& operation, Id table, const Record& record, FoundRecord* found) {
  const int64_t position = positionOf(operation, record);
  if (position != 0 && readInChain(operation, table, record.id(), position, found)) {
    return Located::inPlace;
  }
  return locate(operation, table, record.id(), found);
}

bool readInChain(const Operation& operation, Id table, Id record, int64_t position,
                 FoundRecord* found) {
  return readAt(operation, table, position, found) &&
         format::identifierNumber(found->header.recordID) == record.value &&
         isInChain(operation.db(), *found);
}

bool readReachable(const Operation& operation, Id table, int64_t position, FoundRecord* found) {
  return readAt(operation, table, position, found) && isReachable(operation.db(), *found);
}

}  // namespace qvdb::detail
