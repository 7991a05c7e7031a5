// Notices when a walk along a chain returns to a record that it has passed before.
//
// A damaged or hostile chain can loop while its table counts four thousand million records; the
// walk that such a count asks for would take hours. This is Brent's method: it remembers one
// position, renewed at every power of two, so that it costs one comparison per step and no memory,
// and finds a loop after at most a few times as many steps as it has records.
#pragma once

#include <cstdint>

namespace qvdbase::engine {

class LoopDetector {
 public:
  // Takes each position of the walk, in order. Returns whether the walk has been at this position
  // before; period() is then the number of steps since.
  bool visited(int64_t position) {
    if (position == remembered_ && limit_ != 0) return true;
    if (--left_ == 0) remember(position);
    return false;
  }

  uint64_t period() const { return limit_ - left_ + 1; }

 private:
  void remember(int64_t position) {
    remembered_ = position;
    limit_ = limit_ == 0 ? 1 : limit_ * 2;
    left_ = limit_;
  }

  int64_t remembered_ = -1;
  uint64_t limit_ = 0;  // how many steps a position is remembered for; 0 before the first
  uint64_t left_ = 1;   // of them
};

}  // namespace qvdbase::engine
