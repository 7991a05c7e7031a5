// What a transaction has gathered in memory, as the layer above gives it to be committed.
#pragma once

#include <cstdint>
#include <vector>

#include "format/place_bytes.h"

namespace qvdbase::intents {

// Bytes that are to be changed in place: what is there now, and what shall be. Both have the same
// length.
struct Patch {
  int64_t position = 0;
  format::PlaceBytes before;
  format::PlaceBytes after;
};

// The new file as the transaction sees it is: the file up to `base + spilled`, with the patches
// over it, then `gap` bytes that are nothing, then `blocks`. Every position in patches and blocks
// is one of that view. Committing puts the intent between the two, so that the blocks are
// `Commit::shift` bytes further on in the end; positions that name them are moved by the commit.
struct StagedChanges {
  // The file's length when the transaction began.
  int64_t base = 0;
  // Bytes of whole new blocks that are in the file already, from `base` on: a large transaction
  // writes them early.
  int64_t spilled = 0;
  // In the view, so many bytes lie between those and the new blocks. They are not in the file, and
  // no position is among them. At most as many as the shortest intent has.
  int64_t gap = 0;
  // The new blocks that follow, whole ones one after the other.
  std::vector<unsigned char> blocks;
  // Before `base + spilled`, in the order in which they were made, each byte in one of them only.
  // They may change the table count, slots, and the two links of record blocks, those of spilled
  // ones included; nothing else. `before` is what a read through the held patches returns.
  std::vector<Patch> patches;
};

}  // namespace qvdbase::intents
