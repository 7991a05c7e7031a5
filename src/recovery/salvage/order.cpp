// The order of the records of a broken chain.
#include <algorithm>
#include <optional>

#include "recovery/salvage/plan.h"

using namespace qvdbase::survey;

namespace qvdbase::salvage {

std::vector<uint32_t> inLinkOrder(const Survey& survey, std::vector<uint32_t> blocks) {
  const auto at = [&](uint32_t number) -> const Block& { return survey.blocks[number]; };
  const auto before = [&](uint32_t a, uint32_t b) { return at(a).position < at(b).position; };
  std::sort(blocks.begin(), blocks.end(), before);

  // Where the block at `position` is among the sorted ones.
  const auto indexOf = [&](int64_t position) -> std::optional<size_t> {
    const uint32_t number = survey.byPosition.find(position);
    if (number == kNoBlock) return std::nullopt;
    const auto place = std::lower_bound(blocks.begin(), blocks.end(), number, before);
    if (place == blocks.end() || *place != number) return std::nullopt;
    return static_cast<size_t>(place - blocks.begin());
  };

  // The one that follows in the chain, if both name each other.
  const auto neighbour = [&](size_t index, int64_t Block::*link,
                             int64_t Block::*back) -> std::optional<size_t> {
    const std::optional<size_t> other = indexOf(at(blocks[index]).*link);
    if (!other || at(blocks[*other]).*back != at(blocks[index]).position) return std::nullopt;
    return other;
  };

  std::vector<uint32_t> ordered;
  std::vector<bool> isPlaced(blocks.size(), false);
  const auto placeFrom = [&](std::optional<size_t> index) {
    while (index && !isPlaced[*index]) {
      isPlaced[*index] = true;
      ordered.push_back(blocks[*index]);
      index = neighbour(*index, &Block::next, &Block::prev);
    }
  };
  for (size_t i = 0; i < blocks.size(); ++i) {
    if (!neighbour(i, &Block::prev, &Block::next)) placeFrom(i);
  }
  for (size_t i = 0; i < blocks.size(); ++i) placeFrom(i);  // what is left forms circles
  return ordered;
}

}  // namespace qvdbase::salvage
