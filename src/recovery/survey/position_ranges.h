// Where a position is among others in ascending order: 4 bytes for each of them. The file is
// divided into ranges of equal size, about as many as there are positions, so that few have to be
// compared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qvdbase::survey {

class PositionRanges {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFF;

  PositionRanges() = default;

  // `positionAt` gives the position at each place below `count`; each is greater than the one
  // before it. It must say the same whenever it is asked.
  template <typename PositionAt>
  PositionRanges(uint32_t count, const PositionAt& positionAt) {
    if (count == 0) return;
    first_ = positionAt(0);
    last_ = positionAt(count - 1);
    while (rangeOf(last_) >= count) ++shift_;
    firstIn_.reserve(rangeOf(last_) + 2);
    for (uint32_t place = 0; place < count; ++place) {
      const size_t range = rangeOf(positionAt(place));
      while (firstIn_.size() <= range) firstIn_.push_back(place);
    }
    firstIn_.push_back(count);
  }

  // The place of a position, or kNone.
  template <typename PositionAt>
  uint32_t find(int64_t position, const PositionAt& positionAt) const {
    if (firstIn_.empty() || position < first_ || position > last_) return kNone;
    const size_t range = rangeOf(position);
    uint32_t begin = firstIn_[range];
    uint32_t end = firstIn_[range + 1];
    while (begin < end) {
      const uint32_t middle = begin + (end - begin) / 2;
      const int64_t there = positionAt(middle);
      if (there == position) return middle;
      if (there < position) {
        begin = middle + 1;
      } else {
        end = middle;
      }
    }
    return kNone;
  }

 private:
  size_t rangeOf(int64_t position) const {
    return static_cast<size_t>((position - first_) >> shift_);
  }

  std::vector<uint32_t> firstIn_;  // for each range: the place of the first one in it or after it
  int64_t first_ = 0;
  int64_t last_ = 0;
  int shift_ = 0;
};

}  // namespace qvdbase::survey
