// Walks that come round are noticed after a few times as many steps as there are records.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "QVDbase/loop_detector.h"

namespace {

using qvdbase::engine::LoopDetector;

// Position of the n-th step of a walk over `tail` records and then a loop of `round`.
int64_t positionAt(uint64_t step, uint64_t tail, uint64_t round) {
  const uint64_t place = step < tail ? step : tail + (step - tail) % round;
  return static_cast<int64_t>(4630 + 61 * place);
}

TEST(LoopDetector, FindsEveryLoopWithinAFewRounds) {
  for (const uint64_t tail : {0u, 1u, 2u, 3u, 100u, 1023u, 5000u}) {
    for (const uint64_t round : {1u, 2u, 3u, 64u, 1000u, 4099u}) {
      SCOPED_TRACE(std::to_string(tail) + " and " + std::to_string(round));
      // Positions are remembered after 1, 2, 4, 8... steps: one of them soon lies in the loop and
      // is kept for a whole round of it.
      const uint64_t most = 3 * (tail + round) + 3;
      LoopDetector walk;
      uint64_t step = 0;
      while (step < most && !walk.visited(positionAt(step, tail, round))) ++step;
      EXPECT_LT(step, most);
      EXPECT_EQ(walk.period(), round);
    }
  }
}

TEST(LoopDetector, SaysNothingOfAWalkThatNeverComesRound) {
  LoopDetector walk;
  for (int64_t position = 0; position < 100000; ++position) {
    ASSERT_FALSE(walk.visited(position));
  }
}

}  // namespace
