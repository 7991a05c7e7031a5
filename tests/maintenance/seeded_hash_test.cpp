// Numbers from files as keys of hash tables: no choice of them makes a table slow.
#include "support/seeded_hash.h"
#include "kit/layers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <unordered_set>
#include <vector>

namespace qvdbase::test {
namespace {

// Which of 4,096 places each number goes to; returns how many share the fullest.
template <typename Place>
size_t fullest(const std::vector<uint64_t>& numbers, Place place) {
  std::map<uint64_t, size_t> count;
  for (const uint64_t number : numbers) ++count[place(number) & 4095];
  return std::max_element(count.begin(), count.end(),
                          [](const auto& a, const auto& b) { return a.second < b.second; })
      ->second;
}

// Chosen against a hash that multiplies by a number that everybody knows, and takes bits from 20
// on.
uint64_t wellKnown(uint64_t number) {
  return (number * 0x9E3779B97F4A7C15u) >> 20;
}

std::vector<uint64_t> chosenNumbers() {
  std::vector<uint64_t> numbers;
  for (uint64_t i = 1; numbers.size() < 4096; ++i) {
    if ((wellKnown(i) & 4095) == 7) numbers.push_back(i);
  }
  return numbers;
}

TEST(SeededHash, SpreadsNumbersThatWereChosenToFallIntoOnePlace) {
  const std::vector<uint64_t> numbers = chosenNumbers();
  ASSERT_EQ(fullest(numbers, wellKnown), 4096u);
  EXPECT_LT(fullest(numbers, [](uint64_t n) { return mixed(n, hashSeed()); }), 20u);
}

// The standard library takes a number for its own hash, and the remainder of a division for a
// place.
TEST(SeededHash, SpreadsMultiplesOfTheNumberOfBuckets) {
  std::unordered_set<uint64_t, SeededHash> set;
  std::unordered_set<uint64_t> plain;  // stays empty: it would look at all for each new one
  set.reserve(4096);
  plain.reserve(4096);
  const size_t buckets = set.bucket_count();
  ASSERT_EQ(plain.bucket_count(), buckets);
  for (uint64_t i = 0; i < 4096; ++i) {
    set.insert(i * buckets);
    ASSERT_EQ(plain.bucket(i * buckets), 0u);
  }
  size_t most = 0;
  for (size_t i = 0; i < set.bucket_count(); ++i) most = std::max(most, set.bucket_size(i));
  EXPECT_LT(most, 20u);
}

TEST(SeededHash, IsAnotherOneForEachSeed) {
  const HashSeed one = {1, 2};
  for (const HashSeed& other : {HashSeed{2, 2}, HashSeed{1, 3}}) {
    size_t same = 0;
    for (uint64_t i = 0; i < 4096; ++i) {
      if ((mixed(i, one) & 4095) == (mixed(i, other) & 4095)) ++same;
    }
    EXPECT_LT(same, 40u);
  }
}

// Of a number and a seed, 64 bits each part, one flipped bit flips each bit of the result in about
// half of the cases.
TEST(SeededHash, DependsInEachOfItsBitsOnEachBitOfNumberAndSeed) {
  constexpr int kCases = 2000;
  using Input = std::array<std::uint64_t, 3>;
  const auto hash = [](const Input& in) { return mixed(in[0], HashSeed{in[1], in[2]}); };
  std::mt19937_64 random(20);
  std::vector<int> flips(3 * 64 * 64);
  for (int i = 0; i < kCases; ++i) {
    const Input in = {random(), random(), random()};
    const std::uint64_t before = hash(in);
    for (std::size_t bit = 0; bit < 3 * 64; ++bit) {
      Input flipped = in;
      flipped[bit / 64] ^= std::uint64_t{1} << (bit % 64);
      const std::uint64_t changed = before ^ hash(flipped);
      for (std::size_t out = 0; out < 64; ++out) {
        flips[bit * 64 + out] += static_cast<int>(changed >> out & 1);
      }
    }
  }
  const auto [least, most] = std::minmax_element(flips.begin(), flips.end());
  EXPECT_GT(*least, kCases * 4 / 10) << "input and output bit " << least - flips.begin();
  EXPECT_LT(*most, kCases * 6 / 10) << "input and output bit " << most - flips.begin();
}

}  // namespace
}  // namespace qvdbase::test
