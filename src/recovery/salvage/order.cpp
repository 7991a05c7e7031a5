// The order of the records of a broken chain.
#include <algorithm>
#include <map>

#include "recovery/salvage/plan.h"
#include "recovery/survey/pieces.h"

using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

// The members of a table that take the place of blocks which do not count. They are found by the
// identifier or, where the block has none, by the links, which a record keeps when it moves.
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
    const auto found = [](const auto& numbers, auto key) {
      const auto place = numbers.find(key);
      return place == numbers.end() ? kNoBlock : place->second;
    };
    if (asked.recordID != 0) return found(byRecord_, asked.recordID);
    const uint32_t sameNext = found(byNext_, asked.next);
    return sameNext != kNoBlock ? sameNext : found(byPrev_, asked.prev);
  }

 private:
  const Survey& survey_;
  std::map<uint64_t, uint32_t> byRecord_;
  std::map<int64_t, uint32_t> byNext_;
  std::map<int64_t, uint32_t> byPrev_;
};

}  // namespace

std::vector<uint32_t> inLinkOrder(const Survey& survey, std::vector<uint32_t> blocks) {
  const auto positionOf = [&](uint32_t number) { return survey.blocks[number].position; };
  std::ranges::sort(blocks, {}, positionOf);
  // Of each block, the one that follows in the chain, if the two name each other.
  std::vector<size_t> successors;
  for (const uint32_t number : blocks) {
    const Block& each = survey.blocks[number];
    const auto next = std::ranges::lower_bound(blocks, each.next, {}, positionOf);
    const bool isNext = next != blocks.end() && positionOf(*next) == each.next &&
                        survey.blocks[*next].prev == each.position;
    successors.push_back(isNext ? static_cast<size_t>(next - blocks.begin()) : blocks.size());
  }
  std::vector<uint32_t> ordered;
  for (const std::vector<size_t>& piece : piecesOf(successors)) {
    for (const size_t place : piece) ordered.push_back(blocks[place]);
  }
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
