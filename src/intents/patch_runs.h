// Patches as they go into the file: those that lie close together as one write.
//
// A write of eight bytes costs the host nearly as much as one of a page. So patches of records that
// follow each other in the file, and in their order, are written together with what is between
// them, which stays as it is. The order of patches stays too, and no page is written that none of
// them lies in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "intents/held_patches.h"
#include "intents/recovery.h"

namespace qvdbase::intents {

class PatchRuns {
 public:
  // Both must outlive the object. The file is read between patches only, and has there what the
  // host has, or held when the first of them was put into its place.
  PatchRuns(const HeldPatches& patches, const Reader& file)
      : file_(file), patches_(patches.inOrder()) {}

  // Goes on to the next write. False after the last one.
  bool next();

  int64_t position() const { return position_; }
  const std::vector<unsigned char>& bytes() const { return bytes_; }

 private:
  int64_t end() const { return position_ + static_cast<int64_t>(bytes_.size()); }
  bool canJoin(const HeldPatch* patch) const;
  bool join(const HeldPatch* patch);

  const Reader& file_;
  std::vector<const HeldPatch*> patches_;
  size_t taken_ = 0;
  int64_t position_ = 0;
  std::vector<unsigned char> bytes_;
};

}  // namespace qvdbase::intents
