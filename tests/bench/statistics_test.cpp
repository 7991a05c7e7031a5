// Medians, quartiles and spreads of the benchmarks.
#include "figures/statistics.h"

#include <gtest/gtest.h>

namespace bench {
namespace {

TEST(BenchStatistics, TakesTheMiddleOfAnOddNumberOfTurns) {
  EXPECT_DOUBLE_EQ(medianOf({9, 1, 5}), 5);
}

TEST(BenchStatistics, TakesTheMiddleBetweenTwoTurns) {
  EXPECT_DOUBLE_EQ(medianOf({4, 1, 2, 10}), 3);
}

TEST(BenchStatistics, InterpolatesQuartiles) {
  EXPECT_DOUBLE_EQ(quantileOf({10, 20, 30, 40, 50}, 0.25), 20);
  EXPECT_DOUBLE_EQ(quantileOf({10, 20, 30, 40}, 0.25), 17.5);
  EXPECT_DOUBLE_EQ(quantileOf({10, 20, 30, 40}, 1), 40);
}

TEST(BenchStatistics, TakesTheSpreadBetweenTheQuartiles) {
  EXPECT_DOUBLE_EQ(spreadOf({10, 20, 30, 40, 50}), 20.0 / 30);
  EXPECT_DOUBLE_EQ(spreadOf({7}), 0);
}

TEST(BenchStatistics, IgnoresOneSlowTurnInTheSpread) {
  EXPECT_TRUE(isSteady({100, 101, 102, 103, 104, 105, 106, 90'000}));
}

TEST(BenchStatistics, CallsQuartilesThatAreMoreThanAQuarterApartUnsteady) {
  EXPECT_TRUE(isSteady({75, 87.5, 100, 112.5, 125}));
  EXPECT_FALSE(isSteady({75, 87.4, 100, 112.5, 125}));
}

TEST(BenchStatistics, HasNoFigureWithoutTurns) {
  EXPECT_DOUBLE_EQ(medianOf({}), 0);
  EXPECT_DOUBLE_EQ(spreadOf({}), 0);
}

}  // namespace
}  // namespace bench
