// Positions in ascending order, and the place of each: 12 bytes for a position.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "recovery/survey/position_ranges.h"

namespace qvdbase::survey {

class AscendingPositions {
 public:
  static constexpr uint32_t kNone = PositionRanges::kNone;

  AscendingPositions() = default;

  // Each position is greater than the one before it.
  explicit AscendingPositions(std::vector<int64_t> positions)
      : positions_(std::move(positions)), ranges_(size(), At{positions_}) {}

  uint32_t size() const { return static_cast<uint32_t>(positions_.size()); }

  // The place of a position, or kNone.
  uint32_t find(int64_t position) const { return ranges_.find(position, At{positions_}); }

 private:
  struct At {
    const std::vector<int64_t>& positions;
    int64_t operator()(uint32_t place) const { return positions[place]; }
  };

  std::vector<int64_t> positions_;
  PositionRanges ranges_;
};

}  // namespace qvdbase::survey
