// Sorting numbers by keys.
#include "support/keyed_numbers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kit/random_seed.h"

namespace qvdbase::test {
namespace {

using support::KeyedNumber;

// Numbered in their order, so that it shows whether equal keys have kept theirs.
std::vector<KeyedNumber> numbered(const std::vector<uint64_t>& keys) {
  std::vector<KeyedNumber> items;
  for (const uint64_t key : keys) {
    const auto number = static_cast<uint32_t>(items.size());
    items.push_back({key, number, ~number});
  }
  return items;
}

void expectSorted(const std::vector<uint64_t>& keys) {
  std::vector<KeyedNumber> items = numbered(keys);
  std::vector<KeyedNumber> expected = items;
  std::stable_sort(expected.begin(), expected.end(),
                   [](const KeyedNumber& a, const KeyedNumber& b) { return a.key < b.key; });
  support::sortByKey(&items);
  ASSERT_EQ(items.size(), expected.size());
  for (size_t i = 0; i < items.size(); ++i) {
    ASSERT_EQ(items[i].key, expected[i].key) << "at " << i;
    ASSERT_EQ(items[i].number, expected[i].number) << "at " << i;
    ASSERT_EQ(items[i].note, expected[i].note) << "at " << i;
  }
}

TEST(SortByKey, SortsFewAndMany) {
  std::mt19937_64 random(randomSeed());
  for (const size_t count : {0u, 1u, 2u, 127u, 128u, 129u, 5000u}) {
    SCOPED_TRACE(count);
    std::vector<uint64_t> keys(count);
    for (uint64_t& key : keys) key = random();
    expectSorted(keys);
  }
}

TEST(SortByKey, KeepsTheOrderOfEqualKeys) {
  std::mt19937_64 random(randomSeed());
  std::vector<uint64_t> keys(3000);
  for (uint64_t& key : keys) key = (random() % 7) << 40;
  expectSorted(keys);
}

TEST(SortByKey, SortsKeysThatDifferInOneByte) {
  for (int shift = 0; shift < 64; shift += 8) {
    SCOPED_TRACE(shift);
    std::vector<uint64_t> keys;
    for (uint64_t i = 0; i < 1000; ++i) {
      keys.push_back(0x5A5A5A5A5A5A5A5A ^ ((i * 37 % 256) << shift));
    }
    expectSorted(keys);
  }
}

TEST(SortByKey, SortsDescendingKeys) {
  std::vector<uint64_t> keys;
  for (uint64_t i = 0; i < 1000; ++i) keys.push_back(UINT64_MAX - i * 0x0001000100010001);
  expectSorted(keys);
}

}  // namespace
}  // namespace qvdbase::test
