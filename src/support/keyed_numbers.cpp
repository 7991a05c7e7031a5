// One pass for each byte of the keys, the lowest first; none for a byte that all keys share.
#include "support/keyed_numbers.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace qvdbase::support {
namespace {

constexpr size_t kBytes = sizeof(uint64_t);
constexpr size_t kFew = 128;  // for which counting bytes does not pay

using Places = std::array<size_t, 256>;

size_t byteOf(uint64_t key, size_t byte) {
  return static_cast<size_t>(key >> (8 * byte)) & 0xFF;
}

std::array<Places, kBytes> countBytes(const std::vector<KeyedNumber>& items) {
  std::array<Places, kBytes> counts = {};
  for (const KeyedNumber& each : items) {
    for (size_t byte = 0; byte < kBytes; ++byte) ++counts[byte][byteOf(each.key, byte)];
  }
  return counts;
}

// From how many there are of each to where the first of each goes.
Places placesOf(const Places& counts) {
  Places places = {};
  size_t place = 0;
  for (size_t value = 0; value < counts.size(); ++value) {
    places[value] = place;
    place += counts[value];
  }
  return places;
}

}  // namespace

void sortByKey(std::vector<KeyedNumber>* items) {
  if (std::ranges::is_sorted(*items, {}, &KeyedNumber::key)) return;
  if (items->size() < kFew) {
    std::ranges::stable_sort(*items, {}, &KeyedNumber::key);
    return;
  }
  const std::array<Places, kBytes> counts = countBytes(*items);
  std::vector<KeyedNumber> sorted(items->size());
  for (size_t byte = 0; byte < kBytes; ++byte) {
    if (counts[byte][byteOf(items->front().key, byte)] == items->size()) continue;
    Places places = placesOf(counts[byte]);
    for (const KeyedNumber& each : *items) sorted[places[byteOf(each.key, byte)]++] = each;
    items->swap(sorted);
  }
}

}  // namespace qvdbase::support
