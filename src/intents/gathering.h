// From the bytes that a transaction has changed to the entries of its intent: what is changed in
// which place, and what must not have been changed by others for the transaction to be completed
// after a crash.
#pragma once

#include <cstdint>
#include <vector>

#include "format/intent.h"
#include "intents/commit.h"
#include "intents/held_patches.h"
#include "intents/run.h"
#include "intents/staged_changes.h"

namespace qvdbase::intents {

struct Gathered {
  Obstacle obstacle = Obstacle::none;
  // In the order in which they go into the file. Positions are those of the transaction's view.
  std::vector<format::IntentEntry> entries;
};

Gathered gather(const FileBytes& file, const HeldPatches& held, const StagedChanges& changes);

// Moves the positions at and after `from`, in values that entries give to places and in the links
// of blocks, `shift` bytes on. False when the blocks are not whole ones without a gap.
bool movePositions(int64_t from, int64_t shift, std::vector<format::IntentEntry>* entries,
                   std::vector<unsigned char>* blocks);

}  // namespace qvdbase::intents
