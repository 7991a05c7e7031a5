// Block devices are checked and salvaged where they are, like files.
#include <sys/stat.h>
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/error.hpp>

#include "kit/file_image.h"
#include "kit/open_descriptors.h"
#include "kit/pretended_device.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

// What a device holds: a database, and bytes after it up to its own size.
class Device : public testing::Test {
 protected:
  Device() {
    image.addRecord(table, 0xA1, bytesOf("first"));
    image.addRecord(table, 0xA2, bytesOf("second"));
    writeFile(path(), image.build().add(Bytes().zeros(65'536 - image.build().size())));
  }
  std::filesystem::path path() const { return folder / "device"; }

  TempFolder folder;
  FileImage image;
  size_t table = image.addTable("notes", 0x11);
};

TEST_F(Device, IsSalvagedLikeAFile) {
  const int before = openDescriptors();
  {
    const PretendedDevice device(path());
    EXPECT_TRUE(qvdb::salvage(path(), folder / "saved.qvd").verified);
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(contentsOf(readDatabase(folder / "saved.qvd").tables.at(0)),
            (Contents{{0xA1, bytesOf("first")}, {0xA2, bytesOf("second")}}));
}

TEST_F(Device, IsCheckedInItsWholeSize) {
  const PretendedDevice device(path());
  const qvdb::CheckReport report = qvdb::check(path());
  EXPECT_EQ(report.file_size, 65'536u);
  EXPECT_EQ(report.blocks, 2u);
  EXPECT_EQ(report.errors, 0u);
}

TEST_F(Device, IsSeenToChange) {
  const PretendedDevice device(path());
  try {
    qvdb::salvage(path(), folder / "saved.qvd",
                  [&](const qvdb::FoundBlock&) { patchFile(path(), 6, pattern(10)); });
    ADD_FAILURE() << "no error";
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(error.reason(), qvdb::Reason::in_use);
  }
}

TEST_F(Device, OfAnotherKindIsRefused) {
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  for (const std::filesystem::path& other : {folder / "pipe", std::filesystem::path("/dev/null")}) {
    try {
      qvdb::salvage(other, folder / "saved.qvd");
      ADD_FAILURE() << "no error";
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), qvdb::Reason::not_a_file);
    }
  }
}

}  // namespace
}  // namespace qvdbase::test
