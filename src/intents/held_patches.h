// Patches of transactions that are committed, but not in the file yet: reads of the opener that
// committed them have to lay them over what they get from the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "format/place_bytes.h"
#include "platform/transfer/stage.h"

namespace qvdbase::intents {

struct HeldPatch {
  int64_t position = 0;
  format::PlaceBytes bytes;
  uint64_t order = 0;
};

class HeldPatches {
 public:
  bool isEmpty() const { return patches_.empty(); }
  // By position, none over another.
  const std::vector<HeldPatch>& byPosition() const { return patches_; }

  // As they were held, which is the order in which they are to be written.
  std::vector<const HeldPatch*> inOrder() const;

  // Lays those that lie in a range over bytes read from there.
  void layOver(int64_t position, void* bytes, size_t count) const;

  // A place always has the same length: the patch replaces the one that is held for it.
  void hold(int64_t position, format::PlaceBytes bytes);
  // So many more can be held without memory of their own.
  void makeRoom(size_t count);
  void clear() { patches_.clear(); }

 private:
  std::vector<HeldPatch> patches_;
  uint64_t order_ = 0;
};

// The same for the transfers of a file; it lasts as long as the patches do.
platform::Underlay underlayOf(const HeldPatches& patches);

}  // namespace qvdbase::intents
