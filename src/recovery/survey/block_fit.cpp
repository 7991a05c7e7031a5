#include "recovery/survey/block_fit.h"

#include <algorithm>

namespace qvdbase::survey {

BlockFit::BlockFit(const Survey& survey, const std::vector<Candidate>& candidates)
    : survey_(survey), candidates_(candidates) {
  for (size_t i = 0; i < candidates_.size(); ++i) {
    byPosition_.add(candidates_[i].block.position, static_cast<uint32_t>(i));
  }
}

const Block* BlockFit::blockAt(int64_t position) const {
  if (const Block* const inUse = survey_.blockAt(position)) return inUse;
  const uint32_t candidate = candidateAt(position);
  return candidate != kNoBlock ? &candidates_[candidate].block : nullptr;
}

Fit BlockFit::fit(const Block& block, int64_t origin) const {
  Fit best = Fit::none;
  if (block.kind != BlockKind::record) return best;
  const auto ask = [&](int64_t link, int64_t Block::*back) {
    if (link <= 0 || link >= survey_.size - origin) return;
    const Block* neighbour = blockAt(origin + link);
    if (neighbour == nullptr || !neighbour->isRecordOf(block.owner)) return;
    const bool isNamed = neighbour->*back == block.position - origin;
    best = std::max(best, isNamed ? Fit::linked : Fit::near);
  };
  ask(block.prev, &Block::next);
  ask(block.next, &Block::prev);
  return best;
}

Home BlockFit::homeOf(const Block& block, int64_t origin) const {
  if (isCopyOfOwn(block, origin)) return Home::there;
  const Fit here = fit(block, 0);
  const Fit there = fit(block, origin);
  return here > there ? Home::here : here < there ? Home::there : Home::unknown;
}

// Whether this file has the same block at the same distance from its own beginning.
bool BlockFit::isCopyOfOwn(const Block& block, int64_t origin) const {
  const Block* own = blockAt(block.position - origin);
  return own != nullptr && own->owner == block.owner && own->recordID == block.recordID &&
         own->createTime == block.createTime;
}

}  // namespace qvdbase::survey
