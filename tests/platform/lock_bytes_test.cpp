// The lock bytes after every file, between two processes.
#include "platform/handles/lock_bytes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <unistd.h>

#include "kit/bytes.h"
#include "kit/fake_host.h"
#include "kit/forked.h"
#include "kit/other_process.h"
#include "kit/temp_folder.h"
#include "platform/handles/open_files.h"

namespace qvdbase::test {
namespace {

using platform::LockByte;
using platform::LockOutcome;
using platform::Sharing;

constexpr int kTaken = static_cast<int>(LockOutcome::taken);
constexpr int kRefused = static_cast<int>(LockOutcome::refused);

// Each process has the file open: shared there, and here with the permission that the test chooses.
class LockBytesTest : public testing::Test {
 protected:
  LockBytesTest() { writeFile(folder_ / "f", bytesOf("bytes")); }
  ~LockBytesTest() override {
    if (here_ == 0) return;
    platform::releaseLockByte(here_, LockByte::change, Sharing::exclusive);
    QVFile().QVCloseFile(here_);
  }

  void openBoth(int permission = 4) {
    there_ = other_.open(folder_.wide("f"), 4);
    ASSERT_NE(there_, 0);
    ASSERT_EQ(QVFile().QVOpenFile(folder_.wide("f"), permission, &here_), 1);
  }

  int takeThere(LockByte byte, Sharing strength) { return other_.takeByte(there_, byte, strength); }
  LockOutcome takeHere(LockByte byte, Sharing strength) {
    return platform::takeLockByte(here_, byte, strength);
  }

  OtherProcess other_;  // before anything is opened here
  TempFolder folder_;
  int there_ = 0;
  int16_t here_ = 0;
};

TEST_F(LockBytesTest, AnExclusiveOneIsTakenOnceAtATime) {
  openBoth();
  for (const LockByte byte : {LockByte::change, LockByte::gate, LockByte::turn}) {
    EXPECT_EQ(takeThere(byte, Sharing::exclusive), kTaken);
    EXPECT_EQ(takeHere(byte, Sharing::exclusive), LockOutcome::refused);
    EXPECT_EQ(takeHere(byte, Sharing::shared), LockOutcome::refused);
    EXPECT_TRUE(platform::isLockByteHeld(here_, byte));
    other_.releaseByte(there_, byte, Sharing::exclusive);
    EXPECT_FALSE(platform::isLockByteHeld(here_, byte));
    EXPECT_EQ(takeHere(byte, Sharing::exclusive), LockOutcome::taken);
    platform::releaseLockByte(here_, byte, Sharing::exclusive);
  }
}

TEST_F(LockBytesTest, ReadersLookTogetherAndKeepChangesOut) {
  openBoth(1);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);
  EXPECT_EQ(takeThere(LockByte::change, Sharing::shared), kTaken);
  EXPECT_EQ(takeThere(LockByte::change, Sharing::exclusive), kRefused);
  platform::releaseLook(here_);
  EXPECT_EQ(takeThere(LockByte::change, Sharing::exclusive), kRefused);
  platform::releaseLook(here_);
  EXPECT_EQ(takeThere(LockByte::change, Sharing::exclusive), kTaken);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::refused);
  platform::releaseLook(here_);  // there is none
}

TEST_F(LockBytesTest, NoLookBeginsWhileAWriterWaitsAtTheGate) {
  openBoth(1);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);
  EXPECT_EQ(takeThere(LockByte::gate, Sharing::exclusive), kTaken);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);  // a part of the one that has begun
  platform::releaseLook(here_);
  platform::releaseLook(here_);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::refused);
  other_.releaseByte(there_, LockByte::gate, Sharing::exclusive);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);
  platform::releaseLook(here_);
}

// As the looks of threads can be: one begins before the other ends, without an end.
TEST_F(LockBytesTest, LooksThatOverlapNoticeAWriterWhoWaitsAtTheGate) {
  openBoth(1);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);
  EXPECT_EQ(takeThere(LockByte::gate, Sharing::exclusive), kTaken);
  int joined = 0;
  while (joined < 1000 && platform::takeLook(here_) == LockOutcome::taken) {
    platform::releaseLook(here_);
    ++joined;
  }
  EXPECT_LT(joined, 1000);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::refused);  // nor does the next
  EXPECT_EQ(takeThere(LockByte::change, Sharing::exclusive), kRefused);
  platform::releaseLook(here_);
  EXPECT_EQ(takeThere(LockByte::change, Sharing::exclusive), kTaken);
  other_.releaseByte(there_, LockByte::change, Sharing::exclusive);
  other_.releaseByte(there_, LockByte::gate, Sharing::exclusive);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);
  platform::releaseLook(here_);
}

TEST_F(LockBytesTest, LooksThatOverlapContinueWhereNoWriterWaits) {
  openBoth(1);
  EXPECT_EQ(platform::takeLook(here_), LockOutcome::taken);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(platform::takeLook(here_), LockOutcome::taken);
    platform::releaseLook(here_);
  }
  EXPECT_EQ(takeThere(LockByte::change, Sharing::exclusive), kRefused);
  platform::releaseLook(here_);
  EXPECT_EQ(takeThere(LockByte::change, Sharing::exclusive), kTaken);
}

TEST_F(LockBytesTest, AreIndependentOfOneAnother) {
  openBoth();
  EXPECT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  EXPECT_EQ(takeHere(LockByte::change, Sharing::exclusive), LockOutcome::taken);
  EXPECT_FALSE(platform::isLockByteHeld(here_, LockByte::gate));
  EXPECT_FALSE(platform::isLockByteHeld(here_, LockByte::reader));
}

TEST_F(LockBytesTest, AnAnnouncedReaderIsSeenUntilTheLastOfItsProcessIsWithdrawn) {
  openBoth();
  EXPECT_FALSE(platform::isLockByteHeld(here_, LockByte::reader));
  EXPECT_EQ(other_.announce(there_), 1);
  EXPECT_EQ(other_.announce(there_), 1);
  EXPECT_TRUE(platform::isLockByteHeld(here_, LockByte::reader));
  other_.withdraw(there_);
  EXPECT_TRUE(platform::isLockByteHeld(here_, LockByte::reader));
  other_.withdraw(there_);
  EXPECT_FALSE(platform::isLockByteHeld(here_, LockByte::reader));
  other_.withdraw(there_);  // nothing is left of it
  EXPECT_EQ(other_.announce(there_), 1);
  EXPECT_TRUE(platform::isLockByteHeld(here_, LockByte::reader));
  other_.kill();
  EXPECT_FALSE(platform::isLockByteHeld(here_, LockByte::reader));
}

TEST_F(LockBytesTest, DoNotStandInTheWayOfWritersWhoOpenTheFile) {
  openBoth(1);
  EXPECT_TRUE(platform::announceReader(here_));
  EXPECT_EQ(takeHere(LockByte::change, Sharing::shared), LockOutcome::taken);
  EXPECT_EQ(other_.close(there_), 1);
  EXPECT_NE(other_.open(folder_.wide("f"), 3), 0);
}

TEST_F(LockBytesTest, AreFreeInAFileThatAnotherProcessHasExclusively) {
  const int there = other_.open(folder_.wide("f"), 3);
  ASSERT_NE(there, 0);
  ASSERT_EQ(QVFile().QVOpenFile(folder_.wide("f"), 1, &here_), 1);
  EXPECT_TRUE(platform::isOpenForWritingElsewhere(here_));
  EXPECT_TRUE(platform::announceReader(here_));
  EXPECT_EQ(takeHere(LockByte::change, Sharing::shared), LockOutcome::taken);
  EXPECT_EQ(other_.takeByte(there, LockByte::change, Sharing::exclusive), kRefused);
  platform::releaseLockByte(here_, LockByte::change, Sharing::shared);
  EXPECT_EQ(other_.takeByte(there, LockByte::change, Sharing::exclusive), kTaken);
  EXPECT_EQ(other_.close(there), 1);
  EXPECT_FALSE(platform::isOpenForWritingElsewhere(here_));
}

TEST_F(LockBytesTest, OneWriterOfAProcessHasTheTurn) {
  openBoth();
  const int first = 0;
  const int second = 0;
  EXPECT_EQ(platform::takeWritersTurn(here_, &first), LockOutcome::taken);
  EXPECT_EQ(platform::takeWritersTurn(here_, &first), LockOutcome::taken);
  EXPECT_EQ(platform::takeWritersTurn(here_, &second), LockOutcome::refused);
  EXPECT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kRefused);
  platform::releaseWritersTurn(here_, &second);
  EXPECT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kRefused);
  platform::releaseWritersTurn(here_, &first);
  EXPECT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  EXPECT_EQ(platform::takeWritersTurn(here_, &second), LockOutcome::refused);
}

// A writer who never rests takes its turn again at once, unless it lets those who wait be next.
TEST_F(LockBytesTest, AWriterThatWaitsForItsTurnIsNext) {
  openBoth();
  const int one = 0;
  const int other = 0;
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  EXPECT_EQ(platform::takeWritersTurn(here_, &one), LockOutcome::refused);
  EXPECT_EQ(takeThere(LockByte::next, Sharing::exclusive), kRefused);
  other_.releaseByte(there_, LockByte::turn, Sharing::exclusive);
  EXPECT_EQ(platform::takeWritersTurn(here_, &other), LockOutcome::refused);
  EXPECT_EQ(platform::takeWritersTurn(here_, &one), LockOutcome::taken);
  EXPECT_EQ(takeThere(LockByte::next, Sharing::exclusive), kTaken);
  EXPECT_EQ(platform::takeWritersTurn(here_, &other), LockOutcome::refused);
  platform::releaseWritersTurn(here_, &one);
  EXPECT_EQ(platform::takeWritersTurn(here_, &one), LockOutcome::refused) << "another is next";
  other_.releaseByte(there_, LockByte::next, Sharing::exclusive);
  EXPECT_EQ(platform::takeWritersTurn(here_, &one), LockOutcome::taken);
  EXPECT_EQ(platform::takeWritersTurn(here_, &other), LockOutcome::refused);
  platform::releaseWritersTurn(here_, &one);
  EXPECT_EQ(platform::takeWritersTurn(here_, &one), LockOutcome::refused);
  platform::stopWaitingForTurn(here_, &other);
  EXPECT_EQ(platform::takeWritersTurn(here_, &one), LockOutcome::taken);
  platform::releaseWritersTurn(here_, &one);
}

TEST_F(LockBytesTest, AChildThatWithdrawsAReaderLeavesTheLockOfItsParent) {
  openBoth();
  EXPECT_TRUE(platform::announceReader(here_));
  EXPECT_EQ(inForkedChild([&] {
              platform::withdrawReader(here_);
              return 0;
            }),
            0);
  // Seen from a process that has no part in it.
  EXPECT_EQ(other_.takeByte(there_, LockByte::reader, Sharing::exclusive), kRefused);
}

TEST_F(LockBytesTest, StayAnnouncedWhenTheFileGetsADescriptionOfItsOwn) {
  ASSERT_EQ(QVFile().QVOpenFile(folder_.wide("f"), 4, &here_), 1);
  EXPECT_TRUE(platform::announceReader(here_));
  int16_t second = 0;
  ASSERT_EQ(inForkedChild([] { return 0; }), 0);  // it may have kept a part of the lock
  ASSERT_EQ(QVFile().QVOpenFile(folder_.wide("f"), 3, &second), 1);
  ASSERT_EQ(QVFile().QVCloseFile(second), 1);
  there_ = other_.open(folder_.wide("f"), 1);
  ASSERT_NE(there_, 0);
  EXPECT_EQ(takeThere(LockByte::reader, Sharing::shared), kTaken);
  other_.releaseByte(there_, LockByte::reader, Sharing::shared);
  const int descriptor = ::open((folder_ / "f").c_str(), O_RDWR);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_start = platform::kFirstLockByte;
  lock.l_len = 1;
  const int asked = inForkedChild([&] {
    return ::fcntl(descriptor, F_GETLK, &lock) != 0 ? 1 : lock.l_type == F_RDLCK ? 2 : 3;
  });
  EXPECT_EQ(asked, 2);
  ::close(descriptor);
}

TEST_F(LockBytesTest, WhatTheHostDoesNotAnswerCountsAsHeld) {
  openBoth();
  FakeHost host;
  host.failFrom(Call::findLock);
  EXPECT_TRUE(platform::isLockByteHeld(here_, LockByte::reader));
  host.failFrom(Call::lock, 0, ENOLCK);
  EXPECT_EQ(takeHere(LockByte::change, Sharing::shared), LockOutcome::impossible);
  EXPECT_FALSE(platform::announceReader(here_));
  host.heal();
  EXPECT_TRUE(platform::announceReader(here_));
}

TEST_F(LockBytesTest, ANumberThatIsNotInUseHasNone) {
  EXPECT_EQ(platform::takeLockByte(77, LockByte::change, Sharing::shared), LockOutcome::impossible);
  EXPECT_EQ(platform::takeWritersTurn(77, this), LockOutcome::impossible);
  EXPECT_FALSE(platform::isLockByteHeld(77, LockByte::reader));
  EXPECT_FALSE(platform::announceReader(77));
  platform::withdrawReader(77);
  platform::releaseLockByte(77, LockByte::change, Sharing::shared);
  platform::releaseWritersTurn(77, this);
}

}  // namespace
}  // namespace qvdbase::test
