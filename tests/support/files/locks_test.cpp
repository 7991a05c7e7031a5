// What two processes see of each other when they open the same file.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>

#include <filesystem>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/other_process.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class LockTest : public testing::Test {
 protected:
  LockTest() { writeFile(folder_ / "f", bytesOf("bytes")); }

  const QVWCHAR* path() { return folder_.wide("f"); }

  int16_t opened(int permission) {
    int16_t number = 0;
    EXPECT_EQ(QVFile().QVOpenFile(path(), permission, &number), 1) << "permission " << permission;
    return number;
  }

  void close(int16_t number) { EXPECT_EQ(QVFile().QVCloseFile(number), 1); }

  // Whether the other process can have the file with this permission now.
  bool otherCanOpen(int permission) {
    const int number = other_.open(path(), permission);
    if (number == 0) return false;
    EXPECT_EQ(other_.close(number), 1);
    return true;
  }

  // What the other process gets with permission 0: 2 to write, 1 only to read, 0 nothing.
  int otherGetsWith0() {
    const int number = other_.open(path(), 0);
    if (number == 0) return 0;
    const bool writes = other_.write(number, "bytes") == 1;
    EXPECT_EQ(other_.close(number), 1);
    return writes ? 2 : 1;
  }

  std::string content() { return readFile(folder_ / "f").str(); }

  OtherProcess other_;  // before anything is opened here
  TempFolder folder_;
};

TEST_F(LockTest, WriterThatExcludesKeepsEveryOtherWriterOut) {
  for (const int permission : {2, 3}) {
    const int16_t number = opened(permission);
    EXPECT_TRUE(otherCanOpen(1));
    EXPECT_FALSE(otherCanOpen(2));
    EXPECT_FALSE(otherCanOpen(3));
    EXPECT_FALSE(otherCanOpen(4));
    EXPECT_EQ(otherGetsWith0(), 1);
    close(number);
    EXPECT_TRUE(otherCanOpen(3));
  }
}

TEST_F(LockTest, WriterThatSharesKeepsOutOnlyThoseWhoExclude) {
  for (const int permission : {0, 4}) {
    const int16_t number = opened(permission);
    EXPECT_TRUE(otherCanOpen(1));
    EXPECT_FALSE(otherCanOpen(2));
    EXPECT_FALSE(otherCanOpen(3));
    EXPECT_TRUE(otherCanOpen(4));
    EXPECT_EQ(otherGetsWith0(), 2);
    close(number);
    EXPECT_TRUE(otherCanOpen(3));
  }
}

TEST_F(LockTest, ReaderKeepsNoneOut) {
  const int16_t number = opened(1);
  for (const int permission : {1, 2, 3, 4}) EXPECT_TRUE(otherCanOpen(permission));
  EXPECT_EQ(otherGetsWith0(), 2);
  close(number);
}

TEST_F(LockTest, RefusedOpenLeavesTheHandleAndNoLock) {
  const int held = other_.open(path(), 3);
  ASSERT_EQ(held, 1);
  int16_t number = 77;
  for (const int permission : {2, 3, 4}) {
    EXPECT_EQ(QVFile().QVOpenFile(path(), permission, &number), 0);
    EXPECT_EQ(number, 77);
  }
  EXPECT_EQ(other_.close(held), 1);
  EXPECT_TRUE(otherCanOpen(3));
}

TEST_F(LockTest, FallsBackToSharedWhenTheLastExclusiveOpenerCloses) {
  const int16_t shared = opened(4);
  EXPECT_TRUE(otherCanOpen(4));
  const int16_t exclusive = opened(3);
  EXPECT_FALSE(otherCanOpen(4));
  close(exclusive);
  EXPECT_TRUE(otherCanOpen(4));
  EXPECT_FALSE(otherCanOpen(3));
  close(shared);
  EXPECT_TRUE(otherCanOpen(3));
}

TEST_F(LockTest, StaysExclusiveWhenASharingOpenerCloses) {
  const int16_t exclusive = opened(3);
  const int16_t shared = opened(4);
  close(shared);
  EXPECT_FALSE(otherCanOpen(4));
  close(exclusive);
  EXPECT_TRUE(otherCanOpen(3));
}

TEST_F(LockTest, StaysSharedUntilTheLastSharingOpenerCloses) {
  const int16_t first = opened(4);
  const int16_t second = opened(0);
  close(first);
  EXPECT_FALSE(otherCanOpen(3));
  close(second);
  EXPECT_TRUE(otherCanOpen(3));
}

TEST_F(LockTest, GoesWhenOnlyReadersAreLeft) {
  const int16_t reader = opened(1);
  const int16_t writer = opened(3);
  EXPECT_FALSE(otherCanOpen(4));
  close(writer);
  EXPECT_TRUE(otherCanOpen(3));
  char byte = 0;
  EXPECT_EQ(QVFile().QVReadFile(reader, &byte, 1, nullptr), 1);
  close(reader);
}

// Where a lock belongs to the process, closing any descriptor of the file would drop it.
TEST_F(LockTest, SurvivesReadersThatComeAndGo) {
  const int16_t early = opened(1);
  const int16_t writer = opened(3);
  const int16_t late = opened(1);
  close(early);
  EXPECT_FALSE(otherCanOpen(4));
  close(late);
  EXPECT_FALSE(otherCanOpen(4));
  close(writer);
}

TEST_F(LockTest, SurvivesRefusedOpensAndEmptyingsInThisProcess) {
  const int16_t writer = opened(3);
  int16_t number = 77;
  EXPECT_EQ(QVFile().QVOpenFile(path(), 3, &number), 0);
  EXPECT_EQ(QVFile().QVCreateFile(path(), 0), 0);
  EXPECT_EQ(QVFile().QVCreateFile(path(), 1), 0);
  EXPECT_EQ(QVFile().QVDeleteFile(path()), 0);
  EXPECT_FALSE(otherCanOpen(4));
  close(writer);
}

TEST_F(LockTest, CannotBecomeExclusiveBesideAnotherProcessAndStaysShared) {
  const int held = other_.open(path(), 4);
  ASSERT_EQ(held, 1);
  const int16_t shared = opened(4);
  int16_t number = 77;
  EXPECT_EQ(QVFile().QVOpenFile(path(), 3, &number), 0);
  EXPECT_EQ(number, 77);
  EXPECT_EQ(other_.close(held), 1);
  EXPECT_FALSE(otherCanOpen(3));
  EXPECT_TRUE(otherCanOpen(4));
  const int16_t exclusive = opened(3);
  EXPECT_FALSE(otherCanOpen(4));
  close(exclusive);
  close(shared);
}

TEST_F(LockTest, StaysStrongWhenTheHostWillNotWeakenIt) {
  const int16_t shared = opened(4);
  const int16_t exclusive = opened(3);
  {
    FakeHost host;
    host.failFrom(FakeHost::Call::lock);
    close(exclusive);
    EXPECT_TRUE(host.failed());
  }
  EXPECT_FALSE(otherCanOpen(4));
  const int16_t again = opened(3);
  close(again);
  EXPECT_TRUE(otherCanOpen(4));
  close(shared);
}

TEST_F(LockTest, KeepsOthersFromEmptyingTheFile) {
  for (const int permission : {2, 3, 4}) {
    const int16_t number = opened(permission);
    EXPECT_EQ(other_.create(path()), 0) << permission;
    EXPECT_EQ(other_.empty(path()), 0) << permission;
    EXPECT_EQ(content(), "bytes");
    close(number);
  }
  EXPECT_EQ(other_.create(path()), 1);
  EXPECT_EQ(content(), "");
}

TEST_F(LockTest, KeepsOthersFromDeletingAnEmptyFileButNotFromCreatingOverIt) {
  writeFile(folder_ / "f", {});
  for (const int permission : {2, 3, 4}) {
    const int16_t number = opened(permission);
    EXPECT_EQ(other_.empty(path()), 0) << permission;
    EXPECT_EQ(other_.create(path()), 1) << permission;
    close(number);
  }
  EXPECT_EQ(other_.empty(path()), 1);
}

TEST_F(LockTest, OfAnotherProcessKeepsCreationFromOpeningToo) {
  const int held = other_.open(path(), 4);
  ASSERT_EQ(held, 1);
  int16_t number = 77;
  EXPECT_EQ(QVFile().QVCreateAndOpenFile(path(), 3, &number, 0), 0);
  EXPECT_EQ(number, 77);
  EXPECT_EQ(content(), "bytes");
}

TEST_F(LockTest, IsTakenOnlyForTheFileItself) {
  writeFile(folder_ / "g", bytesOf("bytes"));
  const int16_t number = opened(3);
  const int other = other_.open(folder_.wide("g"), 3);
  EXPECT_NE(other, 0);
  close(number);
}

TEST_F(LockTest, EndsWithTheProcessThatHoldsIt) {
  ASSERT_EQ(other_.open(path(), 3), 1);
  int16_t number = 0;
  EXPECT_EQ(QVFile().QVOpenFile(path(), 3, &number), 0);
  other_.kill();
  close(opened(3));
}

TEST_F(LockTest, WhatAProcessWroteIsThereWhenItIsKilledAtOnce) {
  const int number = other_.open(path(), 3);
  ASSERT_EQ(other_.write(number, "written just before the end"), 1);
  other_.kill();
  EXPECT_EQ(content(), "written just before the end");
}

TEST_F(LockTest, BytesOfAnotherProcessAreSeenAtTheNextCall) {
  const int16_t mine = opened(4);
  const int number = other_.open(path(), 4);
  char bytes[5] = {};
  EXPECT_EQ(QVFile().QVReadFile(mine, bytes, 5, nullptr), 1);
  ASSERT_EQ(other_.write(number, "fresh"), 1);
  EXPECT_EQ(QVFile().QVSeekFile(mine, 1, 0), 1);
  EXPECT_EQ(QVFile().QVReadFile(mine, bytes, 5, nullptr), 1);
  EXPECT_EQ(std::string(bytes, 5), "fresh");
  close(mine);
}

}  // namespace
}  // namespace qvdbase::test
