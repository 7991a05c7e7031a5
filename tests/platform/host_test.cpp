// The table of system calls, the clocks and the memory that come through it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <utility>

#include "kit/replaced_calls.h"
#include "platform/host/clock.h"
#include "platform/host/memory.h"

namespace qvdbase::test {
namespace {

TEST(SystemCallTable, IsTheHostsUntilItIsReplacedAndAgainAfterwards) {
  EXPECT_EQ(&platform::systemCalls(), &platform::hostSystemCalls());
  {
    ReplacedCalls calls;
    EXPECT_NE(&platform::systemCalls(), &platform::hostSystemCalls());
    calls->time = [] { return time_t{5}; };
    EXPECT_EQ(platform::secondsSinceEpoch(), 5u);
  }
  EXPECT_EQ(&platform::systemCalls(), &platform::hostSystemCalls());
}

TEST(Clock, CountsSecondsModulo2To32) {
  ReplacedCalls calls;
  calls->time = [] { return time_t{0x1'2345'6789}; };
  EXPECT_EQ(platform::secondsSinceEpoch(), 0x2345'6789u);
  calls->time = [] { return time_t{-1}; };
  EXPECT_EQ(platform::secondsSinceEpoch(), 0xFFFF'FFFFu);
}

TEST(Clock, ReportsTheHostsTime) {
  const time_t before = std::time(nullptr);
  const uint32_t now = platform::secondsSinceEpoch();
  const time_t after = std::time(nullptr);
  EXPECT_LE(static_cast<uint32_t>(before), now);
  EXPECT_LE(now, static_cast<uint32_t>(after));
}

TEST(Clock, CountsMicrosecondsWithoutGoingBack) {
  uint64_t last = platform::microsecondCounter();
  EXPECT_GT(last, 0u);
  for (int i = 0; i < 1000; ++i) {
    const uint64_t next = platform::microsecondCounter();
    ASSERT_GE(next, last);
    last = next;
  }
}

TEST(Clock, CutsProcessorTimeTo32Bits) {
  ReplacedCalls calls;
  if constexpr (sizeof(clock_t) > 4) {
    calls->processClock = [] { return static_cast<clock_t>(0x1'0000'0007); };
    EXPECT_EQ(platform::processClock(), 7u);
  }
  calls->processClock = [] { return static_cast<clock_t>(-2); };
  EXPECT_EQ(platform::processClock(), 0xFFFFFFFEu);
}

TEST(Memory, ThatCannotBeObtainedIsNull) {
  ReplacedCalls calls;
  calls->allocate = [](size_t) -> void* { return nullptr; };
  EXPECT_EQ(platform::allocate(1), nullptr);
  platform::Buffer buffer(10);
  EXPECT_FALSE(buffer);
  EXPECT_EQ(buffer.size(), 0u);
  platform::release(nullptr);
}

TEST(Memory, OfNoBytesCanBeObtained) {
  platform::Buffer buffer(0);
  EXPECT_TRUE(buffer);
  EXPECT_EQ(buffer.size(), 0u);
}

// Counts what was allocated less what was released.
int g_blocks = 0;

class CountedMemory : public testing::Test {
 protected:
  CountedMemory() {
    g_blocks = 0;
    calls_->allocate = [](size_t size) { return ++g_blocks, std::malloc(size); };
    calls_->release = [](void* memory) {
      --g_blocks;
      std::free(memory);
    };
  }

  ReplacedCalls calls_;
};

TEST_F(CountedMemory, OfABufferComesBackWithIt) {
  {
    platform::Buffer first(10);
    platform::Buffer second(20);
    EXPECT_EQ(g_blocks, 2);
    first = std::move(second);
    EXPECT_EQ(first.size(), 20u);
    platform::Buffer third(std::move(first));
    EXPECT_EQ(third.size(), 20u);
  }
  EXPECT_EQ(g_blocks, 0);
}

}  // namespace
}  // namespace qvdbase::test
