// The map of an index by identifier.
#include "objects/indexes/identifier_map.h"

#include <new>
#include <utility>

using namespace qvdbase;

namespace qvdb::detail {

using format::kept::HashEntry;

void IdentifierMap::use(std::shared_ptr<KeptPages> kept) {
  memory_.clear();
  kept_ = std::move(kept);
  size_ = static_cast<size_t>(kept_->head().entries);
  isChanged_ = false;
}

void IdentifierMap::clear() {
  memory_.clear();
  kept_ = nullptr;
  size_ = 0;
  isChanged_ = true;
}

std::optional<int64_t> IdentifierMap::findKept(uint64_t hash) const {
  if (const std::optional<int64_t> position = memory_.find(hash)) {
    return *position == kErased ? std::nullopt : position;
  }
  std::vector<int64_t> positions;
  kept_->list(hash, 0, 1, &positions);
  if (positions.empty() || kept_->isBroken()) return std::nullopt;
  return positions[0];
}

std::optional<int64_t> IdentifierMap::findInFile(uint64_t id) const {
  return findKept(support::mixed(id, kept_->seed()));
}

void IdentifierMap::set(uint64_t hash, int64_t position) {
  isChanged_ = true;
  if (!memory_.insert(hash, position)) memory_.replace(hash, position);
}

bool IdentifierMap::insert(uint64_t id, int64_t position) {
  if (kept_ == nullptr) {
    isChanged_ = true;
    return memory_.insert(id, position);
  }
  const uint64_t hash = support::mixed(id, kept_->seed());
  if (findKept(hash)) return false;
  set(hash, position);
  ++size_;
  return true;
}

// Where there is no memory for the change, the file is used no more.
void IdentifierMap::replace(uint64_t id, int64_t position) {
  isChanged_ = true;
  if (kept_ == nullptr) return memory_.replace(id, position);
  const uint64_t hash = support::mixed(id, kept_->seed());
  try {
    if (findKept(hash)) set(hash, position);
  } catch (const std::bad_alloc&) {
    kept_->markBroken();
  }
}

void IdentifierMap::erase(uint64_t id) {
  isChanged_ = true;
  if (kept_ == nullptr) return memory_.erase(id);
  const uint64_t hash = support::mixed(id, kept_->seed());
  try {
    if (!findKept(hash)) return;
    set(hash, kErased);
    --size_;
  } catch (const std::bad_alloc&) {
    kept_->markBroken();
  }
}

void IdentifierMap::collect(const support::HashSeed& seed, uint64_t from, uint64_t to,
                            std::vector<HashEntry>* entries) const {
  memory_.forEach([&](uint64_t key, int64_t position) {
    const uint64_t hash = kept_ == nullptr ? support::mixed(key, seed) : key;
    if (hash >= from && hash <= to && position != kErased) entries->push_back({hash, position});
  });
}

}  // namespace qvdb::detail
