#include "recovery/survey/patched_source.h"

#include <algorithm>
#include <cstring>

namespace qvdbase::survey {

PatchedSource::PatchedSource(const ByteSource& whole, const std::vector<Patch>& patches,
                             int64_t size)
    : whole_(whole), size_(size) {
  for (const Patch& patch : patches) {
    byPosition_.push_back(&patch);
    longest_ = std::max(longest_, static_cast<int64_t>(patch.bytes.size()));
  }
  std::ranges::sort(byPosition_, {}, &Patch::position);
}

// A file can need as many patches as it has records: only those near the range are looked at.
std::vector<const Patch*> PatchedSource::patchesIn(int64_t begin, int64_t end) const {
  auto each = std::ranges::upper_bound(byPosition_, begin - longest_, {}, &Patch::position);
  std::vector<const Patch*> found;
  for (; each != byPosition_.end() && (*each)->position < end; ++each) found.push_back(*each);
  std::sort(found.begin(), found.end());  // all are of one array
  return found;
}

size_t PatchedSource::readAt(int64_t position, void* buffer, size_t count) const {
  count = available(position, count);
  if (count == 0) return 0;
  const size_t held = whole_.readAt(position, buffer, count);
  const int64_t end = position + static_cast<int64_t>(held);
  for (const Patch* patch : patchesIn(position, end)) {
    const int64_t patchEnd = patch->position + static_cast<int64_t>(patch->bytes.size());
    const int64_t from = std::max(position, patch->position);
    const int64_t to = std::min(end, patchEnd);
    if (from >= to) continue;
    std::memcpy(static_cast<unsigned char*>(buffer) + (from - position),
                patch->bytes.data() + (from - patch->position), static_cast<size_t>(to - from));
  }
  return held;
}

}  // namespace qvdbase::survey
