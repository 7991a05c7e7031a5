// Threads that commit to one database with Durability::power wait for the device together, and none
// of them has its turn meanwhile.
#include <gtest/gtest.h>
#include <pthread.h>
#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "intents/commit.h"
#include "intents/shown_contents.h"
#include "kit/forked.h"
#include "objects/layer_fixture.h"
#include "platform/handles/turns.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {
namespace {

// A host whose device is slow: each sync waits until the test lets it go on, or fail.
class SlowDevice {
 public:
  SlowDevice() {
    begun_ = allowed_ = withTurn_ = 0;
    failing_ = 0;
    host_ = platform::systemCalls();
    slow_ = host_;
    slow_.syncData = sync;
    platform::replaceSystemCalls(&slow_);
  }
  ~SlowDevice() { platform::replaceSystemCalls(nullptr); }
  SlowDevice(const SlowDevice&) = delete;
  SlowDevice& operator=(const SlowDevice&) = delete;

  // Until so many have begun.
  static void awaitSync(int count) { awaitAtLeast(&begun_, count); }
  // So many, counted from the first one, may come to their end; that one fails.
  static void allow(int count) {
    allowed_ = count;
    allowed_.notify_all();
  }
  static void allowAll() { allow(1'000'000); }
  static void fail(int number) { failing_ = number; }

  static int begun() { return begun_; }
  static int withTurn() { return withTurn_; }  // by threads that had the turn of a file

 private:
  static void awaitAtLeast(std::atomic<int>* number, int wanted) {
    for (int now = *number; now < wanted; now = *number) number->wait(now);
  }

  static int sync(int descriptor) {
    if (platform::hasTurn()) ++withTurn_;
    const int number = ++begun_;
    begun_.notify_all();
    awaitAtLeast(&allowed_, number);
    if (number != failing_) return host_.syncData(descriptor);
    errno = EIO;
    return -1;
  }

  static inline platform::SystemCalls host_;
  static inline platform::SystemCalls slow_;
  static inline std::atomic<int> begun_;
  static inline std::atomic<int> allowed_;
  static inline std::atomic<int> withTurn_;
  static inline std::atomic<int> failing_;
};

class GroupCommits : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    createDatabase().add_table("t");
    database_ = qvdb::Database::open(
        path(), {.mode = qvdb::Mode::exclusive, .durability = qvdb::Durability::power});
    table_ = database_.table("t");
    table_.add("first");  // what was there before is on the device, and a run of commits is open
  }

  // A thread that adds a record, and notes what becomes of it.
  void addInThread(const std::string& text) {
    threads_.emplace_back([this, text] {
      try {
        table_.add(text);
      } catch (const qvdb::Error& error) {
        ++refused_;
        EXPECT_EQ(error.reason(), qvdb::Reason::cannot_write);
        const std::string why = error.what();
        EXPECT_NE(why.find("whether it is committed shows when"), std::string::npos) << why;
      }
      ++returned_;
    });
  }

  // The operations of this thread need the turn, and find what others have appended.
  void awaitRecords(uint32_t count) {
    while (table_.count() < count) std::this_thread::yield();
  }

  void joinAll() {
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  qvdb::Database database_;
  qvdb::Table table_;
  std::vector<std::thread> threads_;
  std::atomic<int> returned_ = 0;
  std::atomic<int> refused_ = 0;
};

TEST_F(GroupCommits, WaitForTheDeviceTogether) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  for (const char* text : {"b", "c", "d", "e"}) addInThread(text);
  awaitRecords(6);
  EXPECT_EQ(returned_, 0) << "before the device had it";
  device.allow(1);
  device.awaitSync(2);
  device.allowAll();
  joinAll();
  EXPECT_EQ(device.begun(), 2) << "one for the first commit, and one for the four after it";
  EXPECT_EQ(device.withTurn(), 0);
  EXPECT_EQ(returned_, 5);
  EXPECT_EQ(refused_, 0);
  EXPECT_EQ(table_.count(), 6u);
}

// What has returned is in its place, whoever else is waiting.
TEST_F(GroupCommits, AreInPlaceWhenTheyHaveReturned) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  addInThread("b");
  awaitRecords(3);
  device.allow(1);
  device.awaitSync(2);  // which begins when what the first one did was noted
  while (returned_ == 0) std::this_thread::yield();
  const ReadDatabase inFile = readDatabase(contents());
  EXPECT_EQ(inFile.tables.at(0).records.size(), 2u) << "of b only the intent is in the file";
  device.allowAll();
  joinAll();
  EXPECT_EQ(readDatabase(contents()).tables.at(0).records.size(), 3u);
}

// Also readers in the same process, and the operations of other threads.
TEST_F(GroupCommits, AreSeenByOthersBeforeTheDeviceHasThem) {
  const qvdb::Reader reader = database_.reader();
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  EXPECT_EQ(textOf(table_.last()->payload()), "a");
  EXPECT_EQ(reader.table("t").count(), 2u);
  EXPECT_EQ(textOf(reader.table("t").last()->payload()), "a");
  EXPECT_EQ(shownBy(database_).at("t").records.size(), 2u);
  device.allowAll();
  joinAll();
}

TEST_F(GroupCommits, AreAllUndecidedWhereTheSyncFails) {
  {
    const SlowDevice device;
    device.fail(1);
    addInThread("a");
    device.awaitSync(1);
    addInThread("b");
    addInThread("c");
    awaitRecords(4);
    device.allowAll();
    joinAll();
    EXPECT_EQ(refused_, 3);
    EXPECT_EQ(device.begun(), 1) << "a second one could succeed although bytes were lost";
    const auto error = errorOf([&] { table_.add("d"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->reason(), qvdb::Reason::cannot_write);
  }
  database_.reopen();
  EXPECT_EQ(database_.table("t").count(), 4u) << "the system had them all the same";
}

TEST_F(GroupCommits, ThatWereOnTheDeviceStayCommittedWhereALaterSyncFails) {
  const SlowDevice device;
  device.fail(2);
  addInThread("a");
  device.awaitSync(1);
  addInThread("b");
  addInThread("c");
  awaitRecords(4);
  device.allowAll();
  joinAll();
  EXPECT_EQ(returned_, 3);
  EXPECT_EQ(refused_, 2);
}

// An operation that waits for the device itself does not do so beside the group: the system reports
// a failure to one of two syncs only.
TEST_F(GroupCommits, TellASyncOfTheDatabaseOfTheirFailure) {
  const SlowDevice device;
  device.fail(1);
  addInThread("a");
  device.awaitSync(1);
  std::atomic<bool> isSyncing = false;
  std::thread syncing([&] {
    isSyncing = true;
    expectError(qvdb::Reason::cannot_write, [&] { database_.sync(); });
  });
  while (!isSyncing) std::this_thread::yield();
  device.allowAll();
  syncing.join();
  joinAll();
  EXPECT_EQ(refused_, 1);
  EXPECT_EQ(device.begun(), 1);
}

TEST_F(GroupCommits, GoOnBesideATransactionThatIsOpen) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  auto t = database_.begin();
  table_.add("b");
  device.allow(1);
  joinAll();  // its patches are written
  EXPECT_EQ(refused_, 0);
  EXPECT_EQ(table_.count(), 3u);
  device.allowAll();
  t.commit();
  EXPECT_EQ(table_.count(), 3u);
  database_.reopen();
  EXPECT_EQ(database_.table("t").count(), 3u);
}

// A part of which is in the file already, behind what is to be completed.
TEST_F(GroupCommits, GoOnBesideALargeTransactionThatIsOpen) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  auto t = database_.begin();
  for (int i = 0; i < 20; ++i) table_.add(std::string(1'000'000, 'b'));
  EXPECT_GT(std::filesystem::file_size(path()), 16'000'000u);
  device.allowAll();
  joinAll();
  EXPECT_EQ(refused_, 0);
  t.commit();
  EXPECT_EQ(table_.count(), 22u);
  database_.reopen();
  EXPECT_EQ(database_.table("t").count(), 22u);
}

TEST_F(GroupCommits, AreCompletedByClosing) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  addInThread("b");
  awaitRecords(3);
  std::thread closing([&] { database_.close(); });
  device.allowAll();
  closing.join();
  joinAll();
  EXPECT_EQ(returned_, 2);
  EXPECT_EQ(refused_, 0);
  const Bytes file = contents();
  EXPECT_EQ(file.at(4558, 24), Bytes().zeros(24));
  EXPECT_EQ(readDatabase(file).tables.at(0).records.size(), 3u);
}

TEST_F(GroupCommits, AreDecidedByClosingWhereTheSyncFails) {
  const SlowDevice device;
  device.fail(1);
  addInThread("a");
  device.awaitSync(1);
  std::thread closing([&] { database_.close(); });  // who has committed is told
  device.allowAll();
  joinAll();
  closing.join();
  EXPECT_EQ(refused_, 1);
}

// Who else can write to the file in this process must not come between a commit and its patches.
TEST_F(GroupCommits, KeepTheTurnWhereTheFileHasAnotherOpener) {
  const int16_t other = open(kDefaultFile, 4);
  ASSERT_GT(other, 0);
  const SlowDevice device;
  device.allowAll();
  addInThread("a");
  addInThread("b");
  joinAll();
  EXPECT_EQ(device.begun(), device.withTurn());
  EXPECT_GE(device.begun(), 2);
  close(other);
  addInThread("c");
  joinAll();
  EXPECT_EQ(device.begun(), device.withTurn() + 1);
}

TEST_F(GroupCommits, OfATransactionWithoutChangesWaitForNothing) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  std::thread([&] { database_.transaction([](qvdb::Transaction&) {}); }).join();
  EXPECT_EQ(device.begun(), 1);
  device.allowAll();
  joinAll();
}

// Nobody would wait with it: that takes no turn a second time, and holds nothing back.
TEST_F(GroupCommits, OfAThreadThatIsAloneKeepTheTurnAfterAWhile) {
  const SlowDevice device;
  device.allowAll();
  std::thread([&] {
    for (int i = 0; i < 20; ++i) table_.add("alone");
  }).join();
  EXPECT_EQ(device.begun(), 20);
  EXPECT_EQ(device.withTurn(), 12);
  EXPECT_EQ(table_.count(), 21u);  // this thread has had the turn
  std::thread([&] { table_.add("not alone any more"); }).join();
  EXPECT_EQ(device.withTurn(), 12);
}

// Whose thread that waits for the device is not there. The file is closed in it like any other.
TEST_F(GroupCommits, DoNotKeepTheFileOpenInAChild) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  const int status = inForkedChild([&] {
    const auto isOpen = [&] {
      for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(each, gone) == path()) return true;
      }
      return false;
    };
    if (!isOpen()) return 1;
    database_.close();
    return isOpen() ? 2 : 0;
  });
  EXPECT_EQ(status, 0);
  device.allowAll();
  joinAll();
  EXPECT_EQ(refused_, 0);
  EXPECT_EQ(table_.count(), 2u);
}

// A thread that has waited may wake up long after the file was closed.
TEST_F(GroupCommits, DoNotKeepTheFileOpenWhereAThreadStillHasToWakeUp) {
  database_.close();
  const int16_t db = open(kDefaultFile, 3);
  ASSERT_GT(db, 0);
  intents::CommitLog log(db, intents::Durability::power);
  const std::shared_ptr<intents::GroupSync> sync = log.beginGroupSync();
  ASSERT_TRUE(sync);
  sync->run();
  EXPECT_TRUE(log.noteGroupSync());
  close(db);
  for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    EXPECT_NE(std::filesystem::read_symlink(each, gone), path());
  }
  EXPECT_TRUE(sync->hasSucceeded());
}

// The thread that waits for the device does so for others, too.
TEST_F(GroupCommits, AreNotCutOffByACancellation) {
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  addInThread("b");
  awaitRecords(3);
  for (std::thread& each : threads_) EXPECT_EQ(pthread_cancel(each.native_handle()), 0);
  device.allowAll();
  joinAll();
  EXPECT_EQ(returned_, 2);
  EXPECT_EQ(refused_, 0);
  table_.add("c");
  EXPECT_EQ(table_.count(), 4u);
}

// Whoever writes between a commit and its patches loses nothing, and the commit says what became of
// it: through the handle of the database, or one that is opened then.
TEST_F(GroupCommits, SayThatTheCFunctionsHaveChangedTheTableMeanwhile) {
  allowDamage("test.qvd");
  for (const bool isOwnHandle : {true, false}) {
    SCOPED_TRACE(isOwnHandle);
    if (!isOwnHandle) table_ = database_.add_table("another one");
    const SlowDevice device;
    std::thread adding(
        [&] { expectError(qvdb::Reason::changed_meanwhile, [&] { table_.add("of the layer"); }); });
    device.awaitSync(1);
    const int16_t other = isOwnHandle ? database_.handle() : open(kDefaultFile, 4);
    addRecord(other, table_.id().value, bytesOf("of a C function"));
    device.allowAll();
    adding.join();
    if (!isOwnHandle) close(other);
    EXPECT_EQ(textOf(table_.last()->payload()), "of a C function");
    table_.add("after it");
    EXPECT_EQ(textOf(table_.last()->payload()), "after it");
  }
  database_.reopen();
  EXPECT_EQ(database_.table("t").count(), 3u);
  EXPECT_EQ(database_.table("another one").count(), 2u);
}

TEST_F(GroupCommits, AreInPlaceWhereOthersHaveChangedAnotherTable) {
  const qvdb::Table others = database_.add_table("others");
  const SlowDevice device;
  addInThread("a");
  device.awaitSync(1);
  addRecord(database_.handle(), others.id().value, bytesOf("of a C function"));
  device.allowAll();
  joinAll();
  EXPECT_EQ(refused_, 0);
  EXPECT_EQ(table_.count(), 2u);
  EXPECT_EQ(others.count(), 1u);
}

}  // namespace
}  // namespace qvdbase::test
