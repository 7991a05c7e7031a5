// Step 3 of a survey: what the blocks reached by chains and slots cover.
//
// Where the extents of two of them overlap, the first one's capacity is wrong. A block whose
// capacity is wrong, or which nothing confirms, covers its header for the time being; what
// follows is scanned like a gap, and belongs to it again as far as no block was found.
#include <algorithm>

#include "recovery/survey/survey.h"

namespace qvdbase::survey {

std::vector<uint32_t> blocksInFileOrder(const Survey& survey) {
  std::vector<uint32_t> order(survey.blocks.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<uint32_t>(i);
  const auto before = [&](uint32_t a, uint32_t b) {
    return survey.blocks[a].position < survey.blocks[b].position;
  };
  if (!std::is_sorted(order.begin(), order.end(), before)) {
    std::sort(order.begin(), order.end(), before);
  }
  return order;
}

void layExtents(Survey* survey) {
  const std::vector<uint32_t> order = blocksInFileOrder(*survey);
  for (size_t i = 0; i + 1 < order.size(); ++i) {
    Block& block = survey->blocks[order[i]];
    const Block& following = survey->blocks[order[i + 1]];
    if (block.end <= following.position) continue;
    survey->overlaps.push_back({order[i], order[i + 1]});
    block.end = following.position;
    block.flaws |= kCutShort;
  }
  for (Block& block : survey->blocks) {
    if (block.flaws & kCutShort) block.flaws |= kUnbelieved;
    if (block.flaws & kUnbelieved) block.end = std::min(block.end, block.dataPos());
  }
}

}  // namespace qvdbase::survey
