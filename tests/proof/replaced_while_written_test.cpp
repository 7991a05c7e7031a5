// Two processes: one replaces the file again and again, as a compaction does it (it holds the file
// exclusively, copies it, and gives the copy its name); the other one opens it, appends a record
// and closes it, slowly between opening and locking, so that the file is often replaced just there.
// Every record that was acknowledged is in the file of that name at the end.
#include <gtest/gtest.h>
#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

#include "kit/database_fixture.h"
#include "kit/forked.h"
#include "kit/replaced_calls.h"
#include "kit/test_extent.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;

class ReplacedWhileWritten : public DatabaseTest {
 protected:
  // Through the handle: where a lock belongs to the process, closing another descriptor of the file
  // would give it up.
  Bytes contents(int16_t db) {
    Bytes result(fs::file_size(path()), 0);
    uint32_t moved = 0;
    QVFile().QVSeekFile(db, 1, 0);
    QVFile().QVReadFile(db, result.data(), static_cast<uint32_t>(result.size()), &moved);
    return result;
  }

  // Until it is ended from outside, or left alone.
  [[noreturn]] void replaceForEver(pid_t parent) {
    while (::getppid() == parent) {
      const int16_t db = OpenDBaseW(wide(kDefaultFile), 3);
      if (db == 0) {
        std::this_thread::yield();
        continue;
      }
      writeFile(path("copy"), contents(db));
      std::error_code error;
      fs::rename(path("copy"), path(), error);
      CloseDBase(db);
    }
    ::_exit(0);
  }

  // Appends one record, waiting while the file is in use. Returns its identifier.
  uint64_t append(uint64_t table, int permission) {
    for (;;) {
      const int16_t db = OpenDBaseW(wide(kDefaultFile), permission);
      if (db == 0) {
        std::this_thread::yield();
        continue;
      }
      uint64_t id = 0;
      const unsigned char payload[] = {'p'};
      const int done = AddRecordData(db, table, payload, sizeof payload, 0, &id);
      CloseDBase(db);
      if (done == 1) return id;
    }
  }
};

TEST_F(ReplacedWhileWritten, KeepsEveryAcknowledgedRecord) {
  const int16_t created = create();
  const uint64_t table = addTable(created, "t");
  close(created);
  const pid_t parent = ::getpid();
  const pid_t replacer = ::fork();
  if (replacer == 0) replaceForEver(parent);
  std::set<uint64_t> acknowledged;
  {
    ReplacedCalls calls;
    calls->setLock = [](int descriptor, struct flock* lock) {
      ::usleep(1000);
      return platform::hostSystemCalls().setLock(descriptor, lock);
    };
    const int rounds = testEverything() ? 20'000 : 200;
    int replacements = 0;
    ino_t last = 0;
    for (int i = 0; i < rounds || replacements < 20; ++i) {
      acknowledged.insert(append(table, i % 2 == 0 ? 3 : 4));
      struct stat status = {};
      ASSERT_EQ(::stat(path().c_str(), &status), 0);
      if (status.st_ino != last) ++replacements;
      last = status.st_ino;
    }
  }
  ::kill(replacer, SIGKILL);
  endOf(replacer);
  fs::remove(path("copy"));

  const int16_t db = open();
  const std::vector<uint64_t> found = list(db, table);
  EXPECT_EQ(found.size(), acknowledged.size());
  EXPECT_EQ(std::set<uint64_t>(found.begin(), found.end()), acknowledged);
  close(db);
}

}  // namespace
}  // namespace qvdbase::test
