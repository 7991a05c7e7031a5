// Where the parts of a file begin.
#include "format/layout.h"

#include <gtest/gtest.h>

namespace qvdbase::test {
namespace {

using namespace qvdbase::format;

TEST(Layout, PlacesTheSlotsAfterTheHeaderOneAfterAnother) {
  EXPECT_EQ(slotPosition(0), 22);
  EXPECT_EQ(slotPosition(1), 166);
  EXPECT_EQ(slotPosition(31), 22 + 31 * 144);
  EXPECT_EQ(slotPosition(2, 160), 22 + 320);
}

TEST(Layout, EndsTheDirectoryAfterItsLastSlot) {
  EXPECT_EQ(directoryEnd(0), 22);
  EXPECT_EQ(directoryEnd(32), 4630);
  EXPECT_EQ(directoryEnd(3, 160), 502);
  EXPECT_EQ(kNewFileSize, 4630);
}

// Counts and sizes come from files, and their product does not fit 32 bits.
TEST(Layout, ReachesTheEndOfTheLargestDirectoryThatAHeaderCanClaim) {
  EXPECT_EQ(directoryEnd(65535, 65535), 22 + int64_t{65535} * 65535);
}

}  // namespace
}  // namespace qvdbase::test
