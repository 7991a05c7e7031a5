// Reading beside writers: announcing, looks, and what is made of a file that changes meanwhile.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

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
using qvdb::Order;
using qvdb::Reason;

constexpr int kTaken = static_cast<int>(LockOutcome::taken);

// Another process has the database open for writing, and takes the bytes by hand.
class LooksTest : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    {
      qvdb::Database database = createDatabase();
      qvdb::Table table = database.add_table("t");
      for (int i = 0; i < 9; ++i) ids_.push_back(table.add("payload " + std::to_string(i)));
      table.set_data("data");
    }
    there_ = other_.open(folder.wide(kDefaultFile), 4);
    ASSERT_NE(there_, 0);
  }

  void read(Mode mode = Mode::read_only) {
    database_.emplace(openDatabase(mode));
    table_.emplace(database_->table("t"));
    record_ = table_->find(ids_[4]);
  }

  bool isAnnounced() {
    if (other_.takeByte(there_, LockByte::reader, Sharing::exclusive) != kTaken) return true;
    other_.releaseByte(there_, LockByte::reader, Sharing::exclusive);
    return false;
  }

  // Every operation that reads, once.
  std::vector<std::function<void()>> readings() {
    return {[this] { database_->info(); },
            [this] { database_->tables(); },
            [this] { database_->find_table("t"); },
            [this] { database_->find_table(table_->id()); },
            [this] { table_->info(); },
            [this] { table_->count(); },
            [this] { table_->first(); },
            [this] { table_->last(); },
            [this] { table_->find(ids_[4]); },
            [this] { table_->get(ids_[4]); },
            [this] {
              std::vector<std::byte> buffer(4);
              table_->get(ids_[4], buffer);
            },
            [this] { record_->payload(); },
            [this] {
              std::vector<std::byte> buffer(4);
              record_->read(2, buffer);
            },
            [this] { idsOf(*table_); },
            [this] { table_->data_size(); },
            [this] { table_->data(); },
            [this] { qvdb::check_ends(*database_, table_->id()); },
            [this] {
              std::vector<std::byte> buffer(4);
              table_->read_data(1, buffer);
            }};
  }

  OtherProcess other_;  // before anything is opened here
  int there_ = 0;
  std::vector<qvdb::Id> ids_;
  std::optional<qvdb::Database> database_;
  std::optional<qvdb::Table> table_;
  std::optional<qvdb::Record> record_;
};

TEST_F(LooksTest, AReaderIsAnnouncedForAsLongAsItHasTheDatabaseOpen) {
  for (const Mode mode : {Mode::read_only, Mode::shared, Mode::any}) {
    EXPECT_FALSE(isAnnounced());
    {
      qvdb::Database database = openDatabase(mode);
      EXPECT_TRUE(isAnnounced());
      const qvdb::Database moved = std::move(database);
      const qvdb::Database second = openDatabase(Mode::read_only);
      EXPECT_TRUE(isAnnounced());
    }
    EXPECT_FALSE(isAnnounced());
    qvdb::Database database = openDatabase(mode);
    database.reopen();
    EXPECT_TRUE(isAnnounced());
    database.close();
    EXPECT_FALSE(isAnnounced());
  }
  qvdb::Database::inspect(path());
  EXPECT_FALSE(isAnnounced());
}

TEST_F(LooksTest, AnExclusiveOpenerNeitherAnnouncesItselfNorLooks) {
  ASSERT_EQ(other_.close(there_), 1);
  read(Mode::exclusive);
  there_ = other_.open(folder.wide(kDefaultFile), 1);
  EXPECT_EQ(other_.takeByte(there_, LockByte::reader, Sharing::shared), kTaken);
  for (const auto& reading : readings()) {
    RecordedCalls host;
    reading();
    EXPECT_EQ(host.count(Call::lock), 0);
    EXPECT_EQ(host.count(Call::findLock), 0);
  }
}

TEST_F(LooksTest, EveryReadIsWithinALook) {
  for (const Mode mode : {Mode::read_only, Mode::shared}) {
    read(mode);
    for (const auto& reading : readings()) {
      int reads = 0;
      int changes = 0;
      {
        RecordedCalls host;
        host.observe([&](Call call) {
          if (call != Call::read) return;
          ++reads;
          if (other_.takeByte(there_, LockByte::change, Sharing::exclusive) != kTaken) return;
          other_.releaseByte(there_, LockByte::change, Sharing::exclusive);
          ++changes;
        });
        reading();
      }
      EXPECT_GT(reads, 0);
      EXPECT_EQ(changes, 0);
      EXPECT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
      other_.releaseByte(there_, LockByte::change, Sharing::exclusive);
    }
  }
}

// The lock of a look belongs to the process and keeps no writer of it out: what does so begins
// before that lock is asked for, and ends after it has been given up.
TEST_F(LooksTest, AReaderInAThreadExcludesWritersOfItsProcessDuringEachOfItsCalls) {
  if (!kHasThreads) GTEST_SKIP() << "the library is built for one thread";
  for (const Mode mode : {Mode::read_only, Mode::shared}) {
    read(mode);
    const qvdb::Reader reader = database_->reader();
    const auto* entry = platform::findOpenFile(database_->handle())->entry;
    int locks = 0;
    {
      RecordedCalls host;
      host.observe([&](Call call) {
        // Where locks belong to the process, the announcement is renewed before a look begins.
        if (call == Call::lock && entry->viewLooks == 1u) ++locks;
        if (call == Call::read) {
          EXPECT_EQ(entry->viewLooks, 1u);
        }
      });
      EXPECT_EQ(reader.table("t").get(ids_[4]).has_value(), true);
    }
    EXPECT_EQ(locks, 4);  // two looks
    EXPECT_EQ(entry->viewLooks, 0u);
  }
}

TEST_F(LooksTest, AReaderInAThreadLetsWritersOfItsProcessThroughWhileItWaits) {
  read(Mode::shared);
  const qvdb::Reader reader = database_->reader();
  qvdb::Table read = reader.table("t");
  const auto* entry = platform::findOpenFile(database_->handle())->entry;
  ASSERT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
  const Pauses pauses([&] {
    EXPECT_EQ(entry->viewLooks, 0u);
    other_.releaseByte(there_, LockByte::change, Sharing::exclusive);
  });
  EXPECT_EQ(read.count(), 9u);
  EXPECT_GT(pauses.microseconds(), 0u);
}

TEST_F(LooksTest, AReaderWaitsForAChangeToEnd) {
  read();
  for (const auto& reading : readings()) {
    ASSERT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
    const Pauses pauses([&] { other_.releaseByte(there_, LockByte::change, Sharing::exclusive); });
    reading();
    EXPECT_GT(pauses.microseconds(), 0u);
  }
}

// A change, the time that an earlier one has, and that which what looks like damage has.
TEST_F(LooksTest, WhileAReaderWaitsOtherThreadsHaveTheTurnOfItsFile) {
  if (!kHasThreads) GTEST_SKIP() << "the library is built for one thread";
  const auto isTurnFree = [this] {
    return platform::findOpenFile(database_->handle())->turn->owner.load() == nullptr;
  };
  database_.emplace(openDatabase(Mode::shared));
  const Pauses pauses([&] {
    EXPECT_TRUE(isTurnFree());
    other_.releaseByte(there_, LockByte::change, Sharing::exclusive);
  });
  const qvdb::Table read = database_->table("t");
  ASSERT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
  const uint64_t before = pauses.microseconds();
  EXPECT_EQ(read.count(), 9u);
  EXPECT_GT(pauses.microseconds(), before);
}

TEST_F(LooksTest, ADatabaseThatIsClosedOrOpenedAgainWhileAReaderWaitsIsNotReadOn) {
  read();
  for (const bool isOpenedAgain : {true, false}) {
    ASSERT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
    int paused = 0;
    const Pauses pauses([&] {
      if (++paused != 1) return;
      other_.releaseByte(there_, LockByte::change, Sharing::exclusive);
      isOpenedAgain ? database_->reopen() : database_->close();
    });
    expectError(Reason::not_open, [&] { table_->count(); });
  }
}

TEST_F(LooksTest, AReaderThatWaitsAsksWritersForALook) {
  read(Mode::shared);
  const qvdb::Reader reader = database_->reader();
  const qvdb::Table viewed = reader.table("t");
  const auto isAsked = [this] {
    if (other_.takeByte(there_, LockByte::waiting, Sharing::exclusive) != kTaken) return true;
    other_.releaseByte(there_, LockByte::waiting, Sharing::exclusive);
    return false;
  };
  for (const qvdb::Table& each : {*table_, viewed}) {
    EXPECT_FALSE(isAsked());
    ASSERT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
    {
      const Pauses pauses([&] {
        EXPECT_TRUE(isAsked());
        other_.releaseByte(there_, LockByte::change, Sharing::exclusive);
      });
      each.count();
      EXPECT_GT(pauses.microseconds(), 0u);
    }
    EXPECT_FALSE(isAsked());
  }
  ASSERT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
  {
    const Pauses pauses;
    expectError(Reason::in_use, [&] { table_->count(); });
  }
  EXPECT_FALSE(isAsked());
  const Pauses pauses([&] { database_->close(); });
  expectError(Reason::not_open, [&] { table_->count(); });
  EXPECT_FALSE(isAsked());
}

TEST_F(LooksTest, AReaderGivesUpWhenAChangeNeverEnds) {
  read();
  ASSERT_EQ(other_.takeByte(there_, LockByte::change, Sharing::exclusive), kTaken);
  for (const auto& reading : readings()) {
    const Pauses pauses;
    expectError(Reason::in_use, reading);
    EXPECT_GE(pauses.microseconds(), 5'000'000u);
  }
}

// A change that began before knows nothing of the reader.
TEST_F(LooksTest, TheFirstLookBesideAWriterWaitsForWhatBeganBefore) {
  {
    const Pauses pauses;
    read();
    EXPECT_GE(pauses.microseconds(), 20'000u);
  }
  const Pauses pauses;
  table_->count();
  EXPECT_EQ(pauses.microseconds(), 0u);
  ASSERT_EQ(other_.close(there_), 1);
  read();
  EXPECT_EQ(pauses.microseconds(), 0u);
}

// Those who write know of the database since then, and so of its readers.
TEST_F(LooksTest, AReaderOfADatabaseThatHasWaitedDoesNotWaitAgain) {
  const Pauses pauses;
  {
    const qvdb::Database database = openDatabase(Mode::read_only);
    const qvdb::Reader reader = database.reader();
    reader.table("t").count();
    EXPECT_GE(pauses.microseconds(), 20'000u);
  }
  read();
  const uint64_t before = pauses.microseconds();
  const qvdb::Reader reader = database_->reader();
  reader.table("t").count();
  EXPECT_EQ(pauses.microseconds(), before);
}

TEST_F(LooksTest, ADatabaseThatIsOpenedAgainDoesNotWaitAgainUnlessItsFileIsAnother) {
  read();
  table_->count();
  const Pauses pauses([this] { EXPECT_TRUE(isAnnounced()); });
  database_->reopen();
  table_->count();
  EXPECT_EQ(pauses.microseconds(), 0u);
  ASSERT_EQ(other_.close(there_), 1);
  std::filesystem::copy_file(path(), path("copy"));
  std::filesystem::rename(path("copy"), path());
  there_ = other_.open(folder.wide(kDefaultFile), 4);
  database_->reopen();
  EXPECT_GE(pauses.microseconds(), 20'000u);
  database_->close();
  EXPECT_FALSE(isAnnounced());
}

TEST_F(LooksTest, WhereLocksDoNotWorkAReaderReadsOnWithoutThem) {
  RecordedCalls host;
  host.failFrom(Call::lock, 0, ENOLCK);
  read();
  EXPECT_EQ(idsOf(*table_).size(), 9u);
}

// ---- what changes meanwhile. Writer and reader are in one process: the reader knows no more ----

class ChangesBesideTest : public LayerTest {
 protected:
  ChangesBesideTest() : writer_(createDatabase()), written_(writer_.add_table("t")) {
    for (size_t i = 0; i < kRecords; ++i) ids_.push_back(written_.add("payload").value);
    reader_ = openDatabase(Mode::read_only);
    table_.emplace(reader_.table("t"));
  }

  void remove(size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) EXPECT_TRUE(written_.remove(qvdb::Id{ids_[i]}));
  }

  // The identifiers that a walk delivers, of which it has delivered two when `change` happens.
  template <typename Change>
  std::vector<uint64_t> walk(Order order, Change change) {
    std::vector<uint64_t> ids;
    for (const qvdb::Record& record : table_->records({.order = order})) {
      ids.push_back(record.id().value);
      if (ids.size() == 2) change();
    }
    return ids;
  }

  static constexpr size_t kRecords = 40;
  qvdb::Database writer_;
  qvdb::Table written_;
  std::vector<uint64_t> ids_;
  qvdb::Database reader_;
  std::optional<qvdb::Table> table_;
};

TEST_F(ChangesBesideTest, AWalkEndsWhereTheChainEndsNow) {
  EXPECT_EQ(walk(Order::oldest_first, [&] { remove(30, 40); }).size(), 30u);
  ids_.resize(30);
  EXPECT_EQ(walk(Order::newest_first, [&] { remove(0, 10); }).size(), 20u);
}

TEST_F(ChangesBesideTest, AWalkPassesAllThatWereThereAllTheTimeAndNoneTwice) {
  const auto change = [&] {
    remove(2, 20);
    written_.modify(qvdb::Id{ids_[20]}, "a payload that needs a new block");
    for (int i = 0; i < 30; ++i) written_.add("later");
    remove(38, 39);
  };
  const std::vector<uint64_t> found = walk(Order::oldest_first, change);
  EXPECT_LE(found.size(), kRecords);
  for (size_t i = 0; i < kRecords; ++i) {
    const auto times = std::count(found.begin(), found.end(), ids_[i]);
    const bool wasThere = i < 2 || (i >= 20 && i != 38);
    EXPECT_TRUE(times == 1 || (!wasThere && times == 0)) << i << " " << times;
  }
}

// What was read ahead ends with the fourth record, and the one after it is deleted too. From there
// the chain leads on as it was when that one left it.
TEST_F(ChangesBesideTest, AWalkGoesOnFromADeletedRecord) {
  std::vector<uint64_t> found = walk(Order::oldest_first, [&] { remove(0, 10); });
  EXPECT_EQ(found.size(), 40u);
  EXPECT_EQ(found.back(), ids_[39]);
  found = walk(Order::newest_first, [&] { remove(30, 40); });
  EXPECT_EQ(found.size(), 4u + 1u + 20u);
  EXPECT_EQ(found.back(), ids_[10]);
}

TEST_F(ChangesBesideTest, TablesThatOthersAddAreFound) {
  writer_.add_table("second").add("x");
  EXPECT_EQ(reader_.tables().size(), 2u);
  EXPECT_EQ(reader_.table("second").count(), 1u);
  EXPECT_EQ(reader_.info().table_count, 2);
}

// A chain that is damaged is still damaged beside a writer.
TEST_F(ChangesBesideTest, AChainThatEndsEarlyInAFileThatChangesIsDamagedNevertheless) {
  expectDamage();
  const int64_t middle = written_.find(qvdb::Id{ids_[19]})->info().position;
  Bytes file = readFile(path());
  for (int i = 0; i < 8; ++i) file[static_cast<size_t>(middle) + 39 + static_cast<size_t>(i)] = 0;
  {
    std::fstream out(path(), std::ios::in | std::ios::out | std::ios::binary);
    out.write(reinterpret_cast<const char*>(file.data()),
              static_cast<std::streamsize>(file.size()));
  }
  expectError(Reason::chain_damaged,
              [&] { walk(Order::oldest_first, [&] { written_.add("later"); }); });
}

// ---- what contradicts itself, beside a writer that takes no part in the looks ----

// The slot counts one record more than the chain has, as in the middle of a deletion.
class ContradictionTest : public LooksTest {
 protected:
  void SetUp() override {
    LooksTest::SetUp();
    read();
    setCount(10);
  }

  // In the first slot, at 22, which begins with its mark and has the count at 60, little-endian.
  void setMark(uint8_t mark) const { setByte(22, mark); }
  void setCount(uint8_t count) const { setByte(22 + 60, count); }
  void setCountWritten(uint8_t count) const { setByte(22 + 64, count); }

  void setByte(int position, uint8_t byte) const {
    std::fstream out(path(), std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(position);
    out.put(static_cast<char>(byte));
  }
};

TEST_F(ContradictionTest, IsNoDamageWhenASecondLookFindsNone) {
  const Pauses pauses([&] { setCount(9); });
  EXPECT_EQ(idsOf(*table_).size(), 9u);
  EXPECT_GE(pauses.microseconds(), 20'000u);
}

TEST_F(ContradictionTest, IsWaitedForWithoutTheTurnOfTheFile) {
  const auto* turn = platform::findOpenFile(database_->handle())->turn;
  const Pauses pauses([&] {
    EXPECT_EQ(turn->owner.load(), nullptr);
    setCount(9);
  });
  EXPECT_EQ(idsOf(*table_).size(), 9u);
}

TEST_F(ContradictionTest, IsDamageWhenASecondLookFindsTheSame) {
  expectDamage();
  const Pauses pauses;
  expectError(Reason::chain_damaged, [&] { idsOf(*table_); });
}

TEST_F(ContradictionTest, IsAChangeWhenEveryLookFindsSomethingElse) {
  expectDamage();
  uint8_t mark = 0;
  setMark(mark);
  const Pauses pauses([&] { setMark(++mark); });
  expectError(Reason::changed_meanwhile, [&] { table_->count(); });
}

TEST_F(ContradictionTest, IsDamageBesideAWriterOfAnotherTable) {
  expectDamage();
  uint8_t byte = 0;
  const Pauses pauses([&] { setByte(22 + 2 * 144, ++byte); });
  expectError(Reason::chain_damaged, [&] { idsOf(*table_); });
}

TEST_F(ContradictionTest, IsDamageWhenEveryLookFindsItAtTheSameRecord) {
  expectDamage();
  setCount(9);
  const auto records = database().tables.at(0).records;
  setByte(static_cast<int>(records.at(4).position), 0);  // the mark of a block
  uint8_t count = 10;
  const Pauses pauses([&] { setCountWritten(++count); });
  expectError(Reason::chain_damaged, [&] { idsOf(*table_); });
}

TEST_F(ContradictionTest, IsNoneAtTheEndsWhenASecondLookFindsNone) {
  setCount(0);
  const Pauses pauses([&] { setCount(9); });
  qvdb::check_ends(*database_, table_->id());
  EXPECT_GE(pauses.microseconds(), 20'000u);
}

// The directory is another one at each look, as beside a writer that never rests.
TEST_F(ContradictionTest, IsNoneWhereARecordIsMissing) {
  setCount(9);
  uint8_t count = 9;
  const Pauses pauses([&] { setCountWritten(++count); });
  expectError(Reason::record_missing, [&] {
    qvdb::RecordRange walk = table_->records_after(qvdb::Id{12345});
    walk.begin();
  });
}

TEST_F(ContradictionTest, IsDamageAtOnceInAFileThatNoneElseWrites) {
  expectDamage();
  ASSERT_EQ(other_.close(there_), 1);
  const Pauses pauses;
  expectError(Reason::chain_damaged, [&] { idsOf(*table_); });
  EXPECT_EQ(pauses.microseconds(), 0u);
}

}  // namespace
}  // namespace qvdbase::test
