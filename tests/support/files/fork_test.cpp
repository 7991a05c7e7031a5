// Open files and their locks on both sides of a fork: opening and closing in one process changes
// nothing for the other.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <signal.h>
#include <unistd.h>

#include "kit/bytes.h"
#include "kit/forked.h"
#include "kit/other_process.h"
#include "kit/temp_folder.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {
namespace {

// A child that has everything of this process, and keeps it until the object goes.
class WaitingChild {
 public:
  WaitingChild() : process_(::fork()) {
    if (process_ < 0) throw std::runtime_error("no process");
    while (process_ == 0) ::pause();
  }
  ~WaitingChild() {
    ::kill(process_, SIGKILL);
    endOf(process_);
  }
  WaitingChild(const WaitingChild&) = delete;
  WaitingChild& operator=(const WaitingChild&) = delete;

 private:
  pid_t process_;
};

class ForkedOpeners : public testing::Test {
 protected:
  ForkedOpeners() { writeFile(folder_ / "f", bytesOf("bytes")); }

  // The number, or 0.
  int16_t open(int permission) {
    int16_t number = 0;
    QVFile().QVOpenFile(folder_.wide("f"), permission, &number);
    return number;
  }
  static bool close(int16_t number) { return QVFile().QVCloseFile(number) == 1; }

  bool strangerCanOpen(int permission) {
    const int number = stranger_.open(folder_.wide("f"), permission);
    if (number == 0) return false;
    EXPECT_EQ(stranger_.close(number), 1);
    return true;
  }

  OtherProcess stranger_;  // before anything is opened here
  TempFolder folder_;
};

TEST_F(ForkedOpeners, ClosingInTheChildDoesNotWeakenTheParentsLock) {
  const int16_t exclusive = open(3);
  const int16_t shared = open(4);
  EXPECT_EQ(inForkedChild([&] { return close(exclusive) ? 0 : 1; }), 0);
  EXPECT_FALSE(strangerCanOpen(4));
  EXPECT_EQ(inForkedChild([&] { return close(exclusive) && close(shared) ? 0 : 1; }), 0);
  EXPECT_FALSE(strangerCanOpen(4));
  EXPECT_TRUE(close(exclusive) && close(shared));
  EXPECT_TRUE(strangerCanOpen(3));
}

TEST_F(ForkedOpeners, OpeningInTheChildDoesNotStrengthenTheParentsLock) {
  const int16_t shared = open(4);
  EXPECT_EQ(inForkedChild([&] { return open(3) == 0 ? 0 : 1; }), 0);  // the parent writes: refused
  EXPECT_TRUE(strangerCanOpen(4));
  EXPECT_FALSE(strangerCanOpen(3));
  EXPECT_TRUE(close(shared));
}

TEST_F(ForkedOpeners, ChildIsKeptOutByItsParentLikeAnyOtherProcess) {
  const int16_t exclusive = open(3);
  EXPECT_EQ(inForkedChild([&] {
              if (open(4) != 0 || open(3) != 0) return 1;
              return open(1) != 0 ? 0 : 2;
            }),
            0);
  EXPECT_FALSE(strangerCanOpen(4));
  EXPECT_TRUE(close(exclusive));
}

TEST_F(ForkedOpeners, ChildThatSharesHasALockOfItsOwn) {
  const int16_t shared = open(4);
  EXPECT_EQ(inForkedChild([&] {
              const int16_t own = open(4);
              uint32_t moved = 0;
              if (own == 0 || QVFile().QVWriteFile(own, "child", 5, &moved) != 1) return 1;
              return close(own) && close(shared) ? 0 : 2;
            }),
            0);
  EXPECT_FALSE(strangerCanOpen(3));
  EXPECT_TRUE(close(shared));
  EXPECT_TRUE(strangerCanOpen(3));
  EXPECT_EQ(readFile(folder_ / "f").str(), "child");
}

// What a child opens for itself needs nothing of a reader that it got from its parent.
TEST_F(ForkedOpeners, ChildOfAReaderWritesAlone) {
  const int16_t reader = open(1);
  EXPECT_EQ(inForkedChild([&] {
              const int16_t own = open(3);
              if (own == 0 || strangerCanOpen(4)) return 1;
              return close(own) && strangerCanOpen(3) ? 0 : 2;
            }),
            0);
  EXPECT_TRUE(close(reader));
}

TEST_F(ForkedOpeners, ParentThatClosesDoesNotWeakenWhatTheChildHolds) {
  const int16_t exclusive = open(3);
  const int16_t shared = open(4);
  {
    const WaitingChild child;
    EXPECT_TRUE(close(exclusive));
    // Where locks belong to the process, the child has none that could be weakened.
    EXPECT_EQ(strangerCanOpen(4), !platform::locksPassToChildren());
  }
  EXPECT_TRUE(close(shared));
  EXPECT_TRUE(strangerCanOpen(3));
}

TEST_F(ForkedOpeners, ParentThatOpensDoesNotStrengthenWhatTheChildHolds) {
  const int16_t shared = open(4);
  {
    const WaitingChild child;
    const int16_t exclusive = open(3);
    // The child may write through its copy. Without a lock of its own nothing can show that.
    EXPECT_EQ(exclusive == 0, platform::locksPassToChildren());
    EXPECT_EQ(strangerCanOpen(4), platform::locksPassToChildren());
    EXPECT_EQ(exclusive == 0, !close(exclusive));
  }
  // With the child gone it is as it was before.
  const int16_t exclusive = open(3);
  EXPECT_NE(exclusive, 0);
  EXPECT_FALSE(strangerCanOpen(4));
  EXPECT_TRUE(close(exclusive));
  EXPECT_TRUE(strangerCanOpen(4));
  EXPECT_FALSE(strangerCanOpen(3));
  EXPECT_TRUE(close(shared));
}

// A daemon: the parent opens, the child continues when the parent has ended.
TEST_F(ForkedOpeners, HandleGoesOnInTheChild) {
  const int16_t exclusive = open(3);
  {
    const WaitingChild child;
    EXPECT_TRUE(close(exclusive));
    EXPECT_EQ(strangerCanOpen(4), !platform::locksPassToChildren());
  }
  EXPECT_TRUE(strangerCanOpen(3));
  const int16_t handle = open(3);
  EXPECT_EQ(inForkedChild([&] {
              uint32_t moved = 0;
              return QVFile().QVWriteFile(handle, "daemon", 6, &moved) == 1 && close(handle) ? 0
                                                                                             : 1;
            }),
            0);
  EXPECT_TRUE(close(handle));
  EXPECT_EQ(readFile(folder_ / "f").str(), "daemon");
}

}  // namespace
}  // namespace qvdbase::test
