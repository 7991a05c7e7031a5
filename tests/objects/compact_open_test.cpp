// Database::compact: the open file is replaced by a compacted one, and the database continues.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "kit/forked.h"
#include "kit/recorded_calls.h"
#include "kit/threads.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Reason;

class CompactOpen : public LayerTest {
 protected:
  // Records 1 to 9 of table "t", of which those with even numbers are deleted.
  void SetUp() override {
    LayerTest::SetUp();
    auto database = createDatabase();
    auto table = database.add_table("t");
    for (uint64_t i = 1; i <= 9; ++i) table.add_with_id(Id{i}, std::string(50, char('a' + i)));
    for (uint64_t i = 2; i <= 8; i += 2) table.remove(Id{i});
  }

  // What a compaction of a closed database makes.
  Bytes compacted() {
    qvdb::compact(path(), path("compacted.qvd"));
    Bytes result = contents("compacted.qvd");
    std::filesystem::remove(path("compacted.qvd"));
    return result;
  }

  static inline const std::vector<uint64_t> kOdd{1, 3, 5, 7, 9};
};

TEST_F(CompactOpen, MakesTheSameFileAsACompactionByItsPath) {
  const Bytes expected = compacted();
  auto database = openDatabase();
  const uint64_t before = fileSize();
  const qvdb::CompactReport report = database.compact();
  EXPECT_EQ(report.size_before, before);
  EXPECT_EQ(report.size_after, expected.size());
  EXPECT_EQ(report.records, 5u);
  EXPECT_TRUE(database.is_current());
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  database.close();
  EXPECT_TRUE(sameBytes(contents(), expected));
}

TEST_F(CompactOpen, KeepsTablesAndRecordsUsable) {
  auto database = openDatabase();
  auto table = database.table("t");
  const auto third = *table.find(Id{3});
  const auto last = *table.last();
  database.compact();
  EXPECT_EQ(bytes(third.payload()), Bytes(50, 'd'));
  EXPECT_EQ(idsOf(table), kOdd);
  table.modify(last, std::string(10, 'z'));
  EXPECT_EQ(bytes(last.payload()), Bytes(10, 'z'));
  table.add_with_id(Id{10}, std::string("new"));
  EXPECT_EQ(table.count(), 6u);
  table.remove(third);
  EXPECT_FALSE(table.contains(Id{3}));
}

TEST_F(CompactOpen, KeepsRecordsUsableAfterSeveralCompactions) {
  auto database = openDatabase();
  auto table = database.table("t");
  const auto fifth = *table.find(Id{5});
  for (const uint64_t gone : {1u, 3u}) {
    table.remove(Id{gone});
    database.compact();
    EXPECT_EQ(bytes(fifth.payload()), Bytes(50, 'f'));
  }
  table.modify(fifth, std::string(500, 'y'));
  EXPECT_EQ(bytes(fifth.payload()), Bytes(500, 'y'));
  table.remove(Id{5});
  expectError(Reason::record_missing, [&] { fifth.payload(); });
}

TEST_F(CompactOpen, RefusesRecordsFromBeforeAReopening) {
  auto database = openDatabase();
  const auto fifth = *database.table("t").find(Id{5});
  database.reopen();
  database.compact();
  expectError(Reason::changed_meanwhile, [&] { fifth.payload(); });
}

TEST_F(CompactOpen, KeepsIndexesRight) {
  auto database = openDatabase();
  auto table = database.table("t");
  const qvdb::RecordIndex index = table.index();
  database.compact();
  for (const uint64_t id : kOdd) {
    EXPECT_EQ(bytes(table.get(Id{id})), Bytes(50, static_cast<uint8_t>('a' + id)));
  }
  EXPECT_FALSE(table.get(Id{2}).has_value());
  table.add_with_id(Id{20}, std::string("x"));
  EXPECT_TRUE(table.contains(Id{20}));
}

// No record is read for it: the function that makes keys is not called.
TEST_F(CompactOpen, MovesIndexesWithTheRecords) {
  for (const bool isKept : {false, true}) {
    auto database = openDatabase();
    auto table = database.table("t");
    int calls = 0;
    const auto key = [&calls](std::string_view text) {
      ++calls;
      return std::string(text.substr(0, 1));
    };
    const qvdb::KeyIndex<std::string> keys(table, key,
                                           {.ordered = true, .kept_as = isKept ? "key" : ""});
    const qvdb::RecordIndex index = table.index();
    if (!isKept) table.append_all(std::vector<std::string>(3000, std::string(100, 'q')));
    table.add_with_id(Id{30}, std::string("z"));
    table.modify(Id{30}, std::string(200, 'y'));
    table.remove(Id{isKept ? 1u : 3u});
    const std::vector<uint64_t> ids = idsOf(table);
    if (isKept) database.keep_indexes();
    calls = 0;
    database.compact();
    EXPECT_EQ(std::ranges::distance(keys.records()), static_cast<ptrdiff_t>(ids.size()));
    EXPECT_LE(calls, static_cast<int>(ids.size())) << "one for each that is delivered";
    RecordedCalls host;
    EXPECT_TRUE(table.contains(Id{30}));
    EXPECT_LT(host.count(Call::read), 100) << "no walk over 3000 records";
    EXPECT_FALSE(table.contains(Id{4}));
    for (const uint64_t id : ids) EXPECT_EQ(table.find(Id{id})->id(), Id{id});
    EXPECT_EQ(index.size(), ids.size());
    EXPECT_FALSE(keys.contains("z"));
    EXPECT_EQ(keys.find("y")->id(), Id{30});
    calls = 0;
    EXPECT_FALSE(keys.contains("none"));
    EXPECT_EQ(calls, 0) << "it knows all of them";
    table.add_with_id(Id{31}, std::string("new"));
    EXPECT_EQ(keys.find("n")->id(), Id{31});
    table.remove(Id{31});
    table.remove(Id{30});
  }
}

// Records that are dropped on the way are in no index.
TEST_F(CompactOpen, LeavesWhatIsDroppedOutOfTheIndexes) {
  auto database = openDatabase();
  auto table = database.table("t");
  table.add_with_id(Id{5}, std::string("second of 5"));
  const qvdb::RecordIndex index = table.index();
  const qvdb::KeyIndex<std::string> keys(
      table, [](std::string_view text) { return std::string(text.substr(0, 1)); });
  qvdb::CompactOptions options;
  bool isFirst = true;
  options.keep = [&](const qvdb::CompactedRecord& record) {
    const bool isDropped = record.id == Id{3} || (record.id == Id{5} && isFirst);
    if (record.id == Id{5}) isFirst = false;
    return !isDropped;
  };
  database.compact({}, options);
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{1, 7, 9, 5}));
  EXPECT_FALSE(table.contains(Id{3}));
  EXPECT_EQ(bytes(table.get(Id{5})), bytesOf("second of 5"));
  EXPECT_FALSE(keys.contains("d"));
  EXPECT_EQ(keys.find("s")->id(), Id{5});
  EXPECT_TRUE(keys.contains("h"));
}

TEST_F(CompactOpen, WorksWithACache) {
  auto database = openDatabase();
  const qvdb::Cache cache = database.cache();
  auto table = database.table("t");
  EXPECT_EQ(idsOf(table), kOdd);
  database.compact();
  EXPECT_EQ(idsOf(table), kOdd);
  table.modify(Id{1}, std::string(50, 'n'));
  EXPECT_EQ(bytes(table.get(Id{1})), Bytes(50, 'n'));
}

TEST_F(CompactOpen, EndsAWalkThatHasBegun) {
  auto database = openDatabase();
  auto table = database.table("t");
  auto range = table.records();
  auto walk = range.begin();
  database.compact();
  expectError(Reason::changed_meanwhile, [&] {
    while (walk != std::default_sentinel) ++walk;
  });
}

TEST_F(CompactOpen, LeavesReadersTheOldFile) {
  auto database = openDatabase();
  const auto reader = openDatabase(Mode::read_only);
  database.compact();
  EXPECT_FALSE(reader.is_current());
  EXPECT_EQ(idsOf(reader.table("t")), kOdd);
  database.table("t").remove(Id{1});
  EXPECT_EQ(idsOf(reader.table("t")), kOdd);
}

TEST_F(CompactOpen, KeepsOtherWritersOut) {
  auto database = openDatabase();
  database.compact();
  EXPECT_EQ(inForkedChild([&] {
              try {
                openDatabase(Mode::shared);
              } catch (const qvdb::Error& error) {
                return error.reason() == Reason::in_use ? 1 : 2;
              }
              return 0;
            }),
            1);
}

TEST_F(CompactOpen, AppliesChangesToTables) {
  auto database = openDatabase();
  database.add_table("gone");
  database.compact({}, {.drop = {"gone"}, .rename = {{"t", "u"}}});
  EXPECT_FALSE(database.contains("gone"));
  EXPECT_EQ(idsOf(database.table("u")), kOdd);
}

TEST_F(CompactOpen, KeepsTheRecordsThatAreAskedFor) {
  auto database = openDatabase();
  std::vector<uint64_t> asked;
  database.compact({}, {.keep = [&](const qvdb::CompactedRecord& record) {
                     EXPECT_EQ(record.table, "t");
                     EXPECT_EQ(record.size, 50u);
                     asked.push_back(record.id.value);
                     return record.id.value > 3 && record.id.value < 9;
                   }});
  EXPECT_EQ(asked, kOdd);
  EXPECT_EQ(idsOf(database.table("t")), (std::vector<uint64_t>{5, 7}));
  database.compact({}, {.keep = [](const qvdb::CompactedRecord&) { return false; }});
  EXPECT_EQ(database.table("t").count(), 0u);
  database.table("t").add(std::string("x"));
  EXPECT_EQ(database.table("t").count(), 1u);
}

// Of those that are let go, headers are read and nothing is written.
TEST_F(CompactOpen, TakesWhatItDropsNoFurtherThanItsHeaders) {
  auto database = openDatabase();
  auto table = database.add_table("large");
  for (int i = 0; i < 40; ++i) table.add(std::string(500'000, 'x'));
  const RecordedCalls host;
  database.compact(
      {}, {.keep = [](const qvdb::CompactedRecord& record) { return record.table != "large"; }});
  uint64_t read = 0;
  for (const Event& event : host.events()) {
    if (event.call == Call::read && event.result > 0) read += static_cast<uint64_t>(event.result);
  }
  EXPECT_LT(read, 2'000'000u);  // of more than 20,000,000
  EXPECT_LT(byteCount(host.writes()), 100'000u);
  EXPECT_EQ(host.count(Call::copyRange), 0);
  EXPECT_EQ(table.count(), 0u);
}

TEST_F(CompactOpen, OnlyCalculatesInADryRun) {
  auto database = openDatabase();
  const Bytes before = contents();
  EXPECT_LT(database.compact({}, {.dry_run = true}).size_after, before.size());
  EXPECT_TRUE(sameBytes(contents(), before));
  EXPECT_TRUE(database.is_current());
}

// ---- what is refused ----

TEST_F(CompactOpen, RefusesADatabaseThatIsNotExclusive) {
  auto reader = openDatabase(Mode::read_only);
  expectError(Reason::read_only, [&] { reader.compact(); });
  reader.close();
  auto shared = openDatabase(Mode::shared);
  expectError(Reason::bad_argument, [&] { shared.compact(); });
  shared.close();
  expectError(Reason::not_open, [&] { shared.compact(); });
  expectError(Reason::not_open, [] { Database().compact(); });
}

TEST_F(CompactOpen, RefusesAnOpenBatch) {
  auto database = openDatabase();
  auto table = database.table("t");
  {
    auto bulk = table.appender();
    expectError(Reason::appender_open, [&] { database.compact(); });
  }
  database.compact();
}

TEST_F(CompactOpen, RefusesAFileWhoseNameLeadsElsewhere) {
  auto database = openDatabase();
  std::filesystem::rename(path(), path("renamed.qvd"));
  expectError(Reason::changed_meanwhile, [&] { database.compact(); });
  EXPECT_EQ(names(), std::vector<std::string>{"renamed.qvd"});
  EXPECT_EQ(idsOf(database.table("t")), kOdd);
}

TEST_F(CompactOpen, RefusesAFileWithSeveralNames) {
  std::filesystem::create_hard_link(path(), path("hard.qvd"));
  auto database = openDatabase();
  expectError(Reason::bad_argument, [&] { database.compact(); });
}

TEST_F(CompactOpen, RefusesWhatTheCallerChangesMeanwhile) {
  auto database = openDatabase();
  auto table = database.table("t");
  bool isChanged = false;
  expectError(Reason::in_use, [&] {
    database.compact([&](int) {
      if (!isChanged) table.add(std::string(100, 'n'));
      return isChanged = true;
    });
  });
  EXPECT_EQ(table.count(), 6u);
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  expectError(Reason::cancelled, [&] { database.compact([](int) { return false; }); });
  database.compact();
  EXPECT_EQ(table.count(), 6u);
}

TEST_F(CompactOpen, EndsWhenItIsClosedMeanwhile) {
  auto database = openDatabase();
  expectError(Reason::not_open, [&] {
    database.compact([&](int) {
      database.close();
      return true;
    });
  });
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
}

// ---- failures ----

TEST_F(CompactOpen, LeavesTheOldFileWhenTheDiskIsFull) {
  auto database = openDatabase();
  const Bytes before = contents();
  RecordedCalls host;
  host.fullAfter(3000);
  expectError(Reason::disk_full, [&] { database.compact(); });
  host.heal();
  EXPECT_TRUE(sameBytes(contents(), before));
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  EXPECT_EQ(idsOf(database.table("t")), kOdd);
  database.compact();
  EXPECT_EQ(idsOf(database.table("t")), kOdd);
}

TEST_F(CompactOpen, LeavesTheOldFileWhenItsNameIsRefused) {
  auto database = openDatabase();
  RecordedCalls host;
  host.failFrom(RecordedCalls::Call::rename, 0, EACCES);
  expectError(Reason::cannot_write, [&] { database.compact(); });
  host.heal();
  EXPECT_EQ(names(), std::vector<std::string>{kDefaultFile});
  EXPECT_TRUE(database.is_current());
  database.table("t").add_with_id(Id{11}, std::string("x"));
  database.close();
  EXPECT_EQ(openDatabase().table("t").count(), 6u);
}

// The file, then its folder: the second one fails.
TEST_F(CompactOpen, ContinuesWithTheNewFileWhenTheDeviceMayNotHaveItsName) {
  auto database = openDatabase();
  const uint64_t before = fileSize();
  RecordedCalls host;
  host.failOnce(RecordedCalls::Call::sync, 1, EIO);
  const std::string message = expectError(Reason::cannot_write, [&] { database.compact(); });
  host.heal();
  EXPECT_NE(message.find("the new file is in its place"), std::string::npos) << message;
  EXPECT_LT(fileSize(), before);
  EXPECT_TRUE(database.is_current());
  database.table("t").add_with_id(Id{11}, std::string("x"));
  database.close();
  EXPECT_EQ(openDatabase().table("t").count(), 6u);
}

TEST_F(CompactOpen, LeavesTheOldFileOrTheNewOneWhenItIsKilled) {
  for (const int percent : {0, 20, 60, 90, 100}) {
    EXPECT_EQ(inForkedChild([&] {
                auto database = openDatabase();
                database.compact([&](int now) {
                  if (now >= percent) ::kill(::getpid(), SIGKILL);
                  return true;
                });
                return 0;
              }),
              -1);
    auto database = openDatabase();
    EXPECT_EQ(idsOf(database.table("t")), kOdd);
    for (const std::string& name : names()) {
      if (name != kDefaultFile) std::filesystem::remove(path(name));
    }
  }
}

// ---- threads ----

TEST_F(CompactOpen, LosesNothingOfOtherThreads) {
  if (!kHasThreads) GTEST_SKIP() << "a build without threads";
  auto database = openDatabase();
  std::atomic<bool> isDone = false;
  std::atomic<uint64_t> added = 0;
  std::thread writer([&] {
    auto table = database.table("t");
    while (!isDone) {
      const Id id = table.add(std::string(100, 'n'));
      EXPECT_TRUE(table.get(id).has_value());
      ++added;
      ::usleep(100);
    }
  });
  for (int i = 0; i < 10; ++i) database.compact();
  isDone = true;
  writer.join();
  EXPECT_EQ(database.table("t").count(), 5 + added);
  database.close();
  EXPECT_EQ(openDatabase().table("t").count(), 5 + added);
}

}  // namespace
}  // namespace qvdbase::test
