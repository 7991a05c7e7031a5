// Opening files: paths, permissions, numbers, and which openers one process allows beside each
// other.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/layers.h"
#include "kit/open_descriptors.h"
#include "kit/temp_folder.h"
#include "support/files/fake_root.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

// Opens, closes, and returns whether that worked; a refusal must leave the handle unwritten.
bool canOpen(const QVWCHAR* path, int permission) {
  int16_t number = 77;
  if (QVFile().QVOpenFile(path, permission, &number) == 1) {
    EXPECT_EQ(QVFile().QVCloseFile(number), 1);
    return true;
  }
  EXPECT_EQ(number, 77);
  return false;
}

int16_t opened(const QVWCHAR* path, int permission) {
  int16_t number = 0;
  EXPECT_EQ(QVFile().QVOpenFile(path, permission, &number), 1) << "permission " << permission;
  return number;
}

bool canWrite(int16_t number) {
  return QVFile().QVWriteFile(number, "w", 1, nullptr) == 1;
}

class OpenFileTest : public testing::Test {
 protected:
  OpenFileTest() { writeFile(folder_ / "f", bytesOf("bytes")); }

  const QVWCHAR* path() { return folder_.wide("f"); }

  TempFolder folder_;
};

TEST_F(OpenFileTest, NeedsAnExistingFile) {
  EXPECT_TRUE(canOpen(path(), 1));
  EXPECT_FALSE(canOpen(folder_.wide("missing"), 0));
  EXPECT_FALSE(canOpen(folder_.wide("missing"), 3));
  EXPECT_FALSE(canOpen(folder_.wide("missing/f"), 3));
  EXPECT_FALSE(fs::exists(folder_ / "missing"));
}

TEST_F(OpenFileTest, OpensRegularFilesOnlyAndNeverWaits) {
  fs::create_directories(folder_ / "d");
  ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  for (const int permission : {0, 1, 2, 3, 4}) {
    EXPECT_FALSE(canOpen(folder_.wide("d"), permission));
    EXPECT_FALSE(canOpen(folder_.wide("d/"), permission));
    EXPECT_FALSE(canOpen(folder_.wide("fifo"), permission));
    EXPECT_FALSE(canOpen(u"/dev/null"_w, permission));
    EXPECT_FALSE(canOpen(u"/"_w, permission));
  }
}

TEST_F(OpenFileTest, SkipsAFifoThatTookTheFilesPlaceInBetween) {
  ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  static struct stat regular;
  ASSERT_EQ(::stat((folder_ / "f").c_str(), &regular), 0);
  ReplacedCalls calls;
  calls->statusAt = [](int, const char*, struct stat* result, int) { return *result = regular, 0; };
  EXPECT_FALSE(canOpen(folder_.wide("fifo"), 1));
  EXPECT_FALSE(canOpen(folder_.wide("fifo"), 3));
}

TEST_F(OpenFileTest, TakesNullPointersAsFailures) {
  int16_t number = 77;
  EXPECT_EQ(QVFile().QVOpenFile(nullptr, 1, &number), 0);
  EXPECT_EQ(number, 77);
  EXPECT_EQ(QVFile().QVOpenFile(path(), 1, nullptr), 0);
  EXPECT_EQ(QVFile().QVCloseFile(1), 0);
}

TEST_F(OpenFileTest, TakesBackslashesForSlashes) {
  std::u16string text = folder_.u16("f");
  for (char16_t& c : text) c = c == u'/' ? u'\\' : c;
  EXPECT_TRUE(canOpen(WideText(text), 1));
}

TEST_F(OpenFileTest, TakesTheNameAsItIs) {
  fs::create_directories(folder_ / "My Docs");
  writeFile(folder_ / "My Docs/My  Docs", bytesOf("x"));
  EXPECT_TRUE(canOpen(WideText(folder_.u16("") + u"My  Docs/My  Docs"), 1));
  EXPECT_FALSE(canOpen(folder_.wide("My Docs/My Docs"), 1));
}

TEST_F(OpenFileTest, WithoutAnySeparatorLooksInTheDirectoryOfThatName) {
  fs::create_directories(folder_ / "db");
  FakeRoot root(folder_.path());
  EXPECT_FALSE(canOpen(u"f"_w, 1));
  EXPECT_FALSE(canOpen(u"db"_w, 1));
  writeFile(folder_ / "db/db", bytesOf("x"));
  EXPECT_TRUE(canOpen(u"db"_w, 1));
}

TEST_F(OpenFileTest, FollowsSymbolicLinks) {
  fs::create_symlink("f", folder_ / "link");
  fs::create_symlink("loop", folder_ / "loop");
  EXPECT_TRUE(canOpen(folder_.wide("link"), 3));
  EXPECT_FALSE(canOpen(folder_.wide("loop"), 1));
}

TEST_F(OpenFileTest, StartsAtPosition0) {
  int64_t position = -1;
  const int16_t number = opened(path(), 3);
  EXPECT_EQ(QVFile().QVGetFilePos(number, &position), 1);
  EXPECT_EQ(position, 0);
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

TEST_F(OpenFileTest, CountsOnlyTheLowByteOfAPermissionAsASignedValue) {
  for (const int permission : {0, 1, 2, 3, 4, 0x100, 0x103, 0x7FFFFF04, -256, -252}) {
    EXPECT_TRUE(canOpen(path(), permission)) << permission;
  }
  for (const int permission : {5, 6, 127, 128, 255, -1, -128, 0x105, 0x1FF}) {
    EXPECT_FALSE(canOpen(path(), permission)) << permission;
  }
  const int16_t number = opened(path(), 0x101);
  EXPECT_FALSE(canWrite(number));
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

TEST_F(OpenFileTest, LetsEveryPermissionReadAndAllBut1Write) {
  for (const int permission : {0, 1, 2, 3, 4}) {
    const int16_t number = opened(path(), permission);
    char byte = 0;
    EXPECT_EQ(QVFile().QVReadFile(number, &byte, 1, nullptr), 1);
    EXPECT_EQ(canWrite(number), permission != 1) << permission;
    EXPECT_EQ(QVFile().QVCloseFile(number), 1);
  }
}

TEST_F(OpenFileTest, With0SettlesForReadingWhereWritingIsNotAllowed) {
  ReplacedCalls calls;
  calls->openAt = [](int directory, const char* name, int flags, mode_t mode) {
    if ((flags & O_ACCMODE) != O_RDONLY) return errno = EACCES, -1;
    return platform::hostSystemCalls().openAt(directory, name, flags, mode);
  };
  EXPECT_FALSE(canOpen(path(), 4));
  EXPECT_FALSE(canOpen(path(), 2));
  EXPECT_FALSE(canOpen(path(), 3));
  const int16_t number = opened(path(), 0);
  EXPECT_FALSE(canWrite(number));
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

TEST_F(OpenFileTest, RefusesOnlyASecondExclusiveOpenerInOneProcess) {
  for (const int first : {0, 1, 2, 3, 4}) {
    for (const int second : {0, 1, 2, 3, 4}) {
      const bool bothExclude = (first == 2 || first == 3) && (second == 2 || second == 3);
      const int16_t number = opened(path(), first);
      EXPECT_EQ(canOpen(path(), second), !bothExclude) << first << " then " << second;
      EXPECT_EQ(QVFile().QVCloseFile(number), 1);
    }
  }
}

TEST_F(OpenFileTest, GivesA0OpenerBesideAnExclusiveOneTheRightToWrite) {
  const int16_t first = opened(path(), 3);
  const int16_t second = opened(path(), 0);
  EXPECT_TRUE(canWrite(second));
  char byte = 0;
  EXPECT_EQ(QVFile().QVReadFile(first, &byte, 1, nullptr), 1);
  EXPECT_EQ(byte, 'w');
  EXPECT_EQ(QVFile().QVCloseFile(first), 1);
  EXPECT_EQ(QVFile().QVCloseFile(second), 1);
}

TEST_F(OpenFileTest, LetsTheNextExclusiveOpenerInWhenTheFirstHasClosed) {
  const int16_t shared = opened(path(), 4);
  const int16_t first = opened(path(), 2);
  EXPECT_FALSE(canOpen(path(), 3));
  EXPECT_EQ(QVFile().QVCloseFile(first), 1);
  EXPECT_TRUE(canOpen(path(), 3));
  EXPECT_EQ(QVFile().QVCloseFile(shared), 1);
}

TEST_F(OpenFileTest, KnowsAFileUnderAllItsNames) {
  fs::create_hard_link(folder_ / "f", folder_ / "hard");
  fs::create_symlink("f", folder_ / "soft");
  const int16_t number = opened(path(), 3);
  EXPECT_FALSE(canOpen(folder_.wide("hard"), 3));
  EXPECT_FALSE(canOpen(folder_.wide("soft"), 3));
  EXPECT_FALSE(canOpen(folder_.wide("./f"), 3));
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

TEST_F(OpenFileTest, TakesAFileThatReplacedAnotherForADifferentOne) {
  const int16_t old = opened(path(), 3);
  fs::remove(folder_ / "f");
  writeFile(folder_ / "f", bytesOf("new"));
  const int16_t fresh = opened(path(), 3);
  char byte = 0;
  EXPECT_EQ(QVFile().QVReadFile(fresh, &byte, 1, nullptr), 1);
  EXPECT_EQ(byte, 'n');
  EXPECT_EQ(QVFile().QVReadFile(old, &byte, 1, nullptr), 1);
  EXPECT_EQ(byte, 'b');
  EXPECT_EQ(QVFile().QVCloseFile(old), 1);
  EXPECT_EQ(QVFile().QVCloseFile(fresh), 1);
}

TEST_F(OpenFileTest, IsRefusedWhenTheFileCannotBeLocked) {
  FakeHost host;
  host.failFrom(FakeHost::Call::lock);
  EXPECT_FALSE(canOpen(path(), 2));
  EXPECT_FALSE(canOpen(path(), 3));
  EXPECT_FALSE(canOpen(path(), 4));
  EXPECT_TRUE(canOpen(path(), 1));
  const int16_t number = opened(path(), 0);
  EXPECT_FALSE(canWrite(number));
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

// A database in use: whoever creates over it gets 0, and nothing of it is lost.
TEST_F(OpenFileTest, ProtectsTheBytesFromBeingEmptiedInThisProcess) {
  for (const int permission : {0, 1, 2, 3, 4}) {
    const int16_t number = opened(path(), permission);
    int16_t other = 77;
    EXPECT_EQ(QVFile().QVCreateFile(path(), 0), 0) << permission;
    EXPECT_EQ(QVFile().QVCreateAndOpenFile(path(), 4, &other, 0), 0) << permission;
    EXPECT_EQ(QVFile().QVDeleteFile(path()), 0) << permission;
    EXPECT_EQ(other, 77);
    EXPECT_EQ(readFile(folder_ / "f").str(), "bytes");
    EXPECT_EQ(QVFile().QVCloseFile(number), 1);
  }
}

TEST_F(OpenFileTest, KeepsAnEmptyFileFromBeingDeletedButNotFromBeingCreatedOver) {
  writeFile(folder_ / "f", {});
  const int16_t number = opened(path(), 4);
  EXPECT_EQ(QVFile().QVDeleteFile(path()), 0);
  EXPECT_EQ(QVFile().QVCreateFile(path(), 0), 1);
  EXPECT_TRUE(canWrite(number));
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
  EXPECT_EQ(readFile(folder_ / "f").str(), "w");
}

TEST(FileNumbers, RunFrom1AndTheLowestFreeOneComesNext) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("bytes"));
  const QVWCHAR* path = folder.wide("f");
  EXPECT_EQ(opened(path, 1), 1);
  EXPECT_EQ(opened(path, 4), 2);
  EXPECT_EQ(opened(path, 1), 3);
  EXPECT_EQ(QVFile().QVCloseFile(2), 1);
  EXPECT_EQ(QVFile().QVCloseFile(1), 1);
  EXPECT_EQ(opened(path, 1), 1);
  EXPECT_EQ(opened(path, 1), 2);
  EXPECT_EQ(opened(path, 1), 4);
  for (int16_t number = 1; number <= 4; ++number) EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

TEST(FileNumbers, AreNotUsedUpByRefusals) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("bytes"));
  const QVWCHAR* path = folder.wide("f");
  EXPECT_EQ(opened(path, 3), 1);
  EXPECT_FALSE(canOpen(path, 3));
  EXPECT_EQ(opened(path, 4), 2);
  for (int16_t number = 1; number <= 2; ++number) EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

TEST(FileNumbers, EndAt32767) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("bytes"));
  FakeRoot root(folder.path());
  const WideText path = u"/f";
  const int descriptors = openDescriptors();
  for (int expected = 1; expected <= 32767; ++expected) {
    int16_t number = 0;
    ASSERT_EQ(QVFile().QVOpenFile(path, 1, &number), 1);
    ASSERT_EQ(number, expected);
  }
  EXPECT_EQ(openDescriptors(), descriptors + 1);  // all of them read through one
  EXPECT_FALSE(canOpen(path, 1));
  EXPECT_EQ(QVFile().QVCloseFile(12345), 1);
  EXPECT_EQ(opened(path, 1), 12345);
  for (int number = 1; number <= 32767; ++number) {
    ASSERT_EQ(QVFile().QVCloseFile(static_cast<int16_t>(number)), 1);
  }
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(CloseFile, FailsForWhatIsNotOpen) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("bytes"));
  for (const int number : {0, 1, -1, -32768, 32767}) {
    EXPECT_EQ(QVFile().QVCloseFile(static_cast<int16_t>(number)), 0) << number;
  }
  const int16_t number = opened(folder.wide("f"), 1);
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
  EXPECT_EQ(QVFile().QVCloseFile(number), 0);
}

TEST(CloseFile, ReportsAnErrorOfTheHostAndFreesTheNumber) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("bytes"));
  const QVWCHAR* path = folder.wide("f");
  const int16_t number = opened(path, 3);
  FakeHost host;
  host.failFrom(FakeHost::Call::close);
  EXPECT_EQ(QVFile().QVCloseFile(number), 0);
  host.heal();
  EXPECT_EQ(opened(path, 3), number);
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
}

TEST(CloseFile, TakesAnInterruptedCloseForDone) {
  TempFolder folder;
  writeFile(folder / "f", bytesOf("bytes"));
  const int16_t number = opened(folder.wide("f"), 1);
  static int calls;
  calls = 0;
  ReplacedCalls host;
  host->close = [](int descriptor) {
    ++calls;
    platform::hostSystemCalls().close(descriptor);
    return errno = EINTR, -1;
  };
  EXPECT_EQ(QVFile().QVCloseFile(number), 1);
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace qvdbase::test
