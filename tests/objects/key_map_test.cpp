// What an index of keys remembers: hashes with their positions, and keys in order.
#include "objects/indexes/key_map.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kit/random_seed.h"
#include "objects/indexes/ordered_keys.h"

namespace qvdbase::test {
namespace {

using qvdb::detail::hashOfKey;
using qvdb::detail::KeyMap;
using qvdb::detail::OrderedKeys;

std::vector<int64_t> positionsOf(const KeyMap& map, uint64_t hash, int64_t after = 0,
                                 size_t most = 1'000'000) {
  std::vector<int64_t> positions;
  map.list(hash, after, most, &positions);
  return positions;
}

TEST(KeyMap, AgreesWithAModelThroughRandomInsertionsAndErasures) {
  std::mt19937_64 random(randomSeed());
  KeyMap map;
  std::map<uint64_t, std::set<int64_t>> model;
  size_t size = 0;
  for (int step = 0; step < 60'000; ++step) {
    const uint64_t hash = random() % 7 == 0 ? random() % 3 : random() % 2'000;
    const auto position = static_cast<int64_t>(random() % 3'000 + 1);
    if (random() % 3 != 0) {
      ASSERT_EQ(map.insert(hash, position), model[hash].insert(position).second);
    } else {
      ASSERT_EQ(map.erase(hash, position), model[hash].erase(position) == 1);
    }
    if (step % 1'000 != 0) continue;
    size = 0;
    for (const auto& [each, positions] : model) {
      size += positions.size();
      ASSERT_EQ(map.contains(each), !positions.empty());
      ASSERT_EQ(positionsOf(map, each), std::vector<int64_t>(positions.begin(), positions.end()));
    }
    ASSERT_EQ(map.size(), size);
  }
}

TEST(KeyMap, ListsAsManyPositionsAsAreAskedForAfterAnyOne) {
  KeyMap map;
  for (int64_t i = 1; i <= 3'000; ++i) map.insert(7, i * 10);
  EXPECT_EQ(positionsOf(map, 7, 10'005, 3), (std::vector<int64_t>{10'010, 10'020, 10'030}));
  EXPECT_EQ(positionsOf(map, 7, 29'990, 3), std::vector<int64_t>{30'000});
  EXPECT_EQ(positionsOf(map, 7, 30'000, 3), std::vector<int64_t>{});
  EXPECT_EQ(positionsOf(map, 8, 0, 3), std::vector<int64_t>{});
}

TEST(KeyMap, TakesAMillionPositionsOfOneKeyInLittleMoreThanTheirBytes) {
  KeyMap map;
  constexpr int64_t kMany = 1'000'000;
  for (int64_t i = 1; i <= kMany; ++i) map.insert(7, i);
  EXPECT_EQ(map.size(), static_cast<size_t>(kMany));
  EXPECT_LE(map.bytes(), static_cast<size_t>(kMany) * 9);
  for (int64_t i = kMany; i > 1; --i) EXPECT_TRUE(map.erase(7, i));
  EXPECT_EQ(positionsOf(map, 7), std::vector<int64_t>{1});
}

TEST(KeyMap, Takes24BytesForAKeyOfOneRecord) {
  KeyMap map;
  map.reserve(10'000);
  for (uint64_t i = 0; i < 10'000; ++i) map.insert(i * 0x10001, static_cast<int64_t>(i) + 1);
  EXPECT_LE(map.bytes(), 10'000u * 24);
}

TEST(HashOfKey, DiffersForKeysThatDifferInZerosAndLength) {
  std::set<uint64_t> hashes;
  std::string zeros;
  for (int i = 0; i < 40; ++i) {
    EXPECT_TRUE(hashes.insert(hashOfKey(zeros)).second) << i;
    zeros += '\0';
  }
  EXPECT_EQ(hashOfKey("a name"), hashOfKey(std::string("a name")));
}

std::vector<std::pair<std::string, int64_t>> pairsOf(const OrderedKeys& keys,
                                                     const OrderedKeys::Place& after,
                                                     const std::string* to = nullptr,
                                                     size_t most = 1'000'000) {
  std::vector<OrderedKeys::Place> places;
  keys.list(after, to, most, &places);
  std::vector<std::pair<std::string, int64_t>> pairs;
  for (const auto& place : places) pairs.emplace_back(place.key, place.position);
  return pairs;
}

// Short keys over few characters, zero and 255 among them, so that many are beginnings of others.
std::string randomKey(std::mt19937_64& random) {
  const char letters[] = {'\0', 'a', 'b', '\xFF'};
  std::string key(random() % 12, 'x');
  for (char& letter : key) letter = letters[random() % 4];
  return key;
}

struct BytesFirst {
  bool operator()(const std::pair<std::string, int64_t>& a,
                  const std::pair<std::string, int64_t>& b) const {
    const int order = a.first.compare(b.first);  // of unsigned bytes, as char_traits has it
    return order != 0 ? order < 0 : a.second < b.second;
  }
};

TEST(OrderedKeys, AgreesWithAModelThroughRandomInsertionsAndErasures) {
  std::mt19937_64 random(randomSeed());
  OrderedKeys keys;
  std::set<std::pair<std::string, int64_t>, BytesFirst> model;
  for (int step = 0; step < 40'000; ++step) {
    const std::string key = randomKey(random);
    const auto position = static_cast<int64_t>(random() % 5 + 1);
    if (random() % 3 != 0) {
      ASSERT_EQ(keys.insert(key, position), model.emplace(key, position).second);
    } else {
      ASSERT_EQ(keys.erase(key, position), model.erase({key, position}) == 1);
    }
    if (step % 400 != 0) continue;
    const std::string from = randomKey(random);
    const std::string to = randomKey(random);
    const auto begin = model.upper_bound({from, 2});
    std::vector<std::pair<std::string, int64_t>> expected;
    for (auto each = begin; each != model.end() && each->first.compare(to) < 0; ++each) {
      expected.push_back(*each);
    }
    ASSERT_EQ(pairsOf(keys, {from, 2}, &to), expected);
    ASSERT_EQ(pairsOf(keys, {"", 0}).size(), model.size());
  }
}

TEST(OrderedKeys, LeavesItsPiecesFullWhereKeysComeInOrder) {
  OrderedKeys keys;
  constexpr int kMany = 100'000;
  for (int i = 0; i < kMany; ++i) {
    std::string key = std::to_string(1'000'000 + i);
    keys.insert(key, 1);
  }
  EXPECT_LE(keys.bytes(), static_cast<size_t>(kMany) * 36);
  EXPECT_EQ(pairsOf(keys, {"1050000", 1}, nullptr, 2),
            (std::vector<std::pair<std::string, int64_t>>{{"1050001", 1}, {"1050002", 1}}));
}

}  // namespace
}  // namespace qvdbase::test
