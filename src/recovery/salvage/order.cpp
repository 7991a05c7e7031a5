// The order of the records of a broken chain.
#include <algorithm>
#include <map>
#include <optional>

#include "recovery/salvage/plan.h"

using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

// The members of a table that take the place of blocks which do not count: found by the identifier
// or, where the block has none, by the links, which a moved record takes along.
class OlderVersions {
 public:
  OlderVersions(const Survey& survey, const std::vector<uint32_t>& members) : survey_(survey) {
    for (const uint32_t number : members) {
      const Block& each = survey.blocks[number];
      if (each.reach & kForward) continue;
      byRecord_[each.recordID] = number;
      if (each.next != 0) byNext_[each.next] = number;
      byPrev_[each.prev] = number;
    }
  }

  uint32_t instead(uint32_t number) const {
    const Block& asked = survey_.blocks[number];
    if (asked.recordID != 0) return found(byRecord_, asked.recordID);
    const uint32_t sameNext = found(byNext_, asked.next);
    return sameNext != kNoBlock ? sameNext : found(byPrev_, asked.prev);
  }

 private:
  template <typename Key>
  static uint32_t found(const std::map<Key, uint32_t>& numbers, Key key) {
    const auto place = numbers.find(key);
    return place == numbers.end() ? kNoBlock : place->second;
  }

  const Survey& survey_;
  std::map<uint64_t, uint32_t> byRecord_;
  std::map<int64_t, uint32_t> byNext_;
  std::map<int64_t, uint32_t> byPrev_;
};

}  // namespace

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

std::vector<uint32_t> chainOrder(const Survey& survey, const Table& table,
                                 const std::vector<uint32_t>& members) {
  std::vector<uint32_t> chain;
  std::vector<bool> isMember(survey.blocks.size(), false);
  for (const uint32_t number : members) isMember[number] = true;
  const auto take = [&](uint32_t number) {
    if (!isMember[number]) return;
    isMember[number] = false;
    chain.push_back(number);
  };
  const OlderVersions older(survey, members);
  const auto takeOrReplace = [&](uint32_t number) {
    if (!isMember[number]) number = older.instead(number);
    if (number != kNoBlock) take(number);
  };
  for (const uint32_t number : table.forward.blocks) takeOrReplace(number);

  std::vector<uint32_t> detached;
  for (const uint32_t number : members) {
    if (isMember[number] && !(survey.blocks[number].reach & kBackward)) detached.push_back(number);
  }
  for (const uint32_t number : inLinkOrder(survey, detached)) take(number);
  const std::vector<uint32_t>& backward = table.backward.blocks;
  std::for_each(backward.rbegin(), backward.rend(), takeOrReplace);
  for (const uint32_t number : members) take(number);
  return chain;
}

}  // namespace qvdbase::salvage
