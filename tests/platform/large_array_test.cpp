// Arrays in large pages, and in ordinary memory where the host has none.
#include "platform/host/large_array.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <new>

#include "kit/replaced_calls.h"

namespace qvdbase::test {
namespace {

using Array = platform::LargeArray<uint64_t>;

int reserved = 0;
int granted = 0;
int given = 0;  // back

bool isZero(const Array& array) {
  return std::all_of(array.begin(), array.end(), [](uint64_t item) { return item == 0; });
}

TEST(LargeArray, BeginsWithZerosWhateverItsSize) {
  for (const size_t count : {size_t{0}, size_t{1}, size_t{1000}, Array::kLarge}) {
    Array array(count);
    EXPECT_EQ(array.size(), count);
    EXPECT_EQ(array.bytes(), count * 8);
    EXPECT_TRUE(isZero(array));
    std::fill(array.begin(), array.end(), 7);
    Array moved(std::move(array));
    EXPECT_EQ(moved.size(), count);
    EXPECT_TRUE(array.empty());  // NOLINT: a moved array is an empty one
    EXPECT_EQ(std::count(moved.begin(), moved.end(), 7u), static_cast<ptrdiff_t>(count));
    moved = Array(3);
    EXPECT_EQ(moved.size(), 3u);
    EXPECT_TRUE(isZero(moved));
  }
}

TEST(LargeArray, ReturnsWhatItHasReserved) {
  ReplacedCalls calls;
  reserved = granted = given = 0;
  calls->reserve = [](size_t size, bool large) {
    ++reserved;
    EXPECT_TRUE(large);
    void* memory = platform::hostSystemCalls().reserve(size, large);
    granted += memory != nullptr ? 1 : 0;
    return memory;
  };
  calls->unreserve = [](void* memory, size_t size) {
    ++given;
    platform::hostSystemCalls().unreserve(memory, size);
  };
  { const Array small(1000); }
  EXPECT_EQ(reserved, 0);
  { const Array large(Array::kLarge); }
  EXPECT_EQ(reserved, 1);
  EXPECT_EQ(given, granted);
  calls->reserve = [](size_t, bool) -> void* { return nullptr; };
  given = 0;
  {
    const Array ordinary(Array::kLarge);
    EXPECT_TRUE(isZero(ordinary));
  }
  EXPECT_EQ(given, 0) << "that is not the host's to take back";
}

TEST(LargeArray, OfMoreThanThereCanBeIsNotMade) {
  EXPECT_THROW(Array(std::numeric_limits<size_t>::max() / 4), std::bad_alloc);
}

}  // namespace
}  // namespace qvdbase::test
