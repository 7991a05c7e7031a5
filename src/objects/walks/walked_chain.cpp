// The place of a walk, after changes of its table.
#include "objects/walks/walked_chain.h"

#include <qvdbase/qvdb/error.hpp>

#include <string>

#include "QVDbase/loop_detector.h"
#include "QVDbase/record_append.h"
#include "objects/record_search.h"
#include "objects/records.h"

using namespace qvdbase;

namespace qvdb::detail {

bool WalkedChain::outlives(const RecordChange& change, bool isReadInPieces) {
  using Kind = RecordChange::Kind;
  const bool isForward = chain.isForward();
  if (change.kind == Kind::added) {
    if (!isForward) return true;  // it is at the other end
    const bool wasAtEnd = chain.nextPosition() == 0;
    if (wasAtEnd && current.isGone() && current.position == 0) current.position = change.position;
    return !wasAtEnd && !isReadInPieces;
  }
  if (change.position != current.position) return false;
  const bool wasGone = current.isGone();  // then it is the record after it that has changed
  if (change.kind != Kind::inPlace) current.position = change.to;
  if (change.kind == Kind::removed) {
    current.gone = current.number;
    if (!isForward) current.position = change.before;
  }
  return !wasGone;
}

void WalkedChain::resume(const Operation& operation) {
  if (current.isGone()) return chain.resumeAt(current.position, current.number);
  if (chain.resumeAfter(operation.db(), current.position, current.number)) return;
  failPlaceLost(operation);
}

void WalkedChain::failPlaceLost(const Operation& operation) const {
  operation.fail(Reason::chain_damaged,
                 "record " + std::to_string(current.number) + " of the walk over " +
                     operation.quotedTable() + " is no longer where it was",
                 chain.recordNumberOf(current.number));
}

void WalkedChain::findAgain(const Operation& operation, Id table, Order order) {
  engine::FoundRecord found;
  std::vector<uint64_t> passed;
  engine::LoopDetector loop;
  int64_t position = current.block;
  while (position != 0 && !readReachable(operation, table, position, &found)) {
    if (loop.visited(position) ||
        !readHead(operation.db(), position, found.table.slot.tableID, &found.header)) {
      failPlaceLost(operation);
    }
    passed.push_back(format::identifierNumber(found.header.recordID));
    position = chain.isForward() ? found.header.prevRecordPos : found.header.nextRecordPos;
  }
  if (position != current.block) current.gone = current.number;
  current.position = position;
  if (!current.isGone()) return;
  const int64_t begin = ChainWalker(operation.table(table).slot, order).nextPosition();
  current.position = position == 0 ? begin : chain.linkOf(found.header);
  skipMoved(operation, &passed);
}

void WalkedChain::skipMoved(const Operation& operation, std::vector<uint64_t>* passed) {
  recordPart1 header;
  while (current.position != 0 &&
         readHead(operation.db(), current.position, chain.slot().tableID, &header) &&
         std::erase(*passed, format::identifierNumber(header.recordID)) != 0) {
    current.position = chain.linkOf(header);
  }
}

}  // namespace qvdb::detail
