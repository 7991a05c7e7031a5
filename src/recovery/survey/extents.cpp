// Step 3 of a survey: what the blocks reached by chains and slots cover.
//
// Where the extents of two of them overlap, the first one's capacity is wrong. A block whose
// capacity is wrong, or which nothing confirms, covers its header for the time being; what
// follows is scanned like a gap, and belongs to it again as far as no block was found.
#include <algorithm>
#include <iterator>

#include "recovery/survey/survey.h"

namespace qvdbase::survey {

// The expected positions are in order already. Few blocks are elsewhere, unless the file is
// damaged.
std::vector<uint32_t> blocksInFileOrder(const Survey& survey) {
  const auto positionOf = [&](uint32_t number) { return survey.blocks[number].position; };
  const std::vector<uint32_t>& expected = survey.byPosition.numbersOfExpected();
  std::vector<uint32_t> order;
  order.reserve(survey.blocks.size());
  std::ranges::copy_if(expected, std::back_inserter(order),
                       [](uint32_t number) { return number != kNoBlock; });
  if (order.size() == survey.blocks.size()) return order;

  std::vector<bool> isThere(survey.blocks.size(), false);
  for (const uint32_t number : order) isThere[number] = true;
  const auto others = static_cast<std::ptrdiff_t>(order.size());
  for (uint32_t number = 0; number < survey.blocks.size(); ++number) {
    if (!isThere[number]) order.push_back(number);
  }
  std::ranges::sort(order.begin() + others, order.end(), {}, positionOf);
  std::ranges::inplace_merge(order, order.begin() + others, {}, positionOf);
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
