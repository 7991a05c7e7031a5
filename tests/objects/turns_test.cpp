// Writers that take turns, and that keep readers out while they change bytes.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "kit/forked.h"
#include "kit/other_process.h"
#include "kit/pauses.h"
#include "kit/recorded_calls.h"
#include "kit/threads.h"
#include "objects/layer_fixture.h"
#include "platform/handles/open_files.h"

namespace qvdbase::test {
namespace {

using platform::LockByte;
using platform::LockOutcome;
using platform::Sharing;
using qvdb::Mode;
using qvdb::Reason;

constexpr int kTaken = static_cast<int>(LockOutcome::taken);
constexpr int kRefused = static_cast<int>(LockOutcome::refused);

// Another process has the database open, and takes the bytes by hand.
class TurnsTest : public LayerTest {
 protected:
  void open(Mode mode) {
    createDatabase().add_table("t").add("first");
    there_ = other_.open(folder.wide(kDefaultFile), mode == Mode::shared ? 4 : 1);
    ASSERT_NE(there_, 0);
    database_.emplace(openDatabase(mode));
    table_.emplace(database_->table("t"));
  }

  int takeThere(LockByte byte, Sharing strength) { return other_.takeByte(there_, byte, strength); }
  void releaseThere(LockByte byte, Sharing strength) { other_.releaseByte(there_, byte, strength); }
  // Whether another writer could have its turn now.
  bool isTurnFree() {
    if (takeThere(LockByte::turn, Sharing::exclusive) != kTaken) return false;
    releaseThere(LockByte::turn, Sharing::exclusive);
    return true;
  }

  qvdb::Id firstId() const { return qvdb::Id{idsOf(*table_).at(0)}; }

  // Every operation that changes the file.
  std::vector<std::function<void()>> changes() {
    const qvdb::Id id = firstId();
    return {[this] { table_->add("another"); },
            [this, id] { table_->modify(id, "f"); },
            [this, id] { table_->write(id, 0, "F"); },
            [this, id] { table_->touch(id); },
            [this, id] { table_->modify(id, "much longer than before"); },
            [this] {
              table_->append_all(std::vector<std::string>{"a", "b"});
            },
            [this] { table_->writer().finish(); },
            [this] { table_->set_data("data"); },
            [this] { database_->add_table("second"); },
            [this] { database_->set_version(100); },
            [this, id] { table_->remove(id); }};
  }

  OtherProcess other_;  // before anything is opened here
  int there_ = 0;
  std::optional<qvdb::Database> database_;
  std::optional<qvdb::Table> table_;
};

TEST_F(TurnsTest, ASharedWriterWaitsForItsTurnFiveSecondsUnlessTheOpenerSaysOtherwise) {
  open(Mode::shared);
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  for (const auto& change : changes()) {
    const Pauses pauses;
    expectError(Reason::in_use, change);
    EXPECT_GE(pauses.microseconds(), 5'000'000u);
    EXPECT_LT(pauses.microseconds(), 5'010'000u);
  }
  database_.emplace(
      qvdb::Database::open(path(), {.mode = Mode::shared, .wait = std::chrono::milliseconds(300)}));
  const Pauses pauses;
  expectError(Reason::in_use, [&] { database_->table("t").add("x"); });
  EXPECT_GE(pauses.microseconds(), 300'000u);
  EXPECT_LT(pauses.microseconds(), 310'000u);
}

// Where signals end the pauses early, as where the system makes them longer.
TEST_F(TurnsTest, WhatIsWaitedIsTheTimeThatPasses) {
  open(Mode::shared);
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  static uint64_t now = 0;
  static int percent = 0;
  for (const int each : {10, 300}) {
    percent = each;
    ReplacedCalls calls;
    calls->microseconds = [] { return now; };
    calls->pause = [](uint64_t length) {
      now += length * static_cast<uint64_t>(percent) / 100 + 1;
    };
    const uint64_t begin = now;
    expectError(Reason::in_use, [&] { table_->add("x"); });
    EXPECT_GE(now - begin, 5'000'000u);
    EXPECT_LT(now - begin, 5'010'000u);
  }
}

TEST_F(TurnsTest, AWriterThatWaitsIsNextForAsLongAsItWaits) {
  open(Mode::shared);
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  const auto isNextHere = [this] {
    if (takeThere(LockByte::next, Sharing::exclusive) == kRefused) return true;
    releaseThere(LockByte::next, Sharing::exclusive);
    return false;
  };
  {
    const Pauses pauses([&] { EXPECT_TRUE(isNextHere()); });
    expectError(Reason::in_use, [&] { table_->add("in vain"); });
    EXPECT_FALSE(isNextHere());
  }
  {
    const Pauses pauses([&] {
      EXPECT_TRUE(isNextHere());
      releaseThere(LockByte::turn, Sharing::exclusive);
    });
    table_->add("as soon as the other has ended");
  }
  EXPECT_FALSE(isNextHere());
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  {
    const Pauses pauses([&] { database_->close(); });
    expectError(Reason::not_open, [&] { table_->add("closed meanwhile"); });
  }
  EXPECT_FALSE(isNextHere());
}

TEST_F(TurnsTest, AChildThatClosesLeavesTheWaitingOfItsParent) {
  open(Mode::shared);
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  const Pauses pauses([&] {
    EXPECT_EQ(inForkedChild([&] {
                database_->close();
                return 0;
              }),
              0);
    EXPECT_EQ(takeThere(LockByte::next, Sharing::exclusive), kRefused);
    releaseThere(LockByte::turn, Sharing::exclusive);
  });
  table_->add("as soon as the other has ended");
}

TEST_F(TurnsTest, ASharedWriterThatIsRefusedChangesNothing) {
  open(Mode::shared);
  const std::vector<std::function<void()>> all = changes();
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  const Bytes before = readFile(path());
  const Pauses pauses;
  for (const auto& change : all) expectError(Reason::in_use, change);
  EXPECT_TRUE(sameBytes(readFile(path()), before));
  releaseThere(LockByte::turn, Sharing::exclusive);
  for (const auto& change : all) change();
  EXPECT_EQ(table_->count(), 4u);
}

TEST_F(TurnsTest, EachOperationOfASharedWriterIsOneTurn) {
  open(Mode::shared);
  for (const auto& change : changes()) {
    EXPECT_TRUE(isTurnFree());
    bool wasHeld = false;
    {
      RecordedCalls host;
      host.observe([&](Call call) {
        if (call == Call::write) wasHeld = wasHeld || !isTurnFree();
      });
      change();
    }
    EXPECT_TRUE(wasHeld);
  }
  EXPECT_TRUE(isTurnFree());
}

TEST_F(TurnsTest, TheTurnOfAnOperationThatFailsEnds) {
  open(Mode::shared);
  {
    RecordedCalls host;
    for (const auto& change : changes()) {
      host.failFrom(Call::write, 0, EIO);
      EXPECT_THROW(change(), qvdb::Error);
      host.heal();
    }
  }
  expectError(Reason::bad_argument, [&] { table_->write(firstId(), 99, "x"); });
  EXPECT_TRUE(isTurnFree());
}

TEST_F(TurnsTest, ATableThatAnotherAddsBeforeTheTurnIsFound) {
  open(Mode::shared);
  const int16_t db = DatabaseTest::open(kDefaultFile, 4);
  ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
  uint64_t added = 0;
  {
    const Pauses pauses([&] {
      if (added == 0) added = addTable(db, "u");
      releaseThere(LockByte::turn, Sharing::exclusive);
    });
    EXPECT_EQ(database_->find_or_add_table("u").id().value, added);
  }
  EXPECT_EQ(database_->tables().size(), 2u);
}

TEST_F(TurnsTest, AnAppenderHasTheTurnUntilItIsFinishedOrDiscarded) {
  open(Mode::shared);
  {
    qvdb::BulkAppender appender = table_->appender();
    EXPECT_FALSE(isTurnFree());
    appender.add(qvdb::NewRecord("a"));
    table_->touch(firstId());  // the same writer may go on meanwhile
    EXPECT_FALSE(isTurnFree());
    appender.finish();
    EXPECT_TRUE(isTurnFree());
  }
  {
    qvdb::RecordWriter writer = table_->writer();
    writer.write("in pieces");
    EXPECT_FALSE(isTurnFree());
  }
  EXPECT_TRUE(isTurnFree());
  const qvdb::BulkAppender open = table_->appender();
  EXPECT_FALSE(isTurnFree());
  database_->close();
  EXPECT_TRUE(isTurnFree());
}

// By another thread, which has the turn of the file while this one waits.
TEST_F(TurnsTest, ABatchThatIsOpenedMeanwhileHasItsTurnUntilItEnds) {
  open(Mode::shared);
  const qvdb::Id id = firstId();
  const std::vector<std::function<void()>> joining = {
      [&] { table_->touch(id); }, [&] { table_->modify(id, "f"); },
      [&] { table_->write(id, 0, "F"); }, [&] { database_->set_version(100); }};
  const std::vector<std::function<void()>> waiting = {[&] { table_->add("x"); },
                                                      [&] { table_->set_data("data"); },
                                                      [&] { table_->appender().finish(); }};
  for (const auto* changes : {&joining, &waiting}) {
    for (const auto& change : *changes) {
      ASSERT_EQ(takeThere(LockByte::turn, Sharing::exclusive), kTaken);
      std::optional<qvdb::BulkAppender> appender;
      int waited = 0;
      {
        const Pauses pauses([&] {
          ++waited;
          if (waited == 1) releaseThere(LockByte::turn, Sharing::exclusive);
          if (waited == 1) appender.emplace(table_->appender());
          if (waited == 5) appender->finish();
        });
        change();
      }
      EXPECT_EQ(waited, changes == &joining ? 1 : 5);
      EXPECT_EQ(isTurnFree(), changes == &waiting);
      appender.reset();
      EXPECT_TRUE(isTurnFree());
    }
  }
}

TEST_F(TurnsTest, TwoSharedWritersOfOneProcessTakeTurnsToo) {
  open(Mode::shared);
  qvdb::Database second = openDatabase(Mode::shared);
  qvdb::Table same = second.table("t");
  qvdb::BulkAppender appender = table_->appender();
  appender.add(qvdb::NewRecord("a"));
  {
    const Pauses pauses;
    expectError(Reason::in_use, [&] { same.add("b"); });
  }
  appender.finish();
  same.add("b");
  table_->add("c");
  EXPECT_EQ(idsOf(*table_).size(), 4u);
}

TEST_F(TurnsTest, AWriterThatIsAloneTakesNoLock) {
  open(Mode::exclusive);
  for (const auto& change : changes()) {
    RecordedCalls host;
    change();
    EXPECT_EQ(host.count(Call::lock), 0);
    EXPECT_EQ(host.count(Call::findLock), 1);
  }
}

TEST_F(TurnsTest, AWriterKeepsAnnouncedReadersOutWhileItWrites) {
  open(Mode::exclusive);
  ASSERT_EQ(other_.announce(there_), 1);
  for (const auto& change : changes()) {
    int last = 0;
    {
      RecordedCalls host;
      host.observe([&](Call call) {
        if (call == Call::write) last = takeThere(LockByte::change, Sharing::shared);
        if (last == kTaken) releaseThere(LockByte::change, Sharing::shared);
      });
      change();
    }
    EXPECT_EQ(last, kRefused);
    EXPECT_EQ(takeThere(LockByte::change, Sharing::shared), kTaken);
    releaseThere(LockByte::change, Sharing::shared);
  }
}

// A reader in a thread of this process that took the lock of a look meanwhile would make that of
// the change one of its own.
TEST_F(TurnsTest, AWriterKeepsReadersInThreadsOutForAsLongAsItKeepsThoseInProcessesOut) {
  if (!kHasThreads) GTEST_SKIP() << "the library is built for one thread";
  open(Mode::shared);
  const qvdb::Reader reader = database_->reader();
  const auto* entry = platform::findOpenFile(database_->handle())->entry;
  ASSERT_EQ(other_.announce(there_), 1);
  for (const auto& change : changes()) {
    std::vector<bool> isExcluding;
    {
      RecordedCalls host;
      host.observe([&](Call call) {
        if (call == Call::lock || call == Call::findLock || call == Call::write) {
          isExcluding.push_back(entry->viewLooks != 0);
        }
      });
      change();
    }
    EXPECT_GE(isExcluding.size(), 6u);
    // Before it, whether another writer is next is asked, and the turn of writers is taken; that is
    // given up after it.
    EXPECT_FALSE(isExcluding.at(0));
    EXPECT_FALSE(isExcluding.at(1));
    EXPECT_FALSE(isExcluding.back());
    EXPECT_EQ(std::count(isExcluding.begin(), isExcluding.end(), false), 3);
  }
  EXPECT_EQ(entry->viewLooks, 0u);
}

TEST_F(TurnsTest, AWriterThatGivesUpLetsReadersInThreadsIn) {
  open(Mode::shared);
  const qvdb::Reader reader = database_->reader();
  ASSERT_EQ(other_.announce(there_), 1);
  ASSERT_EQ(takeThere(LockByte::change, Sharing::shared), kTaken);
  const Pauses pauses;
  expectError(Reason::in_use, [&] { table_->add("x"); });
  EXPECT_TRUE(isTurnFree());
  EXPECT_EQ(reader.table("t").count(), 1u);
}

TEST_F(TurnsTest, AWriterWaitsForAReaderWhoLooksAndClosesTheGateMeanwhile) {
  open(Mode::exclusive);
  ASSERT_EQ(other_.announce(there_), 1);
  ASSERT_EQ(takeThere(LockByte::change, Sharing::shared), kTaken);
  int gate = kTaken;
  {
    const Pauses pauses([&] {
      gate = takeThere(LockByte::gate, Sharing::shared);
      releaseThere(LockByte::change, Sharing::shared);
    });
    table_->add("x");
  }
  EXPECT_EQ(gate, kRefused);
  EXPECT_EQ(takeThere(LockByte::gate, Sharing::shared), kTaken);
  EXPECT_EQ(table_->count(), 2u);
}

TEST_F(TurnsTest, AWriterLetsAReaderLookThatAsksForIt) {
  open(Mode::exclusive);
  ASSERT_EQ(other_.announce(there_), 1);
  for (const auto& change : changes()) {
    ASSERT_EQ(takeThere(LockByte::waiting, Sharing::shared), kTaken);
    bool hasLooked = false;
    const Pauses pauses([&] {
      if (hasLooked) return;
      hasLooked = takeThere(LockByte::change, Sharing::shared) == kTaken;
      releaseThere(LockByte::waiting, Sharing::shared);
      releaseThere(LockByte::change, Sharing::shared);
    });
    change();
    EXPECT_TRUE(hasLooked);
  }
}

TEST_F(TurnsTest, AWriterWaitsOnceForAReaderThatAsksAndDoesNotLook) {
  open(Mode::exclusive);
  ASSERT_EQ(other_.announce(there_), 1);
  const auto waited = [this] {
    const Pauses pauses;
    table_->touch(firstId());
    return pauses.microseconds();
  };
  EXPECT_EQ(waited(), 0u);
  ASSERT_EQ(takeThere(LockByte::waiting, Sharing::shared), kTaken);
  EXPECT_GE(waited(), 20'000u);
  EXPECT_EQ(waited(), 0u);
  releaseThere(LockByte::waiting, Sharing::shared);
  EXPECT_EQ(waited(), 0u);
  ASSERT_EQ(takeThere(LockByte::waiting, Sharing::shared), kTaken);
  EXPECT_GE(waited(), 20'000u);
}

// With a cache, the answer that there is no reader holds for a while.
TEST_F(TurnsTest, AWriterThatOpensItsFileAgainAsksAnewForReaders) {
  open(Mode::exclusive);
  const qvdb::Cache cache = database_->cache();
  const Pauses pauses;
  table_->add("while there is no reader");
  table_->add("while the answer holds");
  if (cache.bytes() == 0) GTEST_SKIP() << "this host, or this build, has no caches";
  ASSERT_EQ(other_.announce(there_), 1);
  ASSERT_EQ(takeThere(LockByte::change, Sharing::shared), kTaken);
  table_->add("while the answer still holds");
  database_->reopen();
  expectError(Reason::in_use, [&] { table_->add("beside a reader"); });
}

TEST_F(TurnsTest, AWriterGivesUpWhenAReaderNeverEndsItsLook) {
  open(Mode::exclusive);
  ASSERT_EQ(other_.announce(there_), 1);
  const std::vector<std::function<void()>> all = changes();
  ASSERT_EQ(takeThere(LockByte::change, Sharing::shared), kTaken);
  const Pauses pauses;
  for (const auto& change : all) expectError(Reason::in_use, change);
  EXPECT_EQ(takeThere(LockByte::gate, Sharing::shared), kTaken);
}

}  // namespace
}  // namespace qvdbase::test
