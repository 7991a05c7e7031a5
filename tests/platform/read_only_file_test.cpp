// Files and block devices that are opened only to be read.
#include "platform/handles/read_only_file.h"

#include <gtest/gtest.h>

#include "kit/bytes.h"
#include "kit/pretended_device.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

using platform::PathKind;

TEST(ReadOnlyFile, ReportsWhatAPathMeans) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("0123456789"));
  EXPECT_EQ(platform::kindOfPath(folder / "f"), PathKind::regularFile);
  EXPECT_EQ(platform::kindOfPath(folder / "none"), PathKind::nothing);
  EXPECT_EQ(platform::kindOfPath(folder.path()), PathKind::somethingElse);
  EXPECT_EQ(platform::kindOfPath("/dev/null"), PathKind::somethingElse);
  const PretendedDevice device(folder / "f");
  EXPECT_EQ(platform::kindOfPath(folder / "f"), PathKind::blockDevice);
}

// The status of a device has no size, and its times are not those of its bytes.
TEST(ReadOnlyFile, TakesTheSizeOfADeviceFromWhereItEnds) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("0123456789"));
  const PretendedDevice device(folder / "f");
  platform::ReadOnlyFile file;
  ASSERT_TRUE(file.open(folder / "f"));
  EXPECT_TRUE(file.isOpen());
  platform::FileStamp stamp;
  ASSERT_TRUE(file.stamp(&stamp));
  EXPECT_EQ(stamp, (platform::FileStamp{10, 0, 0}));
  char bytes[8] = {};
  EXPECT_EQ(file.readAt(6, bytes, sizeof bytes), 4u);
  EXPECT_EQ(std::string(bytes, 4), "6789");
  EXPECT_FALSE(file.isLockedByOthers());
  EXPECT_FALSE(file.open(folder / "f"));
}

TEST(ReadOnlyFile, IsNotOpenWithoutARegularFileOrBlockDevice) {
  TempFolder folder;
  platform::ReadOnlyFile file;
  EXPECT_FALSE(file.open(folder.path()));
  EXPECT_FALSE(file.open(folder / "none"));
  EXPECT_FALSE(file.open("/dev/null"));
  EXPECT_FALSE(file.isOpen());
}

}  // namespace
}  // namespace qvdbase::test
