// What an index knows of the keys.
#include "objects/indexes/key_maps.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr size_t kMovedAtOnce = 256;

bool isBefore(const OrderedKeys::Place& a, const OrderedKeys::Place& b) {
  const int order = a.key.compare(b.key);
  return order != 0 ? order < 0 : a.position < b.position;
}

bool isSame(const OrderedKeys::Place& a, const OrderedKeys::Place& b) {
  return a.position == b.position && a.key == b.key;
}

bool isBefore(int64_t a, int64_t b) {
  return a < b;
}

bool isSame(int64_t a, int64_t b) {
  return a == b;
}

// Adds to what memory has, `found`, what the file has and what was not dropped since: in order,
// each once, `most` in all. `listFile` appends `most` entries of the file at most, after the one
// given.
template <typename Item, typename ListFile, typename IsDropped>
void addKept(Item from, size_t most, std::vector<Item>* found, const ListFile& listFile,
             const IsDropped& isDropped) {
  const size_t inMemory = found->size();
  for (std::vector<Item> some; found->size() < inMemory + most; from = some.back()) {
    some.clear();
    listFile(from, &some);
    std::remove_copy_if(some.begin(), some.end(), std::back_inserter(*found), isDropped);
    if (some.size() < most) break;
  }
  std::sort(found->begin(), found->end(),
            [](const Item& a, const Item& b) { return isBefore(a, b); });
  found->erase(std::unique(found->begin(), found->end(),
                           [](const Item& a, const Item& b) { return isSame(a, b); }),
               found->end());
  if (found->size() > most) found->resize(most);
}

}  // namespace

void KeyMaps::use(std::shared_ptr<KeptPages> kept) {
  *this = KeyMaps(kept->seed());
  kept_ = std::move(kept);
  isChanged_ = false;
}

KeyMaps KeyMaps::moved(const std::function<int64_t(int64_t)>& newPlace) const {
  KeyMaps made(seed_);
  made.reserve(size());
  const auto enter = [&](const format::kept::HashEntry& entry) {
    const int64_t position = newPlace(entry.position);
    if (position != 0) made.map_.insert(entry.hash, position);
  };
  std::vector<format::kept::HashEntry> entries;
  map_.collect(0, std::numeric_limits<uint64_t>::max(), &entries);
  for (const auto& entry : entries) enter(entry);
  if (kept_ != nullptr) {
    KeptPages::Cursor cursor(*kept_);
    for (format::kept::HashEntry entry; cursor.next(&entry);) {
      if (!hides(entry)) enter(entry);
    }
  }
  std::vector<Place> places;
  for (Place after;; after = places.back()) {
    places.clear();
    listKeys(after, nullptr, kMovedAtOnce, &places);
    for (const Place& place : places) {
      const int64_t position = newPlace(place.position);
      if (position != 0) made.ordered_.insert(place.key, position);
    }
    if (places.size() < kMovedAtOnce) return made;
  }
}

bool KeyMaps::isInFile(uint64_t hash, int64_t position) const {
  // What was appended since is beyond the file as it was.
  return kept_ != nullptr && position < kept_->head().stamp.size &&
         kept_->contains(hash, position) && !dropped_.contains(hash, position);
}

bool KeyMaps::insert(std::string_view key, int64_t position, bool isOrdered) {
  const uint64_t hash = hashOf(key);
  if (isInFile(hash, position)) return false;
  isChanged_ = true;
  const bool isNew = map_.insert(hash, position);
  if (isOrdered) ordered_.insert(key, position);
  return isNew;
}

bool KeyMaps::erase(std::string_view key, int64_t position) noexcept {
  const uint64_t hash = hashOf(key);
  isChanged_ = true;
  try {
    bool wasThere = false;
    if (isInFile(hash, position)) wasThere = dropped_.insert(hash, position);
    ordered_.erase(key, position);
    return map_.erase(hash, position) || wasThere;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void KeyMaps::list(std::string_view key, int64_t after, size_t most,
                   std::vector<int64_t>* positions) const {
  const uint64_t hash = hashOf(key);
  if (kept_ == nullptr) return map_.list(hash, after, most, positions);
  std::vector<int64_t> found;
  map_.list(hash, after, most, &found);
  addKept(
      after, most, &found,
      [&](int64_t from, std::vector<int64_t>* some) { kept_->list(hash, from, most, some); },
      [&](int64_t position) { return dropped_.contains(hash, position); });
  positions->insert(positions->end(), found.begin(), found.end());
}

void KeyMaps::listKeys(const Place& after, const std::string* to, size_t most,
                       std::vector<Place>* places) const {
  if (kept_ == nullptr) return ordered_.list(after, to, most, places);
  std::vector<Place> found;
  ordered_.list(after, to, most, &found);
  addKept(
      after, most, &found,
      [&](const Place& from, std::vector<Place>* some) { kept_->listKeys(from, to, most, some); },
      [&](const Place& place) { return dropped_.contains(hashOf(place.key), place.position); });
  std::move(found.begin(), found.end(), std::back_inserter(*places));
}

size_t KeyMaps::size() const {
  if (kept_ == nullptr) return map_.size();
  const size_t all = static_cast<size_t>(kept_->head().entries) + map_.size();
  return all - std::min(all, dropped_.size());
}

size_t KeyMaps::bytes() const {
  return map_.bytes() + ordered_.bytes() + dropped_.bytes() +
         (kept_ == nullptr ? 0 : kept_->bytes());
}

}  // namespace qvdb::detail
