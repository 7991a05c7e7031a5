// Where positions are looked up: expected ones, in ascending order, and others.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "kit/random_seed.h"
#include "recovery/survey/ascending_positions.h"
#include "recovery/survey/position_index.h"

namespace qvdbase::test {
namespace {

using survey::AscendingPositions;
using survey::PositionIndex;

void expectFinds(const std::vector<int64_t>& positions) {
  const AscendingPositions ascending(positions);
  for (uint32_t place = 0; place < positions.size(); ++place) {
    const int64_t position = positions[place];
    ASSERT_EQ(ascending.find(position), place);
    for (const int64_t other : {position - 1, position + 1}) {
      if (std::ranges::binary_search(positions, other)) continue;
      ASSERT_EQ(ascending.find(other), AscendingPositions::kNone) << other;
    }
  }
  for (const int64_t other : {INT64_MIN, int64_t{-1}, INT64_MAX}) {
    EXPECT_EQ(ascending.find(other), AscendingPositions::kNone);
  }
}

TEST(AscendingPositions, FindsNothingInNone) {
  expectFinds({});
}

TEST(AscendingPositions, FindsOne) {
  expectFinds({4630});
}

TEST(AscendingPositions, FindsThoseThatAreFarApart) {
  expectFinds({1, 2, 3, 4, int64_t{1} << 40, (int64_t{1} << 40) + 1, INT64_MAX - 1});
}

TEST(AscendingPositions, FindsManyAtAllDistances) {
  std::mt19937_64 random(randomSeed());
  for (const int64_t widest : {1, 60, 5000, 1000000}) {
    SCOPED_TRACE(widest);
    std::vector<int64_t> positions;
    int64_t position = 4630;
    for (int i = 0; i < 5000; ++i) {
      positions.push_back(position);
      position += 1 + static_cast<int64_t>(random()) % widest * (random() % 2 == 0 ? 0 : 1);
      position = std::max(position, positions.back() + 1);
    }
    expectFinds(positions);
  }
}

TEST(PositionIndex, FindsExpectedPositionsAndOthers) {
  PositionIndex index;
  std::vector<int64_t> expected;
  for (int64_t i = 0; i < 1000; ++i) expected.push_back(4630 + 156 * i);
  index.expect(AscendingPositions(expected));
  std::map<int64_t, uint32_t> added;
  for (uint32_t number = 0; number < 1000; ++number) {
    // Every second expected one, and as many beside them.
    const int64_t position = number % 2 == 0 ? expected[number] : expected[number] + 13;
    EXPECT_EQ(index.find(position), PositionIndex::kNone);
    index.add(position, number);
    added[position] = number;
  }
  for (const int64_t position : expected) {
    for (const int64_t each : {position, position + 13, position + 14}) {
      const auto found = added.find(each);
      EXPECT_EQ(index.find(each), found != added.end() ? found->second : PositionIndex::kNone);
    }
  }
  EXPECT_EQ(index.find(0), PositionIndex::kNone);
}

}  // namespace
}  // namespace qvdbase::test
