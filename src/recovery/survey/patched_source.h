// Another source with some of its bytes replaced: what a file would be after a few writes.
#pragma once

#include <vector>

#include "recovery/survey/byte_source.h"

namespace qvdbase::survey {

struct Patch {
  int64_t position = 0;
  std::vector<unsigned char> bytes;
};

class PatchedSource : public ByteSource {
 public:
  // Both must outlive the object. Later patches go over earlier ones; none reaches beyond `size`,
  // which is at most that of `whole`.
  PatchedSource(const ByteSource& whole, const std::vector<Patch>& patches, int64_t size);

  int64_t size() const override { return size_; }
  size_t readAt(int64_t position, void* buffer, size_t count) const override;

 private:
  // The patches with bytes in a range, in the order in which they go over each other.
  std::vector<const Patch*> patchesIn(int64_t begin, int64_t end) const;

  const ByteSource& whole_;
  int64_t size_;
  std::vector<const Patch*> byPosition_;
  int64_t longest_ = 0;  // of the patches, in bytes
};

}  // namespace qvdbase::survey
