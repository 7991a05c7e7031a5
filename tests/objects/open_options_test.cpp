// Opening with options: creating what is not there, looking at the chains, waiting.
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"
#include "objects/layer_fixture.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {
namespace {

using namespace std::chrono_literals;

using qvdb::Database;
using qvdb::Mode;
using qvdb::OpenOptions;
using qvdb::Reason;

using LayerOpen = LayerTest;

TEST_F(LayerOpen, CreatesAFileOnlyWhereNoneIs) {
  for (const Mode mode : {Mode::exclusive, Mode::shared, Mode::any}) {
    const std::string name = std::to_string(static_cast<int>(mode)) + ".qvd";
    {
      auto database = Database::open(path(name), {.mode = mode, .create = true});
      EXPECT_EQ(database.mode(), mode);
      database.add_table("notes");
    }
    auto database = Database::open(path(name), {.mode = mode, .create = true});
    EXPECT_EQ(database.tables().size(), 1u);
  }
}

TEST_F(LayerOpen, DoesNotCreateOverAFileThatCannotBeOpened) {
  auto holder = createDatabase();
  holder.add_table("notes");
  expectUnchanged([&] {
    expectError(Reason::in_use,
                [&] { Database::open(path(), {.mode = Mode::exclusive, .create = true}); });
  });
  writeFile(path("text"), bytesOf("just text"));
  writeFile(path("empty"), {});
  allowDamage("text");
  allowDamage("empty");
  for (const char* name : {"text", "empty"}) {
    expectUnchanged(
        [&] {
          expectError(Reason::not_a_database, [&] {
            Database::open(path(name), {.mode = Mode::exclusive, .create = true});
          });
        },
        name);
  }
}

TEST_F(LayerOpen, CreatesNothingWithoutBeingAskedToOrForReadingOnly) {
  expectError(Reason::no_such_file,
              [&] { Database::open(path(), OpenOptions{.mode = Mode::exclusive}); });
  expectError(Reason::bad_argument, [&] { Database::open(path(), {.create = true}); });
  EXPECT_EQ(names(), std::vector<std::string>{});
}

// A byte that the system cannot read says nothing about the chain.
TEST_F(LayerOpen, TakesAFailedReadOfTheEndsForAFailedRead) {
  {
    auto database = createDatabase();
    auto table = database.add_table("notes");
    for (int i = 0; i < 5; ++i) table.add(span(bytesOf("text")), 2000);
  }
  RecordedCalls host;
  int failures = 0;
  for (int step = 0;; ++step) {
    host.failOnce(Call::read, step);
    std::optional<qvdb::Error> error;
    try {
      const Database database = qvdb::open_checked(path());
      qvdb::check_ends(database, database.table("notes").id());
    } catch (const qvdb::Error& thrown) {
      error.emplace(thrown);
    }
    host.heal();
    if (!host.failed()) break;
    if (!error) continue;
    ++failures;
    EXPECT_EQ(error->reason(), Reason::cannot_read) << error->what();
  }
  EXPECT_GT(failures, 4);
}

TEST_F(LayerOpen, LooksAtTheEndsOfTheChainsWhenAskedTo) {
  { auto table = createDatabase().add_table("notes"); }
  FileImage image;
  image.addTable("notes", 0x1101);
  image.slot(0).recordCount = 1;  // of which no position is known
  expectDamage();
  writeFile(path(), image.build());
  EXPECT_TRUE(Database::open(path(), OpenOptions{}).is_open());
  const auto error = errorOf([&] { Database::open(path(), {.check = true}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->reason(), Reason::chain_damaged);
  EXPECT_NE(std::string(error->what()).find("table '" + error->table() + "': "), std::string::npos)
      << error->what();
  EXPECT_EQ(error->table(), "notes");
}

// The clock moves only when a pause advances it, so nothing here depends on time that passes.
class PatientHost {
 public:
  PatientHost() {
    now_ = 1'000;
    pauses_ = 0;
    calls_->microseconds = [] { return now_; };
    calls_->pause = [](uint64_t length) {
      now_ += length;
      ++pauses_;
    };
  }
  static int pauses() { return pauses_; }
  static uint64_t waited() { return now_ - 1'000; }
  platform::SystemCalls* operator->() { return calls_.operator->(); }

 private:
  inline static uint64_t now_ = 0;
  inline static int pauses_ = 0;
  ReplacedCalls calls_;
};

TEST_F(LayerOpen, WaitsForADatabaseInUseAsLongAsItIsAllowedTo) {
  auto holder = createDatabase();
  for (const auto wait : {0ms, 1ms, 35ms}) {
    PatientHost host;
    expectError(Reason::in_use,
                [&] { Database::open(path(), {.mode = Mode::exclusive, .wait = wait}); });
    EXPECT_EQ(host.waited(), static_cast<uint64_t>(wait.count()) * 1'000);
  }
}

// A host on which another process holds the lock, or locking fails with another code.
class LockedHost : public PatientHost {
 public:
  explicit LockedHost(int code) {
    answer() = {code, 0, ""};
    (*this)->setLock = [](int, struct flock*) {
      errno = answer().code;
      return -1;
    };
    (*this)->findLock = [](int, struct flock* lock) {
      lock->l_type = F_WRLCK;
      lock->l_pid = -1;
      return 0;
    };
    (*this)->lockHolder = [](dev_t, ino_t, off_t) { return answer().holder; };
    (*this)->processName = [](pid_t process, char* name, size_t size) {
      EXPECT_EQ(process, answer().holder);
      return std::snprintf(name, size, "%s", answer().name) > 0;
    };
    (*this)->fileSystem = [](int) { return answer().name; };
  }
  static void tell(pid_t holder, const char* name) {
    answer().holder = holder;
    answer().name = name;
  }

 private:
  struct Answer {
    int code;
    pid_t holder;
    const char* name;
  };
  static Answer& answer() {
    static Answer instance;
    return instance;
  }
};

TEST_F(LayerOpen, NamesTheProcessThatHasTheDatabaseOpen) {
  createDatabase();
  LockedHost host(EAGAIN);
  const auto why = [&](const qvdb::OpenOptions& options) {
    return expectError(Reason::in_use, [&] { Database::open(path(), options); });
  };
  const std::string start = path().native() + ": cannot open the database: another process ";
  LockedHost::tell(4711, "backup");
  EXPECT_EQ(why({.mode = Mode::exclusive}), start + "(4711, backup) is writing to it");
  EXPECT_EQ(why({.mode = Mode::shared, .wait = 20ms}), start + "(4711, backup) is writing to it");
  LockedHost::tell(4711, "");
  EXPECT_EQ(why({.mode = Mode::exclusive}), start + "(4711) is writing to it");
  LockedHost::tell(0, "");
  EXPECT_EQ(why({.mode = Mode::exclusive}), start + "is writing to it");
  // Where locks belong to processes the query names the one.
  host->findLock = [](int, struct flock* lock) {
    lock->l_type = F_WRLCK;
    lock->l_pid = 17;
    return 0;
  };
  host->processName = [](pid_t process, char* name, size_t) {
    name[0] = 0;
    return process != 17;
  };
  EXPECT_EQ(why({.mode = Mode::exclusive}), start + "(17) is writing to it");
}

TEST_F(LayerOpen, SaysThatThisProgramHasTheDatabaseOpen) {
  auto database = createDatabase();
  const std::string why = expectError(Reason::in_use, [&] { openDatabase(Mode::exclusive); });
  EXPECT_NE(why.find("this program has it open for writing already"), std::string::npos) << why;
}

TEST_F(LayerOpen, NamesTheFileSystemThatDoesNotLock) {
  createDatabase();
  LockedHost host(ENOLCK);
  LockedHost::tell(0, "nfs");
  EXPECT_NE(expectError(Reason::cannot_lock, [&] { openDatabase(Mode::exclusive); })
                .find("its file system (nfs) does not lock files"),
            std::string::npos);
  LockedHost::tell(0, nullptr);
  EXPECT_NE(expectError(Reason::cannot_lock, [&] { openDatabase(Mode::shared); })
                .find("its file system does not lock files"),
            std::string::npos);
}

// A host that is said to have a file system of others, and counts how often it was asked.
class ForeignHost : public ReplacedCalls {
 public:
  ForeignHost() {
    questions = 0;
    (*this)->fileSystem = [](int) {
      ++questions;
      return "fuse";
    };
  }
  // Every lock is granted, none excludes.
  void grantsAll() {
    (*this)->setLock = [](int, struct flock*) { return 0; };
    (*this)->findLock = [](int, struct flock* lock) {
      lock->l_type = F_UNLCK;
      return 0;
    };
  }
  inline static int questions = 0;
};

TEST_F(LayerOpen, RefusesToWriteWhereLocksHaveNoEffect) {
  if (!platform::locksPassToChildren()) GTEST_SKIP() << "a process has no stranger to its locks";
  createDatabase().add_table("t");
  ForeignHost host;
  host.grantsAll();
  const std::string why = "its file system (fuse) does not lock files";
  for (const Mode mode : {Mode::exclusive, Mode::shared}) {
    EXPECT_NE(expectError(Reason::cannot_lock, [&] { openDatabase(mode); }).find(why),
              std::string::npos);
  }
  EXPECT_NE(expectError(Reason::cannot_lock, [&] { Database::create(path("new.qvd")); }).find(why),
            std::string::npos);
  EXPECT_NE(expectError(Reason::cannot_lock, [&] { qvdb::compact(path()); }).find(why),
            std::string::npos);
  expectError(Reason::cannot_lock, [&] { qvdb::mend(path()); });
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  // Whoever only reads is admitted, and so is who takes what there is.
  EXPECT_EQ(openDatabase(Mode::read_only).tables().size(), 1u);
  Database any = openDatabase(Mode::any);
  expectError(Reason::read_only, [&] { any.add_table("u"); });
}

TEST_F(LayerOpen, TriesTheLocksOfForeignFileSystemsOnly) {
  if (!platform::locksPassToChildren()) GTEST_SKIP() << "a process has no stranger to its locks";
  createDatabase();
  ForeignHost host;
  for (const Mode mode : {Mode::exclusive, Mode::shared, Mode::any}) {
    ForeignHost::questions = 0;
    Database database = openDatabase(mode);
    database.set_version(100);
    EXPECT_EQ(ForeignHost::questions, 1);
  }
  EXPECT_TRUE(Database::create(path("new.qvd")).is_open());
  // The lock itself is tried where the host does not say who has one.
  host->findLock = [](int, struct flock*) {
    errno = EINVAL;
    return -1;
  };
  EXPECT_TRUE(openDatabase(Mode::exclusive).is_open());
  host.grantsAll();
  for (const char* kind : {static_cast<const char*>(nullptr), "overlay"}) {
    static const char* answer;
    answer = kind;
    host->fileSystem = [](int) { return answer; };
    EXPECT_TRUE(openDatabase(Mode::exclusive).is_open());
  }
}

// Each answer but that another opener has the lock.
TEST_F(LayerOpen, SaysThatAFileCannotBeLockedWhateverTheSystemAnswers) {
  createDatabase();
  for (const int code : {ENOLCK, EINVAL, ENOSYS, EOPNOTSUPP, EIO, EPERM}) {
    LockedHost host(code);
    LockedHost::tell(0, "fuse");
    const auto error = errorOf([&] { openDatabase(Mode::exclusive); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->reason(), Reason::cannot_lock) << code << ": " << error->what();
    EXPECT_EQ(error->system_code().value(), code);
  }
}

TEST_F(LayerOpen, GetsADatabaseThatBecomesFreeMeanwhile) {
  createDatabase();
  static int refusals = 0;
  refusals = 5;
  PatientHost host;
  host->setLock = [](int descriptor, struct flock* lock) {
    if (refusals == 0) return platform::hostSystemCalls().setLock(descriptor, lock);
    --refusals;
    errno = EAGAIN;
    return -1;
  };
  auto database = Database::open(path(), {.mode = Mode::exclusive, .wait = 24h});
  EXPECT_TRUE(database.is_open());
  EXPECT_GT(host.pauses(), 0);
}

TEST_F(LayerOpen, DoesNotWaitForAnythingElse) {
  PatientHost host;
  expectError(Reason::no_such_file,
              [&] { Database::open(path(), {.mode = Mode::exclusive, .wait = 24h}); });
  EXPECT_EQ(host.pauses(), 0);
}

}  // namespace
}  // namespace qvdbase::test
