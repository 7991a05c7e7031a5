// Step 3 of a survey: what the blocks reached by chains and slots cover.
//
// Where the extents of two of them overlap, the first one's capacity is wrong. A block whose
// capacity is wrong, or which nothing confirms, covers its header for the time being; what
// follows is scanned like a gap, and belongs to it again as far as no block was found.
#include <algorithm>
#include <numeric>

#include "recovery/survey/survey.h"

namespace qvdbase::survey {

std::vector<uint32_t> blocksInFileOrder(const Survey& survey) {
  std::vector<uint32_t> order(survey.blocks.size());
  std::iota(order.begin(), order.end(), 0u);
  const auto positionOf = [&](uint32_t number) { return survey.blocks[number].position; };
  if (!std::ranges::is_sorted(order, {}, positionOf)) std::ranges::sort(order, {}, positionOf);
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
    block.add(kCutShort);
  }
  for (Block& block : survey->blocks) {
    if (block.has(kCutShort)) block.add(kUnbelieved);
    if (block.has(kUnbelieved)) block.end = std::min(block.end, block.dataPos());
  }
}

}  // namespace qvdbase::survey
