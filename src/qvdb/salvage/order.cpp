// The order of the records of a broken chain.
#include <algorithm>
#include <unordered_set>

#include "qvdb/salvage/plan.h"

namespace qvdbase::salvage {

using raw::Block;
using raw::Survey;

std::vector<uint32_t> inLinkOrder(const Survey& survey, std::vector<uint32_t> blocks) {
  const auto at = [&](uint32_t number) -> const Block& { return survey.blocks[number]; };
  std::sort(blocks.begin(), blocks.end(),
            [&](uint32_t a, uint32_t b) { return at(a).position < at(b).position; });
  const std::unordered_set<uint32_t> members(blocks.begin(), blocks.end());

  // The member that follows `number` in the chain, if both name each other.
  const auto neighbour = [&](uint32_t number, int64_t Block::*link, int64_t Block::*back) {
    const uint32_t other = survey.byPosition.find(at(number).*link);
    const bool isMember = other != raw::kNoBlock && members.contains(other);
    return isMember && at(other).*back == at(number).position ? other : raw::kNoBlock;
  };

  std::vector<uint32_t> ordered;
  std::unordered_set<uint32_t> placed;
  const auto placeFrom = [&](uint32_t number) {
    while (number != raw::kNoBlock && placed.insert(number).second) {
      ordered.push_back(number);
      number = neighbour(number, &Block::next, &Block::prev);
    }
  };
  for (const uint32_t number : blocks) {
    if (neighbour(number, &Block::prev, &Block::next) == raw::kNoBlock) placeFrom(number);
  }
  for (const uint32_t number : blocks) placeFrom(number);  // what is left stands in circles
  return ordered;
}

}  // namespace qvdbase::salvage
