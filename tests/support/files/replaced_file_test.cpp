// A file that another one replaces under its name: whoever opens for writing gets the file of that
// name, or is refused, never one that has lost its name.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include <filesystem>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/open_descriptors.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

constexpr int kWriters[] = {0, 2, 3, 4};

class ReplacedFile : public testing::Test {
 protected:
  ReplacedFile() { writeFile(folder_ / "f", bytesOf("old")); }

  // Puts a new file under the name just before the next `times` locks are taken: between opening
  // and locking.
  void replaceBeforeLocks(int times) {
    host_.observe([this, times, done = 0](Call call) mutable {
      if (call != Call::lock || done == times) return;
      ++done;
      writeFile(folder_ / "next", bytesOf("new"));
      fs::rename(folder_ / "next", folder_ / "f");
    });
  }

  std::string content() { return readFile(folder_ / "f").str(); }

  TempFolder folder_;
  FakeHost host_;
};

TEST_F(ReplacedFile, IsNotWhatAWriterGets) {
  for (const int permission : kWriters) {
    for (const int times : {1, 3}) {
      const int before = openDescriptors();
      replaceBeforeLocks(times);
      int16_t number = 0;
      ASSERT_EQ(QVFile().QVOpenFile(folder_.wide("f"), permission, &number), 1);
      uint32_t moved = 0;
      EXPECT_EQ(QVFile().QVWriteFile(number, "mine", 4, &moved), 1);
      EXPECT_EQ(content(), "mine") << "permission " << permission << ", " << times << " times";
      EXPECT_EQ(QVFile().QVCloseFile(number), 1);
      EXPECT_EQ(openDescriptors(), before);
    }
  }
}

// A reader keeps the old file; the writer beside it has the new one, and no lock stays on the old.
TEST_F(ReplacedFile, IsNotWhatAWriterGetsBesideAReaderOfTheOldOne) {
  int16_t reader = 0;
  ASSERT_EQ(QVFile().QVOpenFile(folder_.wide("f"), 1, &reader), 1);
  for (const int permission : kWriters) {
    const int before = openDescriptors();
    writeFile(folder_ / "f", bytesOf("start"));
    replaceBeforeLocks(1);
    int16_t number = 0;
    ASSERT_EQ(QVFile().QVOpenFile(folder_.wide("f"), permission, &number), 1);
    uint32_t moved = 0;
    EXPECT_EQ(QVFile().QVWriteFile(number, "mine", 4, &moved), 1);
    EXPECT_EQ(content(), "mine");
    EXPECT_EQ(QVFile().QVCloseFile(number), 1);
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_EQ(QVFile().QVCloseFile(reader), 1);
}

TEST_F(ReplacedFile, IsRefusedWhenItIsReplacedAgainAndAgain) {
  for (const int permission : {2, 3, 4}) {
    const int before = openDescriptors();
    replaceBeforeLocks(1 << 20);
    int16_t number = 77;
    EXPECT_EQ(QVFile().QVOpenFile(folder_.wide("f"), permission, &number), 0);
    EXPECT_EQ(number, 77);
    EXPECT_EQ(openDescriptors(), before);
  }
}

TEST_F(ReplacedFile, IsRefusedWhenTheNameIsGone) {
  host_.observe([this](Call call) {
    if (call == Call::lock) fs::remove(folder_ / "f");
  });
  int16_t number = 0;
  EXPECT_EQ(QVFile().QVOpenFile(folder_.wide("f"), 3, &number), 0);
  EXPECT_FALSE(fs::exists(folder_ / "f"));
}

TEST_F(ReplacedFile, IsNotWhatIsEmptied) {
  writeFile(folder_ / "old", bytesOf("old"));
  fs::remove(folder_ / "f");
  fs::create_hard_link(folder_ / "old", folder_ / "f");
  replaceBeforeLocks(1);
  EXPECT_EQ(QVFile().QVDeleteFile(folder_.wide("f")), 1);
  EXPECT_EQ(content(), "");
  EXPECT_EQ(readFile(folder_ / "old").str(), "old");
}

}  // namespace
}  // namespace qvdbase::test
