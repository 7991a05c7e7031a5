// Hashes of keys, and the positions of each.
#include "objects/indexes/key_map.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "format/big_endian.h"
#include "support/seeded_hash.h"

using namespace qvdbase;

namespace qvdb::detail {

// Eight bytes at a time, the last ones followed by zeros.
uint64_t hashOfKey(std::string_view key, const support::HashSeed& seed) {
  uint64_t hash = support::mixed(key.size(), seed);
  while (!key.empty()) {
    std::array<unsigned char, sizeof(uint64_t)> word = {};
    const size_t count = std::min(key.size(), word.size());
    std::memcpy(word.data(), key.data(), count);
    hash = support::mixed(hash ^ format::loadBigEndian<uint64_t>(word.data()), seed);
    key.remove_prefix(count);
  }
  return hash;
}

// The last piece that does not begin after the position, or the first.
size_t PositionSet::pieceOf(int64_t position) const {
  const auto after =
      std::upper_bound(pieces_.begin(), pieces_.end(), position,
                       [](int64_t wanted, const auto& piece) { return wanted < piece.front(); });
  return after == pieces_.begin() ? 0 : static_cast<size_t>(after - pieces_.begin()) - 1;
}

// Positions mostly grow: what is added after all others leaves the pieces full.
void PositionSet::split(size_t piece) {
  std::vector<int64_t>& full = pieces_[piece];
  const bool isLast = piece + 1 == pieces_.size();
  const auto from = full.begin() + static_cast<ptrdiff_t>(isLast ? full.size() - 1 : kPiece / 2);
  std::vector<int64_t> rest(from, full.end());
  rest.reserve(kPiece + 1);
  if (pieces_.capacity() == pieces_.size()) pieces_.reserve(pieces_.size() * 2);
  pieces_[piece].resize(pieces_[piece].size() - rest.size());
  pieces_.insert(pieces_.begin() + static_cast<ptrdiff_t>(piece) + 1, std::move(rest));
}

bool PositionSet::insert(int64_t position) {
  if (pieces_.empty()) {
    pieces_.push_back({position});
    return true;
  }
  const size_t number = pieceOf(position);
  std::vector<int64_t>& piece = pieces_[number];
  const auto place = std::lower_bound(piece.begin(), piece.end(), position);
  if (place != piece.end() && *place == position) return false;
  piece.insert(place, position);
  if (piece.size() > kPiece) split(number);
  return true;
}

bool PositionSet::erase(int64_t position) {
  if (pieces_.empty()) return false;
  const size_t number = pieceOf(position);
  std::vector<int64_t>& piece = pieces_[number];
  const auto place = std::lower_bound(piece.begin(), piece.end(), position);
  if (place == piece.end() || *place != position) return false;
  piece.erase(place);
  if (piece.empty()) pieces_.erase(pieces_.begin() + static_cast<ptrdiff_t>(number));
  return true;
}

void PositionSet::list(int64_t after, size_t most, std::vector<int64_t>* positions) const {
  if (pieces_.empty()) return;
  for (size_t number = pieceOf(after); number < pieces_.size() && most != 0; ++number) {
    const std::vector<int64_t>& piece = pieces_[number];
    auto place = std::upper_bound(piece.begin(), piece.end(), after);
    const auto count = std::min(most, static_cast<size_t>(piece.end() - place));
    positions->insert(positions->end(), place, place + static_cast<ptrdiff_t>(count));
    most -= count;
  }
}

size_t PositionSet::bytes() const {
  size_t bytes = pieces_.capacity() * sizeof pieces_[0];
  for (const auto& piece : pieces_) bytes += piece.capacity() * sizeof(int64_t);
  return bytes;
}

bool KeyMap::insert(uint64_t hash, int64_t position) {
  const std::optional<int64_t> value = map_.find(hash);
  bool isNew = true;
  if (!value) {
    isNew = map_.insert(hash, position);
  } else if (*value < 0) {
    isNew = groups_[asGroup(*value)].insert(position);
  } else {
    isNew = makeGroup(hash, *value, position);
  }
  if (isNew) ++size_;
  return isNew;
}

bool KeyMap::makeGroup(uint64_t hash, int64_t first, int64_t second) {
  if (first == second) return false;
  PositionSet positions;
  positions.insert(first);
  positions.insert(second);
  // So that the end of a group cannot fail.
  if (freeGroups_.capacity() == groups_.size()) freeGroups_.reserve(groups_.size() * 2 + 1);
  size_t group = groups_.size();
  if (freeGroups_.empty()) {
    groups_.push_back(std::move(positions));
  } else {
    group = freeGroups_.back();
    freeGroups_.pop_back();
    groups_[group] = std::move(positions);
  }
  map_.replace(hash, asValue(group));
  return true;
}

void KeyMap::endGroup(uint64_t hash, size_t group) {
  map_.replace(hash, groups_[group].first());
  groups_[group] = {};
  freeGroups_.push_back(group);
}

bool KeyMap::erase(uint64_t hash, int64_t position) {
  const std::optional<int64_t> value = map_.find(hash);
  if (!value) return false;
  if (*value >= 0) {
    if (*value != position) return false;
    map_.erase(hash);
  } else {
    PositionSet& positions = groups_[asGroup(*value)];
    if (!positions.erase(position)) return false;
    if (positions.hasOne()) endGroup(hash, asGroup(*value));
  }
  --size_;
  return true;
}

void KeyMap::list(uint64_t hash, int64_t after, size_t most,
                  std::vector<int64_t>* positions) const {
  const std::optional<int64_t> value = map_.find(hash);
  if (!value || most == 0) return;
  if (*value < 0) return groups_[asGroup(*value)].list(after, most, positions);
  if (*value > after) positions->push_back(*value);
}

bool KeyMap::contains(uint64_t hash, int64_t position) const {
  std::vector<int64_t> positions;
  list(hash, position - 1, 1, &positions);
  return !positions.empty() && positions[0] == position;
}

void KeyMap::collect(uint64_t from, uint64_t to,
                     std::vector<format::kept::HashEntry>* entries) const {
  map_.forEach([&](uint64_t hash, int64_t value) {
    if (hash < from || hash > to) return;
    std::vector<int64_t> positions = {value};
    if (value < 0) {
      positions.clear();
      groups_[asGroup(value)].list(0, std::numeric_limits<size_t>::max(), &positions);
    }
    for (const int64_t position : positions) entries->push_back({hash, position});
  });
}

size_t KeyMap::bytes() const {
  size_t bytes = map_.bytes() + groups_.capacity() * sizeof(PositionSet) +
                 freeGroups_.capacity() * sizeof(size_t);
  for (const PositionSet& positions : groups_) bytes += positions.bytes();
  return bytes;
}

}  // namespace qvdb::detail
