// Where a walk is in its chain: the chain, and the record that was delivered last. After a change
// of the table it is found again from that record's block.
#pragma once

#include <cstdint>
#include <vector>

#include "objects/indexes/noted_changes.h"
#include "objects/open_database.h"
#include "objects/walks/chain_walker.h"

namespace qvdb::detail {

// The record that a walk has delivered last.
struct CurrentRecord {
  bool isValid = false;  // one was delivered, and the walk has not ended
  uint32_t number = 0;   // counted from 1
  uint32_t gone = 0;     // the number of the last one that was deleted while it was the current one
  int64_t position = 0;  // of its block; of the record after it, or 0, when it is gone
  int64_t block = 0;     // of its block when it was delivered

  bool isGone() const { return number != 0 && gone == number; }
};

struct WalkedChain {
  ChainWalker chain;
  CurrentRecord current;

  // Whether a change of this table leaves what was read ahead valid: it concerns the current
  // record, or is an addition beyond what was read.
  bool outlives(const RecordChange& change, bool isReadInPieces);

  // Continues at the block of the current record.
  void resume(const Operation& operation);

  // Where the current record has left its block, that still has its links. Back from there are
  // records that were delivered before, up to one that is in its place, or the beginning of the
  // chain. What follows that is next, apart from those on the way that have only moved.
  void findAgain(const Operation& operation, Id table, Order order);

 private:
  [[noreturn]] void failPlaceLost(const Operation& operation) const;
  void skipMoved(const Operation& operation, std::vector<uint64_t>* passed);
};

}  // namespace qvdb::detail
