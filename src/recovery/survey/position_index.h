// A hash table from file positions to numbers of blocks: 12 bytes per place, at most two thirds of
// the places taken. The positions come from a file, so that the hash has a seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "support/seeded_hash.h"

namespace qvdbase::survey {

class PositionIndex {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFF;

  // The number at `position`, or kNone; there is none at 0 and below.
  uint32_t find(int64_t position) const {
    if (keys_.empty() || position <= 0) return kNone;
    for (size_t place = placeOf(position);; place = (place + 1) & (keys_.size() - 1)) {
      if (keys_[place] == position) return values_[place];
      if (keys_[place] == 0) return kNone;
    }
  }

  // Adds a position that is not there yet.
  void add(int64_t position, uint32_t value) {
    if (3 * (taken_ + 1) > 2 * keys_.size()) grow();
    put(position, value);
    ++taken_;
  }

 private:
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

  support::HashSeed seed_ = support::hashSeed();
  std::vector<int64_t> keys_;
  std::vector<uint32_t> values_;
  size_t taken_ = 0;
};

}  // namespace qvdbase::survey
