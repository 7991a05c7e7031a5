#include "intents/patch_runs.h"

#include <algorithm>

#include "format/layout.h"

namespace qvdbase::intents {
namespace {

// Less than a page: both patches lie in the pages that are written then.
constexpr int64_t kMostBetween = 2048;
constexpr size_t kMostBytes = size_t{64} << 10;

}  // namespace

bool PatchRuns::next() {
  if (taken_ == patches_.size()) return false;
  const HeldPatch* first = patches_[taken_++];
  position_ = first->position;
  bytes_.assign(first->bytes.begin(), first->bytes.end());
  while (taken_ < patches_.size() && canJoin(patches_[taken_]) && join(patches_[taken_])) ++taken_;
  return true;
}

// Between two that are neighbours by position, too, lies none that was written before or is to be
// written later. In the directory each is written by itself: the pending word lies there.
bool PatchRuns::canJoin(const HeldPatch* patch) const {
  return patch == patches_[taken_ - 1] + 1 && position_ >= format::kNewFileSize &&
         patch->position >= end() && patch->position - end() <= kMostBetween &&
         bytes_.size() + static_cast<size_t>(patch->position - end()) + patch->bytes.size() <=
             kMostBytes;
}

bool PatchRuns::join(const HeldPatch* patch) {
  const size_t size = bytes_.size();
  const auto between = static_cast<size_t>(patch->position - end());
  bytes_.resize(size + between);
  if (between > 0 &&
      !file_.read(end() - static_cast<int64_t>(between), bytes_.data() + size, between)) {
    bytes_.resize(size);
    return false;
  }
  bytes_.insert(bytes_.end(), patch->bytes.begin(), patch->bytes.end());
  return true;
}

}  // namespace qvdbase::intents
