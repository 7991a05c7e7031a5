// Database::reclaimable_estimate, and OpenOptions::compact_when: how much of a file is dead, and
// when a database is compacted by itself.
#include <cmath>
#include <csignal>
#include <limits>
#include <random>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::CompactWhen;
using qvdb::Database;
using qvdb::Durability;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;

constexpr CompactWhen kAtHalf{.dead_part = 0.5, .dead_bytes = 1};

class CompactWhenDue : public LayerTest {
 protected:
  Database openWith(const CompactWhen& when) {
    return Database::open(path(), {.mode = Mode::exclusive, .compact_when = when});
  }

  // Records 1 to 8 of 944 bytes, of 1000 each with their headers, of which the last so many are
  // deleted.
  void putRecords(uint64_t deleted) {
    auto database = Database::create(path(), {.overwrite = true});
    auto table = database.add_table("t");
    for (uint64_t i = 1; i <= 8; ++i) table.add_with_id(Id{i}, std::string(944, char('a' + i)));
    for (uint64_t i = 0; i < deleted; ++i) table.remove(Id{8 - i});
  }

  static constexpr uint64_t kWhole = 4630 + 8 * 1000;

  // What a compaction would gain.
  static uint64_t exactly(Database& database) {
    const qvdb::CompactReport report = database.compact({}, {.dry_run = true});
    return report.size_before - report.size_after;
  }

  void expectRecords(uint64_t count) {
    auto database = openDatabase(Mode::read_only);
    auto table = database.table("t");
    ASSERT_EQ(table.count(), count);
    for (uint64_t i = 1; i <= count; ++i) {
      EXPECT_EQ(bytes(table.get(Id{i})), Bytes(944, static_cast<uint8_t>('a' + i)));
    }
  }
};

// ---- the estimate ----

TEST_F(CompactWhenDue, CountsDeadBytes) {
  putRecords(3);
  for (const Mode mode : {Mode::exclusive, Mode::shared, Mode::read_only}) {
    EXPECT_EQ(openDatabase(mode).reclaimable_estimate(), 3000u);
  }
  EXPECT_EQ(Database::create(path("new.qvd")).reclaimable_estimate(), 0u);
  expectError(Reason::not_open, [] { return Database().reclaimable_estimate(); });
}

// Also of the blocks that transactions leave.
TEST_F(CompactWhenDue, CountsWhatACompactionGainsAfterEachOperation) {
  for (const Durability durability : {Durability::process, Durability::power}) {
    putRecords(1);
    auto database = Database::open(path(), {.mode = Mode::exclusive, .durability = durability});
    auto table = database.table("t");
    EXPECT_EQ(database.reclaimable_estimate(), 1000u);
    const auto expectExact = [&](const char* what) {
      EXPECT_EQ(database.reclaimable_estimate(), exactly(database)) << what;
    };
    table.add(std::string("added"), 100);
    expectExact("add");
    table.modify(Id{1}, std::string(900, 'x'));
    expectExact("modify in place");
    table.modify(Id{1}, std::string(2000, 'x'));
    expectExact("modify in a new block");
    table.modify(Id{1}, std::string(10, 'x'));
    table.modify(Id{1}, std::string(3000, 'x'));
    expectExact("modify a block with capacity to spare");
    table.write(Id{2}, 10, std::string("part"));
    table.touch(Id{2});
    expectExact("write and touch");
    table.remove(Id{3});
    expectExact("remove");
    table.set_data(std::string("data"));
    expectExact("set data");
    table.set_data(std::string("date"));
    expectExact("set data in place");
    table.set_data(std::string(500, 'd'), 600);
    expectExact("set data in a new block");
    table.append_all(std::vector<std::string>(20, "many"));
    expectExact("append many");
    database.add_table("u").add(std::string("x"));
    expectExact("add a table");
    table.appender().add(std::string("discarded"));
    expectExact("discard a batch");
    table.add(std::string("p"), qvdb::Checksum::yes);
    expectExact("add with a checksum");
    database.transaction([&](qvdb::Transaction&) {
      table.modify(Id{2}, std::string(10, 'y'));
      table.modify(Id{2}, std::string(2000, 'y'));
      const Id made = table.add(std::string("made"));
      table.remove(made);
      table.set_data(std::string("less"));
      table.remove(Id{4});
    });
    expectExact("commit");
    const uint64_t before = database.reclaimable_estimate();
    {
      qvdb::Transaction rolledBack = database.begin();
      table.remove(Id{5});
      table.modify(Id{6}, std::string(5000, 'z'));
      EXPECT_GT(database.reclaimable_estimate(), before);
    }
    EXPECT_EQ(database.reclaimable_estimate(), before);
    expectExact("roll back");
    database.compact();
    EXPECT_EQ(database.reclaimable_estimate(), 0u);
    expectExact("compact");
    table.remove(Id{6});
    expectExact("remove after compacting");
    database.reopen();
    expectExact("reopen");
    EXPECT_EQ(openDatabase(Mode::read_only).reclaimable_estimate(), exactly(database));
  }
}

TEST_F(CompactWhenDue, CountsTheSameThroughRandomOperations) {
  std::mt19937_64 random(randomSeed());
  const auto upTo = [&](uint64_t most) { return random() % (most + 1); };
  putRecords(2);
  auto database = openDatabase();
  ASSERT_EQ(database.reclaimable_estimate(), 2000u);
  auto table = database.table("t");
  const auto any = [&]() -> Id {
    const std::vector<uint64_t> ids = idsOf(table);
    return ids.empty() ? table.add(std::string("first")) : Id{ids[upTo(ids.size() - 1)]};
  };
  const auto operate = [&] {
    const std::string bytes(upTo(3000), 'r');
    switch (upTo(6)) {
      case 0:
        table.add(bytes, static_cast<uint32_t>(upTo(100)), qvdb::Checksum::yes);
        break;
      case 1:
        table.append_all(std::vector<std::string>(upTo(5), bytes));
        break;
      case 2:
        table.remove(any());
        break;
      case 3:
        table.set_data(bytes, static_cast<uint32_t>(upTo(3000)));
        break;
      case 4:
        table.touch(any());
        break;
      default:
        table.modify(any(), bytes);
    }
  };
  for (int i = 0; i < 150; ++i) {
    if (upTo(3) != 0) {
      operate();
    } else {
      qvdb::Transaction transaction = database.begin();
      for (uint64_t left = upTo(6); left > 0; --left) operate();
      if (upTo(2) != 0) transaction.commit();
    }
    ASSERT_EQ(database.reclaimable_estimate(), exactly(database)) << "after step " << i;
    if (upTo(40) == 0) database.compact();
  }
}

// Its first blocks go to the file before the others are known.
TEST_F(CompactWhenDue, CountsWhatATransactionLeavesThatDoesNotFitIntoMemory) {
  putRecords(2);
  auto database = openDatabase();
  ASSERT_EQ(database.reclaimable_estimate(), 2000u);
  auto table = database.table("t");
  for (const bool isCommitted : {false, true}) {
    qvdb::Transaction transaction = database.begin();
    for (int i = 0; i < 3; ++i) table.add(std::string(9'000'000, 'l'));
    table.remove(Id{1});
    if (isCommitted) transaction.commit();
  }
  EXPECT_GT(database.reclaimable_estimate(), 3000u);
  EXPECT_EQ(database.reclaimable_estimate(), exactly(database));
}

TEST_F(CompactWhenDue, CountsNothingMoreThanOnce) {
  putRecords(2);
  auto database = openDatabase();
  EXPECT_EQ(database.reclaimable_estimate(), 2000u);
  database.table("t").remove(Id{1});
  RecordedCalls host;
  EXPECT_EQ(database.reclaimable_estimate(), 3000u);
  EXPECT_EQ(host.count(Call::read), 0);
}

TEST_F(CompactWhenDue, CountsNothingInADamagedFile) {
  putRecords(0);
  Bytes file = contents();
  file[4630] = 0;
  writeFile(path(), file);
  allowDamage();
  auto database = openDatabase();
  expectError(Reason::chain_damaged, [&] { return database.reclaimable_estimate(); });
}

TEST_F(CompactWhenDue, CountsNoOpenBatch) {
  putRecords(2);
  auto database = openDatabase();
  {
    auto batch = database.table("t").appender();
    batch.add(std::string("x"));
    expectError(Reason::appender_open, [&] { return database.reclaimable_estimate(); });
  }
  EXPECT_EQ(database.reclaimable_estimate(), 2000u);
}

// ---- at opening ----

TEST_F(CompactWhenDue, CompactsWhatIsOpenedFromBothLimitsOn) {
  const double part = 4000.0 / kWhole;
  struct Case {
    CompactWhen when;
    bool isDue;
  };
  for (const Case& each : std::vector<Case>{{{.dead_part = part, .dead_bytes = 4000}, true},
                                            {{.dead_part = part, .dead_bytes = 4001}, false},
                                            {{.dead_part = part + 0.001, .dead_bytes = 1}, false},
                                            {{.dead_part = 0.001, .dead_bytes = 0}, true},
                                            {{.dead_part = 0, .dead_bytes = 0}, false},
                                            {{.dead_part = 0.001}, false},
                                            {{}, false}}) {
    putRecords(4);
    ASSERT_EQ(fileSize(), kWhole);
    auto database = openWith(each.when);
    EXPECT_EQ(fileSize(), each.isDue ? kWhole - 4000 : kWhole)
        << each.when.dead_part << ", " << each.when.dead_bytes;
    EXPECT_EQ(database.reclaimable_estimate(), each.isDue ? 0u : 4000u);
    EXPECT_TRUE(database.is_current());
    database.table("t").add_with_id(Id{5}, std::string(944, 'f'));
    database.close();
    expectRecords(5);
  }
}

TEST_F(CompactWhenDue, CompactsNothingThatHasNothingDead) {
  putRecords(0);
  const Bytes before = contents();
  RecordedCalls host;
  openWith({.dead_part = std::numeric_limits<double>::min(), .dead_bytes = 0});
  EXPECT_EQ(host.count(Call::rename), 0);
  EXPECT_TRUE(sameBytes(contents(), before));
}

// Not even the headers of its records are read.
TEST_F(CompactWhenDue, WalksOverNoFileThatIsTooSmall) {
  putRecords(8);
  const auto readsOf = [&](const CompactWhen& when) {
    RecordedCalls host;
    auto database = openWith(when);
    return host.count(Call::read);
  };
  const int withoutWalk = readsOf({.dead_part = 0.99, .dead_bytes = 8001});
  // One of the header; without windows one of each field of it.
  EXPECT_LE(withoutWalk, readsOf({}) + 6);
  EXPECT_GT(readsOf({.dead_part = 0.99, .dead_bytes = 8000}), withoutWalk);
}

TEST_F(CompactWhenDue, CreatesAndCompactsNothingThen) {
  auto database = Database::open(
      path(), {.mode = Mode::exclusive, .create = true, .compact_when = {.dead_part = 0.1}});
  EXPECT_EQ(database.reclaimable_estimate(), 0u);
}

TEST_F(CompactWhenDue, WorksWithEverythingElseThatOpeningIsAskedFor) {
  putRecords(8);
  auto database = Database::open(path(), {.mode = Mode::exclusive,
                                          .check = true,
                                          .cache = 100'000,
                                          .checksums = true,
                                          .durability = Durability::power,
                                          .compact_when = kAtHalf});
  EXPECT_EQ(fileSize(), 4630u);
  auto table = database.table("t");
  const Id added = table.add(std::string("x"));
  EXPECT_EQ(table.find(added)->verify(), qvdb::PayloadState::verified);
  EXPECT_EQ(bytes(table.get(added)), bytesOf("x"));
}

TEST_F(CompactWhenDue, IsForExclusiveDatabasesAndPartsOfOne) {
  putRecords(8);
  for (const Mode mode : {Mode::any, Mode::read_only, Mode::shared}) {
    expectError(Reason::bad_argument,
                [&] { Database::open(path(), {.mode = mode, .compact_when = kAtHalf}); });
  }
  for (const double part : {-0.1, 1.1, std::nan(""), std::numeric_limits<double>::infinity()}) {
    expectError(Reason::bad_argument, [&] { openWith({.dead_part = part}); });
  }
  EXPECT_EQ(fileSize(), kWhole);
}

// ---- in close() ----

TEST_F(CompactWhenDue, CompactsWhatIsClosed) {
  putRecords(0);
  auto database = openWith(kAtHalf);
  auto table = database.table("t");
  for (uint64_t i = 8; i > 1; --i) table.remove(Id{i});
  EXPECT_EQ(fileSize(), kWhole) << "not within other operations";
  database.close();
  EXPECT_EQ(fileSize(), 5630u);
  EXPECT_FALSE(database.is_open());
  database.close();
  expectRecords(1);
}

TEST_F(CompactWhenDue, CompactsNothingAtOtherEnds) {
  putRecords(0);
  {
    auto database = openWith(kAtHalf);
    auto table = database.table("t");
    for (uint64_t i = 8; i > 1; --i) table.remove(Id{i});
    database.reopen();
    EXPECT_EQ(fileSize(), kWhole);
    auto moved = std::move(database);
  }
  EXPECT_EQ(fileSize(), kWhole);
}

TEST_F(CompactWhenDue, KeepsIndexesThatAreWrittenThen) {
  putRecords(0);
  {
    auto database = openWith(kAtHalf);
    auto table = database.table("t");
    const qvdb::RecordIndex index = table.index({.kept = true});
    for (uint64_t i = 8; i > 1; --i) table.remove(Id{i});
    database.close();
  }
  EXPECT_EQ(fileSize(), 5630u);
  auto database = openDatabase(Mode::read_only);
  auto table = database.table("t");
  const qvdb::RecordIndex index = table.index({.kept = true});
  EXPECT_EQ(bytes(table.get(Id{1})), Bytes(944, 'b'));
  EXPECT_TRUE(index.is_from_file());
}

TEST_F(CompactWhenDue, TakesBackWhatIsOpenInsteadOfCompacting) {
  for (const bool isBatch : {true, false}) {
    putRecords(0);
    auto database = openWith(kAtHalf);
    auto table = database.table("t");
    for (uint64_t i = 8; i > 1; --i) table.remove(Id{i});
    std::optional<qvdb::BulkAppender> batch;
    std::optional<qvdb::Transaction> transaction;
    if (isBatch) {
      batch.emplace(table.appender()).add(std::string("x"));
    } else {
      transaction.emplace(database.begin());
      table.remove(Id{1});
    }
    database.close();
    batch.reset();
    transaction.reset();
    EXPECT_EQ(fileSize(), kWhole);
    expectRecords(1);
  }
}

TEST_F(CompactWhenDue, LeavesTheFileToTheParentOfAFork) {
  putRecords(0);
  auto database = openWith(kAtHalf);
  auto table = database.table("t");
  for (uint64_t i = 8; i > 1; --i) table.remove(Id{i});
  EXPECT_EQ(inForkedChild([&] {
              database.close();
              return 0;
            }),
            0);
  EXPECT_EQ(fileSize(), kWhole);
  EXPECT_TRUE(database.is_current());
  database.close();
  EXPECT_EQ(fileSize(), 5630u);
}

// ---- failures ----

TEST_F(CompactWhenDue, OpensAndClosesADamagedFile) {
  putRecords(4);
  Bytes file = contents();
  file[4630 + 1000] = 0;
  writeFile(path(), file);
  allowDamage();
  auto database = openWith(kAtHalf);
  EXPECT_EQ(bytes(database.table("t").get(Id{1})), Bytes(944, 'b'));
  database.close();
  EXPECT_TRUE(sameBytes(contents(), file));
}

TEST_F(CompactWhenDue, OpensAndClosesWhatCannotBeReplaced) {
  putRecords(8);
  std::filesystem::create_hard_link(path(), path("hard.qvd"));
  auto database = openWith(kAtHalf);
  EXPECT_EQ(database.reclaimable_estimate(), 8000u);
  expectError(Reason::bad_argument, [&] { database.compact(); });
  database.close();
  EXPECT_EQ(fileSize(), kWhole);
}

TEST_F(CompactWhenDue, OpensAndClosesOnAFullDisk) {
  putRecords(4);
  const Bytes before = contents();
  {
    RecordedCalls host;
    host.fullAfter(3000);
    auto database = openWith({.dead_part = 0.1, .dead_bytes = 1});
    EXPECT_EQ(bytes(database.table("t").get(Id{1})), Bytes(944, 'b'));
    database.close();
    EXPECT_FALSE(database.is_open());
  }
  EXPECT_TRUE(sameBytes(contents(), before));
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  openWith({.dead_part = 0.1, .dead_bytes = 1});
  EXPECT_EQ(fileSize(), kWhole - 4000) << "when there is space again";
}

TEST_F(CompactWhenDue, ContinuesWithTheNewFileWhenTheDeviceMayNotHaveItsName) {
  putRecords(4);
  RecordedCalls host;
  host.failOnce(Call::sync, 1, EIO);
  auto database = openWith({.dead_part = 0.1, .dead_bytes = 1});
  EXPECT_TRUE(host.failed());
  host.heal();
  EXPECT_TRUE(database.is_current());
  EXPECT_EQ(fileSize(), kWhole - 4000);
  EXPECT_EQ(database.reclaimable_estimate(), 0u);
  database.close();
  expectRecords(4);
}

// Before any call to the host that opening and closing make.
TEST_F(CompactWhenDue, LeavesTheOldFileOrTheNewOneWhenItIsKilled) {
  putRecords(4);
  const Bytes before = contents();
  openWith({.dead_part = 0.1, .dead_bytes = 1});
  const Bytes after = contents();
  ASSERT_EQ(after.size(), kWhole - 4000);
  int seen[2] = {};
  bool isKilled = true;
  for (int calls = 0; isKilled; ++calls) {
    ASSERT_LT(calls, 2000);
    writeFile(path(), before);
    isKilled = inForkedChild([&] {
                 RecordedCalls host;
                 host.observe([left = calls](Call) mutable {
                   if (left-- == 0) ::raise(SIGKILL);
                 });
                 openWith({.dead_part = 0.1, .dead_bytes = 1}).close();
                 return 0;
               }) == -1;
    for (const std::string& name : names()) {
      if (name != kDefaultFile) std::filesystem::remove(path(name));
    }
    const Bytes found = contents();
    ASSERT_TRUE(found == before || found == after) << "killed before call " << calls;
    ++seen[found == after];
  }
  EXPECT_GE(seen[0], 10);
  EXPECT_GE(seen[1], 2);
}

TEST_F(CompactWhenDue, LeavesReadersTheOldFile) {
  putRecords(4);
  auto reader = openDatabase(Mode::read_only);
  auto table = reader.table("t");
  auto database = openWith({.dead_part = 0.1, .dead_bytes = 1});
  EXPECT_FALSE(reader.is_current());
  EXPECT_EQ(table.count(), 4u);
  reader.reopen();
  EXPECT_EQ(reader.reclaimable_estimate(), 0u);
}

}  // namespace
}  // namespace qvdbase::test
