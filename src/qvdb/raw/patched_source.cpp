#include "qvdb/raw/patched_source.h"

#include <algorithm>
#include <cstring>

namespace qvdbase::raw {

size_t PatchedSource::readAt(int64_t position, void* buffer, size_t count) const {
  if (position < 0 || position >= size_) return 0;
  count = static_cast<size_t>(std::min<uint64_t>(count, static_cast<uint64_t>(size_ - position)));
  const size_t held = whole_.readAt(position, buffer, count);
  const int64_t end = position + static_cast<int64_t>(held);
  for (const Patch& patch : patches_) {
    const int64_t patchEnd = patch.position + static_cast<int64_t>(patch.bytes.size());
    const int64_t from = std::max(position, patch.position);
    const int64_t to = std::min(end, patchEnd);
    if (from >= to) continue;
    std::memcpy(static_cast<unsigned char*>(buffer) + (from - position),
                patch.bytes.data() + (from - patch.position), static_cast<size_t>(to - from));
  }
  return held;
}

}  // namespace qvdbase::raw
