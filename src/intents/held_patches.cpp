// Patches that are committed and not in the file yet.
#include "intents/held_patches.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qvdbase::intents {
namespace {

bool isBefore(const HeldPatch& patch, int64_t position) {
  return patch.position < position;
}

int64_t endOf(const HeldPatch& patch) {
  return patch.position + static_cast<int64_t>(patch.bytes.size());
}

}  // namespace

std::vector<const HeldPatch*> HeldPatches::inOrder() const {
  std::vector<const HeldPatch*> ordered;
  for (const HeldPatch& patch : patches_) ordered.push_back(&patch);
  std::sort(ordered.begin(), ordered.end(),
            [](const HeldPatch* one, const HeldPatch* other) { return one->order < other->order; });
  return ordered;
}

void HeldPatches::layOver(int64_t position, void* bytes, size_t count) const {
  const int64_t end = position + static_cast<int64_t>(count);
  auto patch = std::lower_bound(patches_.begin(), patches_.end(), position, isBefore);
  if (patch != patches_.begin() && endOf(*std::prev(patch)) > position) --patch;
  for (; patch != patches_.end() && patch->position < end; ++patch) {
    const int64_t from = std::max(position, patch->position);
    const int64_t to = std::min(end, endOf(*patch));
    std::memcpy(static_cast<unsigned char*>(bytes) + (from - position),
                patch->bytes.data() + (from - patch->position), static_cast<size_t>(to - from));
  }
}

void HeldPatches::hold(int64_t position, format::PlaceBytes bytes) {
  auto patch = std::lower_bound(patches_.begin(), patches_.end(), position, isBefore);
  if (patch != patches_.end() && patch->position == position) {
    patch->bytes = std::move(bytes);
    patch->order = ++order_;
  } else {
    patches_.insert(patch, HeldPatch{position, std::move(bytes), ++order_});
  }
}

void HeldPatches::makeRoom(size_t count) {
  const size_t wanted = patches_.size() + count;
  if (patches_.capacity() < wanted) patches_.reserve(std::max(wanted, 2 * patches_.capacity()));
}

platform::Underlay underlayOf(const HeldPatches& patches) {
  return {&patches, [](const void* context, int64_t position, void* bytes, size_t count) {
            static_cast<const HeldPatches*>(context)->layOver(position, bytes, count);
          }};
}

}  // namespace qvdbase::intents
