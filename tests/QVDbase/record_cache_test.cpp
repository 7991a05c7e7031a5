// Searching and inserting in ordered arrays of record positions.
#include <gtest/gtest.h>
#include <qvdbase/caches.h>

#include <cstdint>
#include <vector>

namespace qvdbase::test {
namespace {

using Keys = std::vector<uint64_t>;

constexpr uint64_t kTopBit = 0x8000000000000000;

// Elements of these keys; each position is the index that the element started at.
std::vector<record1Cache> elements(const Keys& keys) {
  std::vector<record1Cache> result;
  for (const uint64_t key : keys) {
    result.push_back({key, 1000 + static_cast<int64_t>(result.size())});
  }
  return result;
}

Keys keysOf(const std::vector<record1Cache>& array) {
  Keys keys;
  for (const record1Cache& each : array) keys.push_back(each.recordKey);
  return keys;
}

int countOf(const std::vector<record1Cache>& array) {
  return static_cast<int>(array.size());
}

TEST(RecordCacheElement, Is16BytesKeyFirst) {
  EXPECT_EQ(sizeof(record1Cache), 16u);
  EXPECT_EQ(offsetof(record1Cache, recordKey), 0u);
  EXPECT_EQ(offsetof(record1Cache, recordPos), 8u);
}

TEST(Smaller, IsTheFirstWhenEqualOrBelow) {
  EXPECT_EQ(QVMIN(1, 2), 1);
  EXPECT_EQ(QVMIN(2, 1), 1);
  EXPECT_EQ(QVMIN(-5, -5), -5);
  EXPECT_EQ(QVMIN(-2147483647 - 1, 2147483647), -2147483647 - 1);
}

TEST(Larger, IsTheFirstWhenEqualOrAbove) {
  EXPECT_EQ(QVMAX(1, 2), 2);
  EXPECT_EQ(QVMAX(2, 1), 2);
  EXPECT_EQ(QVMAX(-5, -5), -5);
  EXPECT_EQ(QVMAX(-2147483647 - 1, 2147483647), 2147483647);
}

// ---- comparing ----

using Comparator = int (*)(const void*, const void*);

class Comparing : public testing::TestWithParam<Comparator> {
 protected:
  static int compare(uint64_t a, uint64_t b) {
    const record1Cache first = {a, 1};
    const record1Cache second = {b, 2};
    return GetParam()(&first, &second);
  }
};

TEST_P(Comparing, GivesMinusOneZeroOrOne) {
  EXPECT_EQ(compare(1, 1000), -1);
  EXPECT_EQ(compare(1000, 1000), 0);
  EXPECT_EQ(compare(1000, 1), 1);
}

TEST_P(Comparing, LooksAtTheHighHalfFirst) {
  EXPECT_EQ(compare(0x00000001'FFFFFFFF, 0x00000002'00000000), -1);
  EXPECT_EQ(compare(0x00000002'00000000, 0x00000001'FFFFFFFF), 1);
  EXPECT_EQ(compare(0x00000002'00000001, 0x00000002'00000002), -1);
}

TEST_P(Comparing, IsUnsignedInBothHalves) {
  EXPECT_EQ(compare(kTopBit, 0x7FFFFFFFFFFFFFFF), 1);
  EXPECT_EQ(compare(0, kTopBit), -1);
  EXPECT_EQ(compare(0x00000000'80000000, 0x00000000'7FFFFFFF), 1);
  EXPECT_EQ(compare(0xFFFFFFFFFFFFFFFF, 0), 1);
}

INSTANTIATE_TEST_SUITE_P(Both, Comparing,
                         testing::Values(internal_Record_Qsort_Compare,
                                         internal_Record_Bsearch_Compare));

// ---- searching with the C library ----

TEST(SearchingForAKey, StoresPositionAndIndex) {
  const auto array = elements({10, 20, 30, kTopBit, kTopBit + 1});
  for (int i = 0; i < countOf(array); ++i) {
    int64_t position = 0;
    int index = -1;
    EXPECT_EQ(
        internal_BSearchRecordCache(array.data(), countOf(array),
                                    array[static_cast<size_t>(i)].recordKey, &position, &index),
        1);
    EXPECT_EQ(index, i);
    EXPECT_EQ(position, 1000 + i);
  }
}

TEST(SearchingForAKey, StoresNothingWhenItIsAbsent) {
  const auto array = elements({10, 20, 30});
  for (const uint64_t key : {uint64_t{5}, uint64_t{15}, uint64_t{31}, kTopBit}) {
    int64_t position = 77;
    int index = 78;
    EXPECT_EQ(internal_BSearchRecordCache(array.data(), 3, key, &position, &index), 0);
    EXPECT_EQ(position, 77);
    EXPECT_EQ(index, 78);
  }
}

TEST(SearchingForAKey, FailsWithoutElements) {
  const auto array = elements({10});
  int64_t position = 77;
  int index = 78;
  EXPECT_EQ(internal_BSearchRecordCache(array.data(), 0, 10, &position, &index), 0);
  EXPECT_EQ(internal_BSearchRecordCache(nullptr, 1, 10, &position, &index), 0);
  EXPECT_EQ(position, 77);
  EXPECT_EQ(index, 78);
}

// ---- binary search with a nearby index ----

struct Search {
  Keys keys;
  uint64_t key;
  int result;
  int32_t index;
};

void PrintTo(const Search& search, std::ostream* out) {
  *out << search.key << " in " << testing::PrintToString(search.keys);
}

class SearchingNearby : public testing::TestWithParam<Search> {};

TEST_P(SearchingNearby, StoresTheIndex) {
  const Search& search = GetParam();
  const auto array = elements(search.keys);
  const record1Cache key = {search.key, 0};
  int32_t index = -99;
  EXPECT_EQ(internal_BinarySearchForCode(array.data(), &key, countOf(array), &index),
            search.result);
  EXPECT_EQ(index, search.index);
}

const Keys kFour = {10, 20, 30, 40};
const Keys kFive = {10, 20, 30, 40, 50};

TEST(SearchingAmongNone, FindsNothingWithoutElements) {
  const record1Cache one = {7, 0};
  for (const int32_t count : {0, -1}) {
    int32_t index = -99;
    EXPECT_EQ(internal_BinarySearchForCode(&one, &one, count, &index), -2);
    EXPECT_EQ(index, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Found, SearchingNearby,
    testing::Values(Search{kFour, 20, 0, 1}, Search{kFour, 30, 0, 2}, Search{kFour, 40, 0, 3},
                    Search{kFive, 30, 0, 2}, Search{kFive, 50, 0, 4}, Search{{7}, 7, 0, 0},
                    Search{{7, kTopBit}, kTopBit, 0, 1},
                    // Of equal keys the middle one is seen first, then the last.
                    Search{{20, 20, 20, 20, 20}, 20, 0, 2}, Search{{1, 2, 20, 20, 20}, 20, 0, 2},
                    Search{{1, 2, 3, 20, 20}, 20, 0, 4}));

INSTANTIATE_TEST_SUITE_P(Absent, SearchingNearby,
                         testing::Values(Search{kFour, 5, -2, 0}, Search{kFour, 15, -2, 0},
                                         Search{kFour, 25, -2, 1}, Search{kFour, 35, -2, 2},
                                         Search{kFour, 45, -2, 2}, Search{{10}, 5, -2, 0},
                                         Search{{10}, 15, -2, 0}, Search{{10, 20}, 5, -2, 0},
                                         Search{{10, 20}, 15, -2, 0}, Search{{10, 20}, 25, -2, 1},
                                         Search{kFive, 25, -2, 1},
                                         Search{{10, kTopBit}, 20, -2, 0}));

// ---- inserting ----

struct Insertion {
  Keys before;
  Keys after;
};

void PrintTo(const Insertion& insertion, std::ostream* out) {
  *out << testing::PrintToString(insertion.before);
}

class InsertingTheNewest : public testing::TestWithParam<Insertion> {};

TEST_P(InsertingTheNewest, MovesItToItsPlace) {
  auto array = elements(GetParam().before);
  EXPECT_EQ(internal_QuickSortRecordCache(array.data(), countOf(array)), 1);
  EXPECT_EQ(keysOf(array), GetParam().after);
}

INSTANTIATE_TEST_SUITE_P(Between, InsertingTheNewest,
                         testing::Values(Insertion{{10, 20, 30, 15}, {10, 15, 20, 30}},
                                         Insertion{{10, 20, 30, 40, 25}, {10, 20, 25, 30, 40}},
                                         Insertion{{10, 20, 30, 40, 35}, {10, 20, 30, 35, 40}},
                                         Insertion{{10, 20, 30, 40, 50, 60, 70, 80, 15},
                                                   {10, 15, 20, 30, 40, 50, 60, 70, 80}},
                                         Insertion{{10, 20, 30, 40, 50, 60, 70, 80, 75},
                                                   {10, 20, 30, 40, 50, 60, 70, 75, 80}},
                                         Insertion{{10, kTopBit, 20}, {10, 20, kTopBit}}));

INSTANTIATE_TEST_SUITE_P(
    AtTheFront, InsertingTheNewest,
    testing::Values(Insertion{{10, 20, 5}, {5, 10, 20}}, Insertion{{20, 10}, {10, 20}},
                    Insertion{{10, 20, 30, 40, 5}, {5, 10, 20, 30, 40}},
                    // Equal to the first: after it, as long as its place is the second.
                    Insertion{{10, 20, 30, 10}, {10, 10, 20, 30}}));

INSTANTIATE_TEST_SUITE_P(Staying, InsertingTheNewest,
                         testing::Values(Insertion{{10}, {10}}, Insertion{{10, 20}, {10, 20}},
                                         Insertion{{10, 20, 30}, {10, 20, 30}},
                                         Insertion{{10, 20, 20}, {10, 20, 20}},
                                         Insertion{{10, 20, 30, 20}, {10, 20, 30, 20}},
                                         Insertion{{10, 10}, {10, 10}},
                                         // Its place is beyond the two that are examined.
                                         Insertion{{5, 5, 9, 5}, {5, 5, 9, 5}}));

// Only places near the one that the search came to are looked at, though a larger key lies before.
TEST(InsertingOne, DoesNotLookAtPlacesFarBelow) {
  auto array = elements({10, 90, 20, 30, 40, 50, 60, 70, 65});
  EXPECT_EQ(internal_QuickSortRecordCache(array.data(), 9), 1);
  EXPECT_EQ(keysOf(array), (Keys{10, 90, 20, 30, 40, 50, 60, 65, 70}));
}

TEST(InsertingOne, TakesThePositionsAlong) {
  auto array = elements({10, 20, 30, 15});
  EXPECT_EQ(internal_QuickSortRecordCache(array.data(), 4), 1);
  EXPECT_EQ(array[0].recordPos, 1000);
  EXPECT_EQ(array[1].recordPos, 1003);
  EXPECT_EQ(array[2].recordPos, 1001);
  EXPECT_EQ(array[3].recordPos, 1002);
}

TEST(InsertingOne, FailsWithoutElements) {
  record1Cache element = {1, 1};
  EXPECT_EQ(internal_QuickSortRecordCache(nullptr, 3), 0);
  EXPECT_EQ(internal_QuickSortRecordCache(&element, 0), 0);
}

}  // namespace
}  // namespace qvdbase::test
