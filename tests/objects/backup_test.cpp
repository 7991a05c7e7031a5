// Database::backup: copies of databases that are in use.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "kit/forked.h"
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "kit/threads.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;

constexpr const char* kCopy = "copy.qvd";

class Backup : public LayerTest {
 protected:
  // A table with records that are live, dead and changed.
  Database filled(Mode mode = Mode::exclusive) {
    {
      auto database = createDatabase();
      auto table = database.add_table("t");
      for (uint64_t i = 1; i <= 20; ++i) table.add_with_id(Id{i}, std::string(100, 'x'));
      table.remove(Id{3});
      table.modify(Id{5}, std::string(200, 'y'));
    }
    return openDatabase(mode);
  }

  mode_t modeOf(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(::stat(path(name).c_str(), &status), 0);
    return status.st_mode & 07777;
  }
};

TEST_F(Backup, CopiesEveryByteOfAnExclusiveDatabase) {
  auto database = filled();
  const qvdb::BackupReport report = database.backup(path(kCopy));
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
  EXPECT_EQ(report.size, contents().size());
  EXPECT_EQ(report.blocks, 21u);
  EXPECT_EQ(report.errors, 0u);
  EXPECT_EQ(names(), (std::vector<std::string>{kCopy, kDefaultFile}));
  database.table("t").add(std::string("still open"));
}

TEST_F(Backup, CopiesADatabaseThatIsOpenForReading) {
  const auto database = filled(Mode::read_only);
  database.backup(path(kCopy));
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
}

TEST_F(Backup, CopiesMoreThanOnePiece) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  for (int i = 0; i < 5; ++i) table.add(std::string(700'001, static_cast<char>('a' + i)));
  int last = -1;
  database.backup(path(kCopy), {}, [&](int percent) {
    EXPECT_GE(percent, last);
    last = percent;
    return true;
  });
  EXPECT_EQ(last, 100);
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
}

TEST_F(Backup, HasTheModeOfItsSource) {
  auto database = filled();
  ASSERT_EQ(::chmod(path().c_str(), 0604), 0);
  database.backup(path(kCopy));
  EXPECT_EQ(modeOf(kCopy), 0604u);
}

TEST_F(Backup, ReplacesAFileOnlyIfAskedTo) {
  auto database = filled();
  writeFile(path(kCopy), bytesOf("something"));
  expectError(Reason::file_exists, [&] { database.backup(path(kCopy)); });
  EXPECT_EQ(contents(kCopy), bytesOf("something"));
  database.backup(path(kCopy), {.overwrite = true});
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
}

TEST_F(Backup, RefusesItselfAsTarget) {
  auto database = filled();
  const Bytes before = contents();
  std::filesystem::create_hard_link(path(), path("hard.qvd"));
  for (const char* name : {kDefaultFile, "hard.qvd"}) {
    const std::string message = expectError(
        Reason::bad_argument, [&] { database.backup(path(name), {.overwrite = true}); });
    EXPECT_NE(message.find("it is the database itself"), std::string::npos) << message;
  }
  EXPECT_TRUE(sameBytes(contents(), before));
  std::filesystem::remove(path("hard.qvd"));
}

TEST_F(Backup, RefusesFoldersThatDoNotExistUnlessAskedToCreateThem) {
  auto database = filled();
  expectError(Reason::path_not_reachable, [&] { database.backup(path("a/b/copy.qvd")); });
  database.backup(path("a/b/copy.qvd"), {.create_folders = true});
  EXPECT_TRUE(sameBytes(contents("a/b/copy.qvd"), contents()));
}

TEST_F(Backup, RefusesAnOpenBatch) {
  auto database = filled();
  auto table = database.table("t");
  auto bulk = table.appender();
  bulk.add(std::string("one"));
  expectError(Reason::appender_open, [&] { database.backup(path(kCopy)); });
  bulk.finish();
  database.backup(path(kCopy));
  EXPECT_EQ(Database::open(path(kCopy)).table("t").count(), 20u);
}

TEST_F(Backup, RefusesAClosedDatabase) {
  expectError(Reason::not_open, [&] { Database().backup(path(kCopy)); });
  auto database = filled();
  database.close();
  expectError(Reason::not_open, [&] { database.backup(path(kCopy)); });
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
}

TEST_F(Backup, RefusesADamagedDatabaseUnlessForced) {
  { static_cast<void>(filled()); }
  Bytes damaged = contents();
  damaged[static_cast<size_t>(slot(0).firstRecordPos) + 46] ^= 1;  // where the next record is
  writeFile(path(), damaged);
  const auto database = openDatabase(Mode::read_only);
  expectDamage(kDefaultFile);
  expectDamage(kCopy);
  const std::string message = expectError(Reason::damaged, [&] { database.backup(path(kCopy)); });
  EXPECT_NE(message.find("it has "), std::string::npos) << message;
  EXPECT_FALSE(std::filesystem::exists(path(kCopy)));
  EXPECT_GT(database.backup(path(kCopy), {.force = true}).errors, 0u);
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
}

TEST_F(Backup, CopiesTheOpenFileAlsoWhenItsNameLeadsElsewhere) {
  const auto database = filled(Mode::read_only);
  const Bytes before = contents();
  std::filesystem::rename(path(), path("renamed.qvd"));
  writeFile(path(), bytesOf("something else"));
  allowDamage(kDefaultFile);
  database.backup(path(kCopy));
  EXPECT_TRUE(sameBytes(contents(kCopy), before));
}

TEST_F(Backup, HasWhatIsChangedWhileItIsMade) {
  auto database = filled();
  auto table = database.table("t");
  table.add(std::string(3'000'000, 'y'));
  bool isChanged = false;
  RecordedCalls host;
  host.failFrom(RecordedCalls::Call::cloneFile, 0, EXDEV);
  database.backup(path(kCopy), {}, [&](int percent) {
    if (isChanged || percent > 79) return true;
    isChanged = true;
    table.add_with_id(Id{100}, std::string(3'000'000, 'z'));
    table.modify(Id{1}, std::string(100, 'w'));
    return true;
  });
  EXPECT_TRUE(isChanged);
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
}

TEST_F(Backup, EndsWithThatWhatTheCallerThrows) {
  auto database = filled();
  struct Stop {};
  for (const int limit : {0, 80, 95}) {
    const auto stop = [&](int percent) {
      if (percent >= limit) throw Stop();
      return true;
    };
    EXPECT_THROW(database.backup(path(kCopy), {}, stop), Stop);
    expectError(Reason::cancelled, [&] {
      database.backup(path(kCopy), {}, [&](int percent) { return percent < limit; });
    });
  }
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
}

// Several reads of it, each reported before.
TEST_F(Backup, CanBeStoppedWhileTheCopyIsChecked) {
  auto database = filled();
  {
    auto bulk = database.table("t").appender();
    for (int i = 0; i < 64; ++i) bulk.add(std::string(100'000, 'z'));
    bulk.finish();
  }
  std::vector<int> percents;
  expectError(Reason::cancelled, [&] {
    database.backup(path(kCopy), {}, [&](int percent) {
      percents.push_back(percent);
      return percent < 90;
    });
  });
  ASSERT_FALSE(percents.empty());
  EXPECT_LT(percents.back(), 95);
  EXPECT_GE(percents.back(), 90);
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  EXPECT_EQ(database.backup(path(kCopy)).errors, 0u);
}

// ---- the ways in which bytes are copied ----

TEST_F(Backup, IsTheSameWhereTheHostCannotCopyByItself) {
  auto database = filled();
  for (const int skip : {0, 1}) {
    RecordedCalls host;
    host.failFrom(RecordedCalls::Call::cloneFile, 0, EXDEV);
    host.failFrom(RecordedCalls::Call::copyRange, skip, ENOSYS);
    const qvdb::BackupReport report = database.backup(path(kCopy), {.overwrite = true});
    EXPECT_FALSE(report.shares_storage);
    EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
  }
}

// As on a file system that can do so: in one step, with nothing copied besides.
TEST_F(Backup, SharesStoredBytesWhereTheHostCanDoThat) {
  auto database = filled();
  ReplacedCalls calls;
  static int copies = 0;
  copies = 0;
  calls->cloneFile = [](int to, int from) {
    char bytes[4096];
    off_t done = 0;
    for (ssize_t got = 1; got > 0; done += got) {
      got = ::pread(from, bytes, sizeof bytes, done);
      if (::pwrite(to, bytes, static_cast<size_t>(got), done) != got) return -1;
    }
    return 0;
  };
  calls->copyRange = [](int, int, off_t, size_t) {
    ++copies;
    errno = ENOSYS;
    return ssize_t{-1};
  };
  const qvdb::BackupReport report = database.backup(path(kCopy));
  EXPECT_TRUE(report.shares_storage);
  EXPECT_EQ(report.size, fileSize());
  EXPECT_EQ(copies, 0);
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
}

TEST_F(Backup, LeavesHolesUnstored) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  table.add(std::string(4'000'000, 'x'));
  database.close();
  const int file = ::open(path().c_str(), O_RDWR | O_CLOEXEC);
  const bool isPunched = platform::systemCalls().punchHole(file, 1 << 20, 2 << 20) == 0;
  ::close(file);
  if (!isPunched) GTEST_SKIP() << "the file system has no holes";
  openDatabase(Mode::read_only).backup(path(kCopy));
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
  struct stat source = {};
  struct stat copy = {};
  ASSERT_EQ(::stat(path().c_str(), &source), 0);
  ASSERT_EQ(::stat(path(kCopy).c_str(), &copy), 0);
  EXPECT_LE(copy.st_blocks, source.st_blocks + 64);
}

TEST_F(Backup, ReportsAFullDiskAndLeavesNothing) {
  auto database = filled();
  RecordedCalls host;
  host.fullAfter(2000);
  expectError(Reason::disk_full, [&] { database.backup(path(kCopy)); });
  host.heal();
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
}

TEST_F(Backup, ReportsARefusedNameAndLeavesNothing) {
  auto database = filled();
  RecordedCalls host;
  host.failFrom(RecordedCalls::Call::renameNew, 0, EACCES);
  host.failFrom(RecordedCalls::Call::link, 0, EACCES);
  expectError(Reason::cannot_write, [&] { database.backup(path(kCopy)); });
  host.heal();
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
}

// ---- beside others ----

// Each record says how many changes there were; all changes are made in one order.
TEST_F(Backup, IsOfOneMomentBesideAnotherProcessThatWrites) {
  { static_cast<void>(filled()); }
  const pid_t writer = ::fork();
  if (writer == 0) {
    try {
      auto database = openDatabase(Mode::exclusive);
      auto table = database.table("t");
      for (uint64_t round = 1; round < 5'000; ++round) {
        table.modify(Id{1}, std::to_string(round));
        table.add(std::string(500, 'n'));
        table.modify(Id{2}, std::to_string(round));
        ::usleep(200);
      }
      ::sleep(60);
    } catch (...) {
    }
    ::_exit(1);
  }
  const auto backUpAndCompare = [&] {
    for (int i = 0; i < 5; ++i) {
      const Database database = openDatabase(Mode::read_only);
      EXPECT_EQ(database.backup(path(kCopy), {.overwrite = true}).errors, 0u);
      const Database copy = Database::open(path(kCopy));
      const std::string first = bytes(copy.table("t").get(Id{1})).str();
      const std::string second = bytes(copy.table("t").get(Id{2})).str();
      if (first[0] == 'x') continue;  // the writer has not begun
      const uint64_t one = std::stoull(first);
      const uint64_t two = second[0] == 'x' ? 0 : std::stoull(second);
      EXPECT_TRUE(one == two || one == two + 1) << first << " " << second;
    }
  };
  EXPECT_NO_THROW(backUpAndCompare());
  ::kill(writer, SIGKILL);
  static_cast<void>(endOf(writer));
  allowDamage(kDefaultFile);  // half of a change
}

// Both records get the same number in each transaction.
TEST_F(Backup, HasTransactionsOfAnotherProcessWholeOrNotAtAll) {
  for (const qvdb::Durability durability :
       {qvdb::Durability::process, qvdb::Durability::power,
        qvdb::Durability::interval(std::chrono::milliseconds(2))}) {
    std::filesystem::remove(path(kDefaultFile));
    { static_cast<void>(filled()); }
    const pid_t writer = ::fork();
    if (writer == 0) {
      try {
        auto database =
            Database::open(path(kDefaultFile), {.mode = Mode::exclusive, .durability = durability});
        auto table = database.table("t");
        for (int number = 1; number < 2'000; ++number) {
          database.transaction([&](qvdb::Transaction&) {
            table.modify(Id{1}, std::to_string(number));
            table.modify(Id{2}, std::to_string(number));
          });
          ::usleep(200);
        }
        ::sleep(60);
      } catch (...) {
      }
      ::_exit(1);
    }
    const auto backUpAndCompare = [&] {
      for (int i = 0; i < 5; ++i) {
        const Database database = openDatabase(Mode::read_only);
        EXPECT_EQ(database.backup(path(kCopy), {.overwrite = true}).errors, 0u);
        const Database copy = Database::open(path(kCopy));
        const Bytes first = bytes(copy.table("t").get(Id{1}));
        if (first[0] == 'x') continue;  // the writer has not begun
        EXPECT_EQ(first, bytes(copy.table("t").get(Id{2})));
      }
    };
    EXPECT_NO_THROW(backUpAndCompare());
    ::kill(writer, SIGKILL);
    static_cast<void>(endOf(writer));
  }
  allowDamage(kDefaultFile);  // committed, and not in place
  allowDamage(kCopy);
}

TEST_F(Backup, WorksBesideAThreadThatWrites) {
  if (!kHasThreads) GTEST_SKIP() << "a build without threads";
  auto database = filled();
  auto table = database.table("t");
  std::atomic<bool> isDone = false;
  std::thread writer([&] {
    while (!isDone) {
      table.add(std::string(1000, 'n'));
      table.modify(Id{1}, std::string(100, 'v'));
      ::usleep(200);
    }
  });
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(database.backup(path(kCopy), {.overwrite = true}).errors, 0u);
  }
  isDone = true;
  writer.join();
}

// The child is killed in the middle: at most a file under a temporary name is left.
TEST_F(Backup, LeavesATemporaryFileAtMostWhenItIsKilled) {
  const auto database = filled(Mode::read_only);
  const pid_t child = ::fork();
  if (child == 0) {
    const Database again = openDatabase(Mode::read_only);
    again.backup(path(kCopy), {}, [](int percent) {
      if (percent >= 80) ::kill(::getpid(), SIGKILL);
      return true;
    });
    ::_exit(1);
  }
  EXPECT_EQ(endOf(child), -1);
  EXPECT_FALSE(std::filesystem::exists(path(kCopy)));
  for (const std::string& name : names()) {
    EXPECT_TRUE(name == kDefaultFile || name.ends_with(".tmp")) << name;
    if (name != kDefaultFile) allowDamage(name);
  }
  database.backup(path(kCopy));
  EXPECT_TRUE(sameBytes(contents(kCopy), contents()));
}

}  // namespace
}  // namespace qvdbase::test
