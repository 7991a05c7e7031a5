// From file positions to numbers of blocks. Positions that were expected take 16 bytes each. The
// others are in a hash table: 12 bytes per place, at most two thirds of the places taken. They come
// from a file, so that the hash has a seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "recovery/survey/ascending_positions.h"
#include "support/seeded_hash.h"

namespace qvdbase::survey {

class PositionIndex {
 public:
  static constexpr uint32_t kNone = AscendingPositions::kNone;

  // Positions that are going to be added, most of them. To be called before any is.
  void expect(AscendingPositions positions) {
    expected_ = std::move(positions);
    numbers_.assign(expected_.size(), kNone);
  }

  // Where a position is among the expected ones, or kNone.
  uint32_t expectedPlace(int64_t position) const { return expected_.find(position); }

  // The number at `position`, or kNone; there is none at 0 and below.
  uint32_t find(int64_t position) const {
    const uint32_t expected = expected_.find(position);
    return expected != kNone ? numbers_[expected] : findOther(position);
  }

  // Adds a position that is not there yet.
  void add(int64_t position, uint32_t value) {
    const uint32_t expected = expected_.find(position);
    if (expected != kNone) {
      numbers_[expected] = value;
    } else {
      addOther(position, value);
    }
  }

  // The numbers of all expected positions in their order, kNone for those that were not added.
  const std::vector<uint32_t>& numbersOfExpected() const { return numbers_; }

 private:
  uint32_t findOther(int64_t position) const {
    if (keys_.empty() || position <= 0) return kNone;
    for (size_t place = placeOf(position);; place = (place + 1) & (keys_.size() - 1)) {
      if (keys_[place] == position) return values_[place];
      if (keys_[place] == 0) return kNone;
    }
  }

  void addOther(int64_t position, uint32_t value) {
    if (3 * (taken_ + 1) > 2 * keys_.size()) grow();
    put(position, value);
    ++taken_;
  }

  size_t placeOf(int64_t position) const {
    return static_cast<size_t>(support::mixed(static_cast<uint64_t>(position), seed_)) &
           (keys_.size() - 1);
  }

  void put(int64_t position, uint32_t value) {
    size_t place = placeOf(position);
    while (keys_[place] != 0) place = (place + 1) & (keys_.size() - 1);
    keys_[place] = position;
    values_[place] = value;
  }

  void grow() {
    const std::vector<int64_t> oldKeys = std::move(keys_);
    const std::vector<uint32_t> oldValues = std::move(values_);
    const size_t places = oldKeys.empty() ? 64 : oldKeys.size() * 2;
    keys_.assign(places, 0);
    values_.assign(places, 0);
    for (size_t i = 0; i < oldKeys.size(); ++i) {
      if (oldKeys[i] != 0) put(oldKeys[i], oldValues[i]);
    }
  }

  AscendingPositions expected_;
  std::vector<uint32_t> numbers_;  // at the places of the expected positions

  support::HashSeed seed_ = support::hashSeed();
  std::vector<int64_t> keys_;
  std::vector<uint32_t> values_;
  size_t taken_ = 0;
};

}  // namespace qvdbase::survey
