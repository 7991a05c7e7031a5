// Finding the process that holds a file's lock, where the host has files about processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "kit/bytes.h"
#include "kit/forked.h"
#include "kit/temp_folder.h"
#include "platform/handles/file_entries.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {
namespace {

using platform::fileLock;
using platform::kLockedBytes;
using platform::Sharing;
using platform::systemCalls;

// Another process that holds a lock on a file until it is ended.
class Locker {
 public:
  Locker(const std::string& path, struct flock lock) {
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("no pipe");
    process_ = ::fork();
    if (process_ == 0) {
      const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
      const char done = systemCalls().setLock(descriptor, &lock) == 0 ? 'y' : 'n';
      static_cast<void>(!::write(ready[1], &done, 1));
      for (;;) ::pause();
    }
    ::close(ready[1]);
    char answer = 0;
    if (::read(ready[0], &answer, 1) != 1 || answer != 'y') throw std::runtime_error("no lock");
    ::close(ready[0]);
  }
  ~Locker() {
    ::kill(process_, SIGKILL);
    endOf(process_);
  }
  Locker(const Locker&) = delete;
  Locker& operator=(const Locker&) = delete;
  pid_t process() const { return process_; }

 private:
  pid_t process_ = -1;
};

class LockHolders : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!platform::locksPassToChildren()) GTEST_SKIP() << "the query for locks names the process";
    writeFile(file_, bytesOf("x"));
    ASSERT_EQ(::stat(file_.c_str(), &status_), 0);
  }
  pid_t holder() const {
    return systemCalls().lockHolder(status_.st_dev, status_.st_ino, kLockedBytes);
  }

  TempFolder folder_;
  std::string file_ = folder_ / "file";
  struct stat status_ = {};
};

TEST_F(LockHolders, AreFoundByTheLocksOfTheirDescriptors) {
  for (const Sharing sharing : {Sharing::shared, Sharing::exclusive}) {
    const Locker locker(file_, fileLock(sharing));
    writeFile(folder_ / "other", bytesOf("y"));
    EXPECT_EQ(holder(), locker.process());
    EXPECT_EQ(holder(), locker.process());  // asked again, as by those who wait
  }
}

TEST_F(LockHolders, AreFoundAfterAnotherWasTheHolder) {
  pid_t first = 0;
  {
    const Locker locker(file_, fileLock(Sharing::exclusive));
    first = holder();
  }
  EXPECT_NE(first, 0);
  EXPECT_EQ(holder(), 0);
}

TEST_F(LockHolders, AreNoneOfAnotherFileAndOfOtherBytes) {
  writeFile(folder_ / "other", bytesOf("y"));
  const Locker elsewhere(folder_ / "other", fileLock(Sharing::exclusive));
  struct flock last = fileLock(Sharing::shared);
  last.l_start = kLockedBytes;
  last.l_len = 1;
  const Locker announced(file_, last);
  EXPECT_EQ(holder(), 0);
}

TEST_F(LockHolders, AreOtherProcessesThanThisOne) {
  const int descriptor = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_TRUE(platform::setFileLock(descriptor, Sharing::exclusive));
  EXPECT_EQ(holder(), 0);
  ::close(descriptor);
}

TEST_F(LockHolders, HaveNames) {
  char name[64] = {};
  EXPECT_TRUE(systemCalls().processName(::getpid(), name, sizeof name));
  EXPECT_EQ(std::string(name), "platform_tests");
  char small[5] = {};
  EXPECT_TRUE(systemCalls().processName(::getpid(), small, sizeof small));
  EXPECT_EQ(std::string(small), "plat");
  EXPECT_FALSE(systemCalls().processName(-1, name, sizeof name));
  EXPECT_EQ(std::string(name), "");
}

}  // namespace
}  // namespace qvdbase::test
