// The hash map of an index.
#include "objects/indexes/index_map.h"

#include <algorithm>

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr size_t kSmallest = 64;

}  // namespace

// The hash's share of the places: the upper half of the product, in 32-bit steps.
inline size_t IndexMap::home(uint64_t key) const {
  const uint64_t hash = support::mixed(key, seed_);
  const uint64_t places = places_.size();
  const uint64_t low = (hash & 0xFFFFFFFFu) * places >> 32;
  return static_cast<size_t>(((hash >> 32) * places + low) >> 32);
}

inline const IndexMap::Entry* IndexMap::search(uint64_t key) const {
  const Entry* entry = places_.begin() + home(key);
  const Entry* const end = places_.end();
  while (entry->position != 0 && entry->key != key) {
    if (++entry == end) entry = places_.begin();
  }
  return entry;
}

size_t IndexMap::stepsTo(uint64_t key) const {
  if (places_.empty()) return 0;
  const size_t from = home(key);
  const size_t to = placeOf(key);
  return (to >= from ? to : to + places_.size()) - from + 1;
}

void IndexMap::reserve(size_t count) {
  if (size_ == 0) places_ = platform::LargeArray<Entry>(std::max(kSmallest, count + count / 2));
}

bool IndexMap::insert(uint64_t key, int64_t position) {
  if ((size_ + 1) * 4 > places_.size() * 3) grow();
  Entry& entry = places_[placeOf(key)];
  if (entry.position != 0) return false;
  entry = {key, position};
  ++size_;
  return true;
}

void IndexMap::replace(uint64_t key, int64_t position) {
  if (size_ == 0) return;
  Entry& entry = places_[placeOf(key)];
  if (entry.position != 0) entry.position = position;
}

// Entries after the gap move into it unless that would put them before their home.
void IndexMap::erase(uint64_t key) {
  if (size_ == 0) return;
  size_t gap = placeOf(key);
  if (places_[gap].position == 0) return;
  for (size_t place = next(gap); places_[place].position != 0; place = next(place)) {
    const size_t from = home(places_[place].key);
    const bool homeLiesBetween =
        gap < place ? (from > gap && from <= place) : (from > gap || from <= place);
    if (homeLiesBetween) continue;
    places_[gap] = places_[place];
    gap = place;
  }
  places_[gap] = {};
  --size_;
}

std::optional<int64_t> IndexMap::find(uint64_t key) const {
  if (size_ == 0) return std::nullopt;
  const Entry* entry = search(key);
  if (entry->position == 0) return std::nullopt;
  return entry->position;
}

void IndexMap::clear() {
  places_ = {};
  size_ = 0;
}

void IndexMap::grow() {
  platform::LargeArray<Entry> old(places_.empty() ? kSmallest
                                                  : places_.size() + places_.size() / 4);
  old.swap(places_);
  for (const Entry& entry : old) {
    if (entry.position != 0) places_[placeOf(entry.key)] = entry;
  }
}

}  // namespace qvdb::detail
