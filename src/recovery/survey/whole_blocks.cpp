#include "recovery/survey/whole_blocks.h"

#include <algorithm>

namespace qvdbase::survey {

WholeBlocks::WholeBlocks(const std::vector<Candidate>& candidates)
    : candidates_(candidates), nextAnchored_(candidates.size() + 1, INT64_MAX) {
  std::vector<bool> isWhole(candidates_.size());
  // Of those after this one, the ones that reach further than all before them; the nearest is the
  // last.
  std::vector<size_t> furthest;
  for (size_t i = candidates_.size(); i-- > 0;) {
    const Block& block = candidates_[i].block;
    nextAnchored_[i] = candidates_[i].isAnchored ? block.position : nextAnchored_[i + 1];
    if (block.grade != Grade::a) continue;
    isWhole[i] = nextAnchored_[i + 1] >= block.end && hasOwnEnd(block, furthest);
    while (!furthest.empty() && candidates_[furthest.back()].block.end <= block.end) {
      furthest.pop_back();
    }
    furthest.push_back(i);
  }
  int64_t covered = 0;
  for (size_t i = 0; i < candidates_.size(); ++i) {
    if (isWhole[i]) covered = std::max(covered, candidates_[i].block.end);
    covered_.push_back(covered);
  }
}

bool WholeBlocks::hold(int64_t position) const {
  const size_t after = numberFrom(position);
  return after > 0 && covered_[after - 1] > position;
}

// The number of the first candidate at `position` or after it.
size_t WholeBlocks::numberFrom(int64_t position) const {
  const auto found = std::ranges::lower_bound(
      candidates_, position, {}, [](const Candidate& each) { return each.block.position; });
  return static_cast<size_t>(found - candidates_.begin());
}

// Whether no other that begins inside of the block reaches to its end.
bool WholeBlocks::hasOwnEnd(const Block& block, const std::vector<size_t>& furthest) const {
  const auto inside = std::ranges::partition_point(
      furthest, [&](size_t number) { return candidates_[number].block.position >= block.end; });
  return inside == furthest.end() || candidates_[*inside].block.end < block.end;
}

}  // namespace qvdbase::survey
