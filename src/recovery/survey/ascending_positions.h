// Positions in ascending order, and the place of each: 12 bytes for a position. The file is divided
// into ranges of equal size, about as many as there are positions, so that few have to be compared.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace qvdbase::survey {

class AscendingPositions {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFF;

  AscendingPositions() = default;

  // Each position is greater than the one before it.
  explicit AscendingPositions(std::vector<int64_t> positions) : positions_(std::move(positions)) {
    if (positions_.empty()) return;
    while (rangeOf(positions_.back()) >= positions_.size()) ++shift_;
    firstIn_.reserve(rangeOf(positions_.back()) + 2);
    for (uint32_t place = 0; place < positions_.size(); ++place) {
      const size_t range = rangeOf(positions_[place]);
      while (firstIn_.size() <= range) firstIn_.push_back(place);
    }
    firstIn_.push_back(size());
  }

  uint32_t size() const { return static_cast<uint32_t>(positions_.size()); }

  // The place of a position, or kNone.
  uint32_t find(int64_t position) const {
    if (positions_.empty() || position < positions_.front() || position > positions_.back()) {
      return kNone;
    }
    const size_t range = rangeOf(position);
    const int64_t* const end = positions_.data() + firstIn_[range + 1];
    const int64_t* const found =
        std::lower_bound(positions_.data() + firstIn_[range], end, position);
    return found != end && *found == position ? static_cast<uint32_t>(found - positions_.data())
                                              : kNone;
  }

 private:
  size_t rangeOf(int64_t position) const {
    return static_cast<size_t>((position - positions_.front()) >> shift_);
  }

  std::vector<int64_t> positions_;
  std::vector<uint32_t> firstIn_;  // for each range: the place of the first one in it or after it
  int shift_ = 0;
};

}  // namespace qvdbase::survey
