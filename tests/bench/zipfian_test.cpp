// The random numbers of the workloads of YCSB.
#include "figures/zipfian.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <vector>

namespace bench {
namespace {

constexpr uint64_t kCount = 1000;
constexpr int kDraws = 200'000;

std::vector<double> sharesOf(uint64_t count) {
  const Zipfian zipfian(count);
  std::mt19937_64 random(1);
  std::vector<double> shares(count);
  for (int i = 0; i < kDraws; ++i) shares.at(zipfian(random)) += 1.0 / kDraws;
  return shares;
}

TEST(BenchZipfian, DrawsTheFirstAsOftenAsItsWeightSays) {
  double weights = 0;
  for (uint64_t i = 1; i <= kCount; ++i) weights += 1 / std::pow(static_cast<double>(i), 0.99);
  EXPECT_NEAR(Zipfian(kCount).shareOfFirst(), 1 / weights, 1e-12);
  EXPECT_NEAR(sharesOf(kCount)[0], 1 / weights, 0.005);
}

TEST(BenchZipfian, DrawsTheSecondAboutHalfAsOften) {
  const std::vector<double> shares = sharesOf(kCount);
  EXPECT_NEAR(shares[1] / shares[0], std::pow(0.5, 0.99), 0.03);
}

TEST(BenchZipfian, DrawsAllRanksAndNoOther) {
  const std::vector<double> shares = sharesOf(100);  // at() has refused others
  for (const double share : shares) EXPECT_GT(share, 0);
  EXPECT_GT(shares[0], shares[10]);
  EXPECT_GT(shares[10], shares[99]);
}

TEST(BenchZipfian, DrawsTheOnlyRankOfOne) {
  EXPECT_DOUBLE_EQ(sharesOf(1)[0] > 0.999, true);
}

TEST(BenchZipfian, ScattersPopularRanks) {
  std::set<uint64_t> places;
  for (uint64_t rank = 0; rank < 10; ++rank) {
    const uint64_t place = scrambled(rank, kCount);
    EXPECT_LT(place, kCount);
    EXPECT_FALSE(places.contains(place + 1) || places.contains(place - 1));
    places.insert(place);
  }
  EXPECT_GT(places.size(), 8u);
}

}  // namespace
}  // namespace bench
