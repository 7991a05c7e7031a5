// Transactions: all of one is in the file after its commit, and nothing before it, or without it.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>
#include <map>
#include <random>
#include <stdexcept>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/sanitized.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Reason;

class Transactions : public LayerTest {
 protected:
  // A database of one table with some records; their identifiers.
  void SetUp() override {
    database = createDatabase();
    table = database.add_table("t");
    for (int i = 0; i < 5; ++i) ids.push_back(table.add("record " + std::to_string(i), 20));
    table.set_data("data", 10);
  }

  Bytes file() const { return contents(); }
  static std::string text(const qvdb::Table& from, Id id) {
    const auto payload = from.get(id);
    if (!payload) return "(nothing)";
    return {reinterpret_cast<const char*>(payload->data()), payload->size()};
  }
  static std::string dataOf(const qvdb::Table& from) {
    const auto data = from.data();
    if (!data) return "(nothing)";
    return {reinterpret_cast<const char*>(data->data()), data->size()};
  }
  static std::vector<std::string> texts(const qvdb::Table& from) {
    std::vector<std::string> found;
    for (const qvdb::Record& record : from.records(qvdb::Load::payloads)) {
      const auto bytes = record.loaded();
      found.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    return found;
  }

  // One of each operation.
  void changeAll(qvdb::Transaction& t) {
    EXPECT_TRUE(table.modify(ids[0], "in place"));
    EXPECT_TRUE(table.modify(ids[1], std::string(100, 'x')));
    EXPECT_TRUE(table.write(ids[2], 2, "--"));
    EXPECT_TRUE(table.touch(ids[3]));
    EXPECT_TRUE(table.remove(ids[4]));
    table.add("added");
    table.set_data("new");
    qvdb::BulkAppender appender = table.appender();
    appender.add("bulk 1");
    appender.add("bulk 2");
    appender.finish();
    qvdb::RecordWriter writer = table.writer();
    writer.write("in ");
    writer.write("pieces");
    writer.finish();
    qvdb::Table other = t.add_table("other");
    other.add("first of other");
    other.set_data("its data");
  }
  void expectAllChanged() {
    const std::vector<std::string> expected = {
        "in place", std::string(100, 'x'), "re--rd 2", "record 3", "added", "bulk 1",
        "bulk 2",   "in pieces",
    };
    EXPECT_EQ(texts(table), expected);
    EXPECT_EQ(dataOf(table), "new");
    EXPECT_EQ(texts(database.table("other")), std::vector<std::string>{"first of other"});
    EXPECT_EQ(dataOf(database.table("other")), "its data");
  }

  qvdb::Database database;
  qvdb::Table table;
  std::vector<Id> ids;
};

TEST_F(Transactions, NothingIsInTheFileBeforeTheCommitAndEverythingAfterIt) {
  const Bytes before = file();
  auto t = database.begin();
  EXPECT_TRUE(t.is_active());
  changeAll(t);
  expectAllChanged();
  EXPECT_TRUE(sameBytes(file(), before));
  t.commit();
  EXPECT_FALSE(t.is_active());
  expectAllChanged();
  database.reopen();
  expectAllChanged();
}

TEST_F(Transactions, OneThatIsNotCommittedLeavesNothing) {
  const Bytes before = file();
  const std::vector<std::string> records = texts(table);
  {
    auto t = database.begin();
    changeAll(t);
  }
  EXPECT_TRUE(sameBytes(file(), before));
  EXPECT_EQ(texts(table), records);
  EXPECT_EQ(dataOf(table), "data");
  EXPECT_FALSE(database.contains("other"));
  table.add("after it");
  EXPECT_EQ(table.count(), 6u);
}

TEST_F(Transactions, AnExceptionOfTheFunctionTakesItBackAndGoesOn) {
  const Bytes before = file();
  EXPECT_THROW(database.transaction([&](qvdb::Transaction& t) {
    changeAll(t);
    throw std::runtime_error("the caller's");
  }),
               std::runtime_error);
  EXPECT_TRUE(sameBytes(file(), before));
  EXPECT_EQ(table.count(), 5u);
}

TEST_F(Transactions, TheFunctionsResultIsReturned) {
  const Id id = database.transaction([&](qvdb::Transaction&) { return table.add("a"); });
  EXPECT_EQ(text(table, id), "a");
  database.transaction([&](qvdb::Transaction& t) {
    table.remove(id);
    t.rollback();
  });
  EXPECT_EQ(text(table, id), "a");
}

TEST_F(Transactions, ABlockInTheFileIsNeverChangedInPlace) {
  const Bytes before = file();
  auto t = database.begin();
  changeAll(t);
  t.commit();
  const Bytes after = file();
  ASSERT_GT(after.size(), before.size());
  // Payloads and times of the old blocks are what they were: only links have changed.
  EXPECT_NE(std::string(after.begin(), after.begin() + static_cast<ptrdiff_t>(before.size()))
                .find("record 0"),
            std::string::npos);
  EXPECT_NE(std::string(after.begin(), after.begin() + static_cast<ptrdiff_t>(before.size()))
                .find("record 2"),
            std::string::npos);
}

TEST_F(Transactions, TimesIdentifiersAndCapacityAreThoseOfAPlainChange) {
  RecordedCalls host;
  host.setTime(4000);
  const qvdb::RecordInfo before = table.find(ids[0])->info();
  auto t = database.begin();
  EXPECT_TRUE(table.modify(ids[0], "abc"));
  EXPECT_TRUE(table.touch(ids[1]));
  t.commit();
  const qvdb::RecordInfo modified = table.find(ids[0])->info();
  EXPECT_EQ(modified.create_time, before.create_time);
  EXPECT_EQ(modified.modify_time, 4000u);
  EXPECT_EQ(modified.capacity, before.capacity);
  EXPECT_EQ(modified.size, 3u);
  const qvdb::RecordInfo touched = table.find(ids[1])->info();
  EXPECT_EQ(touched.modify_time, 4000u);
  EXPECT_EQ(text(table, ids[1]), "record 1");
}

TEST_F(Transactions, ReadersSeeTheStateBefore) {
  const qvdb::Reader reader = database.reader();
  const std::vector<std::string> before = texts(table);
  auto t = database.begin();
  changeAll(t);
  EXPECT_EQ(texts(reader.table("t")), before);
  qvdb::Database other = openDatabase(qvdb::Mode::read_only);
  EXPECT_EQ(texts(other.table("t")), before);
  EXPECT_FALSE(other.contains("other"));
  t.commit();
  EXPECT_EQ(texts(reader.table("t")), texts(table));
  EXPECT_EQ(texts(other.table("t")), texts(table));
  EXPECT_TRUE(other.contains("other"));
}

TEST_F(Transactions, TheCFunctionsSeeTheStateBefore) {
  auto t = database.begin();
  changeAll(t);
  int32_t tables = 0;
  EXPECT_EQ(GetNumberOfTable(database.handle(), &tables), 1);
  EXPECT_EQ(tables, 1);
  uint32_t records = 0;
  EXPECT_EQ(GetNumberOfRecords(database.handle(), table.id().value, &records), 1);
  EXPECT_EQ(records, 5u);
  EXPECT_EQ(table.count(), 8u);
  t.rollback();
  EXPECT_EQ(GetNumberOfTable(database.handle(), &tables), 1);
  EXPECT_EQ(tables, 1);
}

TEST_F(Transactions, AWriteByACFunctionMakesTheCommitFailWithNothingApplied) {
  for (const bool appends : {true, false}) {
    auto t = database.begin();
    table.add("lost");
    const std::string payload = "by the C functions";
    uint64_t id = 0;
    if (appends) {
      EXPECT_EQ(AddRecordData(database.handle(), table.id().value,
                              reinterpret_cast<const unsigned char*>(payload.data()),
                              static_cast<uint32_t>(payload.size()), 0, &id),
                1);
    } else {
      EXPECT_EQ(ModifyOneRecordInfo_LMTime(database.handle(), table.id().value, ids[2].value), 1);
    }
    const Bytes before = file();
    expectError(Reason::changed_meanwhile, [&] { t.commit(); });
    EXPECT_FALSE(t.is_active());
    EXPECT_TRUE(sameBytes(file(), before));
    EXPECT_EQ(table.count(), 6u);
  }
}

TEST_F(Transactions, NestedOnesAreRefused) {
  auto t = database.begin();
  table.add("kept");
  expectError(Reason::bad_argument, [&] { static_cast<void>(database.begin()); });
  t.commit();
  EXPECT_EQ(table.count(), 6u);
  expectError(Reason::bad_argument, [&] { t.commit(); });
  expectError(Reason::bad_argument, [&] { t.add_table("x"); });
}

TEST_F(Transactions, OnlyExclusiveHandlesHaveThem) {
  database.close();
  for (const qvdb::Mode mode : {qvdb::Mode::shared, qvdb::Mode::read_only}) {
    qvdb::Database other = openDatabase(mode);
    expectError(mode == qvdb::Mode::shared ? Reason::bad_argument : Reason::read_only,
                [&] { static_cast<void>(other.begin()); });
  }
  expectError(Reason::not_open, [&] { static_cast<void>(database.begin()); });
  expectError(Reason::not_open, [&] { static_cast<void>(qvdb::Database().begin()); });
}

TEST_F(Transactions, AnAppenderThatIsOpenIsRefusedAtBothEnds) {
  {
    qvdb::BulkAppender appender = table.appender();
    expectError(Reason::appender_open, [&] { static_cast<void>(database.begin()); });
  }
  auto t = database.begin();
  qvdb::BulkAppender appender = table.appender();
  appender.add("one");
  expectError(Reason::appender_open, [&] { t.commit(); });
  EXPECT_TRUE(t.is_active());
  appender.finish();
  t.commit();
  EXPECT_EQ(table.count(), 6u);
}

TEST_F(Transactions, AnAppenderEndsWithTheTransactionThatIsTakenBack) {
  const Bytes before = file();
  auto t = database.begin();
  qvdb::BulkAppender appender = table.appender();
  appender.add(std::string(300'000, 'a'));
  qvdb::RecordWriter writer = appender.writer();
  writer.write(std::string(300'000, 'b'));
  t.rollback();
  expectError(Reason::bad_argument, [&] { appender.add("more"); });
  EXPECT_TRUE(sameBytes(file(), before));
}

TEST_F(Transactions, AnAppenderThatIsDiscardedInOneLeavesNothing) {
  auto t = database.begin();
  {
    qvdb::BulkAppender appender = table.appender();
    for (int i = 0; i < 20; ++i) appender.add(std::string(1'000'000, 'a'));
  }
  table.add("after");
  t.commit();
  EXPECT_EQ(table.count(), 6u);
}

TEST_F(Transactions, TheVersionCannotBeSetInOne) {
  auto t = database.begin();
  expectError(Reason::bad_argument, [&] { database.set_version(101); });
  t.commit();
  EXPECT_EQ(database.info().version, 100);
}

TEST_F(Transactions, ClosingAndOpeningAgainTakeItBack) {
  const Bytes before = file();
  auto t = database.begin();
  table.add("lost");
  database.close();
  EXPECT_FALSE(t.is_active());
  EXPECT_TRUE(sameBytes(file(), before));
  database.reopen();
  auto u = database.begin();
  table.add("lost");
  database.reopen();
  EXPECT_FALSE(u.is_active());
  EXPECT_EQ(table.count(), 5u);
  u.rollback();
}

TEST_F(Transactions, AMovedOneIsTakenBackByItsNewOwner) {
  auto t = database.begin();
  table.add("lost");
  {
    const qvdb::Transaction moved = std::move(t);
    EXPECT_TRUE(moved.is_active());
  }
  EXPECT_EQ(table.count(), 5u);
  t = database.begin();
  table.add("kept");
  t.commit();
  EXPECT_EQ(table.count(), 6u);
}

TEST_F(Transactions, WhatIsTooMuchForMemoryGoesToTheEndOfTheFileEarly) {
  const uint64_t before = file().size();
  auto t = database.begin();
  for (int i = 0; i < 20; ++i) table.add(std::string(1'000'000, static_cast<char>('a' + i % 26)));
  EXPECT_GT(std::filesystem::file_size(path()), before + 16'000'000);
  EXPECT_EQ(openDatabase(qvdb::Mode::read_only).table("t").count(), 5u);
  EXPECT_EQ(table.count(), 25u);
  EXPECT_TRUE(table.remove(table.last()->id()));
  EXPECT_TRUE(table.modify(*table.last(), "short"));
  t.rollback();
  EXPECT_EQ(file().size(), before);
  EXPECT_EQ(table.count(), 5u);

  auto u = database.begin();
  for (int i = 0; i < 20; ++i) table.add(std::string(1'000'000, static_cast<char>('a' + i % 26)));
  EXPECT_TRUE(table.modify(*table.last(), "short"));
  u.commit();
  EXPECT_EQ(table.count(), 25u);
  EXPECT_EQ(texts(table).back(), "short");
}

// The blocks of 400,000 records are 62 MB, those of 10,000,000 1,560 MB.
TEST_F(Transactions, TakeLittleMemoryHoweverMuchTheyAdd) {
  if (kIsSanitized || kThreadsAreWatched) GTEST_SKIP() << "a sanitizer takes memory of its own";
  const int count = testEverything() ? 10'000'000 : 400'000;
  const long mostKib = testEverything() ? 100 * 1024 : 40 * 1024;
  database.close();
  const auto peak = [] {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  };
  const int result = inForkedChild([&] {
    qvdb::Database own = openDatabase();
    const qvdb::Table to = own.table("t");
    const long before = peak();
    const std::string payload(100, 'p');
    own.transaction([&](qvdb::Transaction& t) {
      qvdb::Table same = t.table("t");
      for (int i = 0; i < count; ++i) same.add(payload);
    });
    const long grown = peak() - before;
    if (grown > mostKib) std::fprintf(stderr, "it took %ld KiB\n", grown);
    return grown <= mostKib && to.count() == ids.size() + static_cast<size_t>(count) ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
  std::filesystem::remove(path());  // the walk at the end takes more memory than the transaction
}

TEST_F(Transactions, AnIndexFollowsAndFollowsBack) {
  constexpr int kMore = 200;
  for (int i = 0; i < kMore; ++i) table.add("more");
  std::optional<qvdb::RecordIndex> index = table.index();
  auto t = database.begin();
  const Id added = table.add("added");
  EXPECT_TRUE(table.modify(ids[0], std::string(500, 'm')));
  EXPECT_TRUE(table.remove(ids[1]));
  EXPECT_EQ(text(table, added), "added");
  t.rollback();
  EXPECT_FALSE(table.contains(added));
  EXPECT_EQ(text(table, ids[0]), "record 0");
  EXPECT_EQ(text(table, ids[1]), "record 1");
  EXPECT_EQ(index->size(), 5u + kMore);

  auto u = database.begin();
  const Id again = table.add("again");
  EXPECT_TRUE(table.modify(ids[0], std::string(500, 'm')));
  EXPECT_TRUE(table.remove(ids[1]));
  u.commit();
  const auto readsOfLookups = [&] {
    RecordedCalls host;
    EXPECT_EQ(text(table, again), "again");
    EXPECT_EQ(text(table, ids[0]), std::string(500, 'm'));
    EXPECT_FALSE(table.contains(ids[1]));
    return host.count(Call::read);
  };
  const auto byIndex = readsOfLookups();
  index.reset();
  EXPECT_LT(byIndex, readsOfLookups());
}

TEST_F(Transactions, AnIndexOfKeysFollowsAndFollowsBack) {
  const qvdb::KeyIndex<std::string> index(table, [](std::string_view text) { return text; },
                                          {.unique = true, .ordered = true});
  auto t = database.begin();
  table.add("added");
  EXPECT_TRUE(table.modify(ids[0], "changed"));
  EXPECT_TRUE(table.touch(ids[2]));
  EXPECT_TRUE(index.contains("added"));
  EXPECT_TRUE(index.contains("changed"));
  EXPECT_TRUE(index.contains("record 2"));
  EXPECT_FALSE(index.contains("record 0"));
  expectError(Reason::key_exists, [&] { table.add("added"); });
  t.rollback();
  EXPECT_FALSE(index.contains("added"));
  EXPECT_FALSE(index.contains("changed"));
  EXPECT_TRUE(index.contains("record 0"));
  EXPECT_TRUE(index.contains("record 2"));

  auto u = database.begin();
  table.add("added");
  EXPECT_TRUE(table.touch(ids[2]));
  u.commit();
  EXPECT_EQ(index.find("added")->id(), table.last()->id());
  EXPECT_EQ(index.find("record 2")->id(), ids[2]);
  expectError(Reason::key_exists, [&] { table.add("added"); });
}

TEST_F(Transactions, RecordsThatWereFoundInOneAreFollowedOrRefused) {
  auto t = database.begin();
  const Id id = table.add("added");
  EXPECT_TRUE(table.modify(ids[0], "changed"));
  const qvdb::Record added = *table.find(id);
  const qvdb::Record changed = *table.find(ids[0]);
  const qvdb::Record kept = *table.find(ids[3]);
  t.commit();
  EXPECT_EQ(bytes(added.payload()), bytesOf("added"));
  EXPECT_EQ(bytes(changed.payload()), bytesOf("changed"));
  EXPECT_EQ(bytes(kept.payload()), bytesOf("record 3"));
  EXPECT_TRUE(table.modify(added, "more"));
  EXPECT_EQ(bytes(added.payload()), bytesOf("more"));

  auto u = database.begin();
  const Id other = table.add("other");
  EXPECT_TRUE(table.modify(ids[0], "changed again"));
  const qvdb::Record lost = *table.find(other);
  const qvdb::Record moved = *table.find(ids[0]);
  u.rollback();
  table.add_with_id(other, "another one in its place");
  expectError(Reason::changed_meanwhile, [&] { static_cast<void>(lost.payload()); });
  expectError(Reason::changed_meanwhile, [&] { static_cast<void>(moved.payload()); });
  EXPECT_TRUE(table.modify(moved, "found by its identifier"));
  EXPECT_EQ(text(table, ids[0]), "found by its identifier");
}

// Blocks that were neighbours and have left the chain together must not vouch for each other.
TEST_F(Transactions, NeighboursThatAreChangedTogetherAreFoundWhereTheyAre) {
  for (const bool backward : {false, true}) {
    const std::vector<qvdb::Record> before = [&] {
      std::vector<qvdb::Record> found;
      for (const qvdb::Record& record : table.records()) found.push_back(record);
      return found;
    }();
    const qvdb::Database reader = openDatabase(qvdb::Mode::read_only);
    const qvdb::Table seen = reader.table("t");
    const qvdb::RecordIndex index = seen.index();
    EXPECT_TRUE(seen.contains(ids[2]));
    auto t = database.begin();
    for (size_t i = 0; i < ids.size(); ++i) {
      const size_t at = backward ? ids.size() - 1 - i : i;
      EXPECT_TRUE(table.modify(ids[at], "changed " + std::to_string(at)));
    }
    t.commit();
    for (size_t i = 0; i < ids.size(); ++i) {
      EXPECT_EQ(text(seen, ids[i]), "changed " + std::to_string(i));
    }
    EXPECT_TRUE(table.modify(before[2], "and again"));
    EXPECT_EQ(text(table, ids[2]), "and again");
    EXPECT_TRUE(table.modify(before[1], std::string(300, 'l')));
    EXPECT_EQ(text(table, ids[1]), std::string(300, 'l'));
  }
  const std::vector<qvdb::Record> before = {*table.find(ids[2]), *table.find(ids[3])};
  database.transaction([&](qvdb::Transaction&) {
    for (const size_t i : {size_t{1}, size_t{2}, size_t{3}}) EXPECT_TRUE(table.remove(ids[i]));
  });
  for (const qvdb::Record& removed : before) EXPECT_FALSE(table.modify(removed, "lost"));
  EXPECT_EQ(table.count(), 2u);
}

TEST_F(Transactions, TablesThatWereAddedInOneAreMissingAfterItWasTakenBack) {
  auto t = database.begin();
  qvdb::Table other = t.add_table("other");
  other.add("a");
  t.rollback();
  expectError(Reason::table_missing, [&] { static_cast<void>(other.count()); });
  const qvdb::Table again = database.add_table("other");
  EXPECT_EQ(again.count(), 0u);
  expectError(Reason::table_missing, [&] { static_cast<void>(other.count()); });
}

TEST_F(Transactions, AWalkGoesOnAfterTheEndOfOne) {
  for (const bool commits : {true, false}) {
    qvdb::RecordRange range = table.records(qvdb::Load::payloads);
    auto at = range.begin();
    auto t = database.begin();
    EXPECT_TRUE(table.modify(*at, std::string(200, 'z')));
    const Id last = table.add("added");
    commits ? t.commit() : t.rollback();
    std::vector<std::string> rest;
    for (++at; at != range.end(); ++at) {
      rest.emplace_back(reinterpret_cast<const char*>(at->loaded().data()), at->loaded().size());
    }
    std::vector<std::string> expected = texts(table);
    expected.erase(expected.begin());
    if (commits) expected.resize(4);  // what was added later need not come
    EXPECT_EQ(rest, expected) << commits;
    EXPECT_EQ(table.contains(last), commits);
  }
}

TEST_F(Transactions, AWalkOverWhatIsTakenBackSaysSo) {
  auto t = database.begin();
  for (int i = 0; i < 100; ++i) table.add("added");
  qvdb::RecordRange range = table.records();
  auto at = range.begin();
  for (int i = 0; i < 20; ++i) ++at;
  t.rollback();
  expectError(Reason::changed_meanwhile, [&] {
    while (at != range.end()) ++at;
  });
}

TEST_F(Transactions, AWalkOverWhatIsCommittedGoesOn) {
  auto t = database.begin();
  for (int i = 0; i < 100; ++i) table.add("added " + std::to_string(i));
  qvdb::RecordRange range = table.records(qvdb::Load::payloads);
  auto at = range.begin();
  int seen = 1;
  for (; seen < 20; ++seen) ++at;
  t.commit();
  while (++at != range.end()) {
    ++seen;
    EXPECT_EQ(bytes(at->payload()), bytes(at->loaded()));
  }
  EXPECT_EQ(seen, 105);
}

TEST_F(Transactions, AnOperationThatFailsInOneLeavesNothingOfItself) {
  auto t = database.begin();
  table.add("kept");
  expectError(Reason::table_exists, [&] { database.add_table("t"); });
  expectError(Reason::bad_argument, [&] { table.write(ids[0], 5, std::string(50, 'x')); });
  EXPECT_FALSE(table.remove(Id{4711}));
  t.commit();
  EXPECT_EQ(table.count(), 6u);
  EXPECT_EQ(text(table, ids[0]), "record 0");
}

TEST_F(Transactions, AnEmptyOneWritesNothing) {
  RecordedCalls host;
  auto t = database.begin();
  EXPECT_EQ(table.count(), 5u);
  t.commit();
  EXPECT_EQ(host.count(Call::write), 0);
}

// What lies between them is written as it is.
TEST_F(Transactions, PatchesThatLieCloseTogetherAreWrittenAtOnce) {
  for (int i = 5; i < 41; ++i) ids.push_back(table.add("record " + std::to_string(i), 20));
  RecordedCalls host;
  auto t = database.begin();
  for (size_t i = 1; i < ids.size(); i += 4) EXPECT_TRUE(table.remove(ids[i]));
  t.commit();
  // The word, the intent with its blocks, the links of the neighbours of ten records, the slot.
  EXPECT_LE(host.count(Call::write), 5);
  std::vector<std::string> left;
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i % 4 != 1) left.push_back("record " + std::to_string(i));
  }
  EXPECT_EQ(texts(table), left);
}

TEST_F(Transactions, WithACacheTheyReadTheSame) {
  const qvdb::Cache cache = database.cache();
  EXPECT_EQ(texts(table).size(), 5u);
  auto t = database.begin();
  changeAll(t);
  expectAllChanged();
  t.rollback();
  EXPECT_EQ(texts(table).size(), 5u);
  auto u = database.begin();
  changeAll(u);
  u.commit();
  expectAllChanged();
  database.reopen();
  expectAllChanged();
}

TEST_F(Transactions, AChildOfAForkCannotCommitAndSeesTheStateBefore) {
  auto t = database.begin();
  table.add("added");
  const int status = inForkedChild([&] {
    bool isRight = texts(table).size() == 5;
    try {
      t.commit();
      isRight = false;
    } catch (const qvdb::Error& error) {
      isRight = isRight && error.reason() == Reason::opened_elsewhere;
    }
    t.rollback();
    return isRight ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  t.commit();
  EXPECT_EQ(table.count(), 6u);
}

// ---- calls of the host that fail ----

using FailingTransactions = Transactions;

TEST_F(FailingTransactions, AreWholeOrNotThereWhateverFails) {
  const std::vector<std::string> before = texts(table);
  database.close();
  const Bytes image = file();
  for (const bool fromThenOn : {false, true}) {
    for (const Call call :
         {Call::write, Call::read, Call::length, Call::truncate, Call::sync, Call::syncData}) {
      for (int step = 0;; ++step) {
        writeFile(path(), image);
        database = openDatabase();
        table = database.table("t");
        RecordedCalls host;
        fromThenOn ? host.failFrom(call, step, EIO) : host.failOnce(call, step, EIO);
        bool isCommitted = false;
        std::string message;
        try {
          auto t = database.begin();
          changeAll(t);
          t.commit();
          isCommitted = true;
        } catch (const qvdb::Error& error) {
          message = error.what();
        }
        const bool hasFailed = host.failed();
        host.heal();
        const bool isUndecided = message.find("opened again") != std::string::npos;
        SCOPED_TRACE(std::string(nameOf(call)) + " " + std::to_string(step) + ": " + message);
        if (!isCommitted && !isUndecided) {
          EXPECT_EQ(texts(table), before);
          EXPECT_FALSE(database.contains("other"));
        }
        try {
          database.close();
        } catch (const qvdb::Error&) {
        }
        database = openDatabase();
        table = database.table("t");
        const bool isAfter = texts(table) != before;
        if (!isUndecided) {
          EXPECT_EQ(isAfter, isCommitted);
        }
        if (isAfter) expectAllChanged();
        EXPECT_EQ(database.contains("other"), isAfter);
        database.close();
        if (!hasFailed) break;
      }
    }
  }
}

// ---- on the device ----

class PowerDurability : public Transactions {
 protected:
  void SetUp() override {
    Transactions::SetUp();
    reopenDurably();
  }
  void reopenDurably() {
    database.close();
    database = qvdb::Database::open(
        path(), {.mode = qvdb::Mode::exclusive, .durability = qvdb::Durability::power});
    table = database.table("t");
  }
  static int syncsOf(const RecordedCalls& host) {
    return host.count(Call::sync) + host.count(Call::syncData);
  }
};

TEST_F(PowerDurability, EachOperationWaitsForTheDeviceOnce) {
  table.add("the first commit of a run");
  const auto syncs = [&](auto operation) {
    RecordedCalls host;
    operation();
    return syncsOf(host);
  };
  EXPECT_EQ(syncs([&] { table.add("added"); }), 1);
  EXPECT_EQ(syncs([&] { EXPECT_TRUE(table.modify(ids[0], "in place")); }), 1);
  EXPECT_EQ(syncs([&] { EXPECT_TRUE(table.write(ids[1], 0, "R")); }), 1);
  EXPECT_EQ(syncs([&] { EXPECT_TRUE(table.touch(ids[2])); }), 1);
  EXPECT_EQ(syncs([&] { EXPECT_TRUE(table.remove(ids[3])); }), 1);
  EXPECT_EQ(syncs([&] { table.set_data("other data"); }), 1);
  EXPECT_EQ(syncs([&] { database.add_table("other"); }), 1);
  EXPECT_EQ(syncs([&] {
              database.transaction([&](qvdb::Transaction&) {
                for (int i = 0; i < 10; ++i) table.add("one of ten");
              });
            }),
            1);
  EXPECT_EQ(syncs([&] { EXPECT_FALSE(table.remove(Id{4711})); }), 0);
  EXPECT_EQ(syncs([&] { EXPECT_EQ(table.count(), 16u); }), 0);
  const std::vector<std::string> before = texts(table);
  reopenDurably();
  EXPECT_EQ(texts(table), before);
  EXPECT_EQ(dataOf(table), "other data");
}

TEST_F(PowerDurability, AppendersAndWritersAreOnTheDeviceWhenTheyAreFinished) {
  qvdb::BulkAppender appender = table.appender();
  for (int i = 0; i < 1000; ++i) appender.add(std::string(1000, 'a'));
  appender.finish();
  qvdb::RecordWriter writer = table.writer();
  writer.write("in pieces");
  writer.finish();
  EXPECT_EQ(table.count(), 1006u);
  {
    qvdb::BulkAppender discarded = table.appender();
    discarded.add("lost");
  }
  qvdb::BulkAppender empty = table.appender();
  EXPECT_EQ(empty.finish(), 0u);
  const std::vector<std::string> before = texts(table);
  reopenDurably();
  EXPECT_EQ(texts(table), before);
}

TEST_F(PowerDurability, AfterASyncThatFailedNothingMoreIsWritten) {
  const std::vector<std::string> before = texts(table);
  table.add("the first commit of a run");
  {
    RecordedCalls host;
    host.failOnce(Call::syncData, 0, EIO);
    const std::string message = expectError(Reason::cannot_write, [&] { table.add("undecided"); });
    EXPECT_NE(message.find("whether it is committed shows when"), std::string::npos) << message;
  }
  const Bytes after = file();
  const std::string message = expectError(Reason::cannot_write, [&] { table.add("refused"); });
  EXPECT_NE(message.find("nothing more can be written until it is opened again"), std::string::npos)
      << message;
  expectError(Reason::cannot_write, [&] { database.set_version(101); });
  expectError(Reason::cannot_write, [&] { static_cast<void>(database.begin()); });
  EXPECT_TRUE(sameBytes(file(), after));
  reopenDurably();
  std::vector<std::string> expected = before;
  expected.emplace_back("the first commit of a run");
  std::vector<std::string> longer = expected;
  longer.emplace_back("undecided");
  const std::vector<std::string> found = texts(table);
  EXPECT_TRUE(found == expected || found == longer);
  table.add("it writes again");
}

TEST_F(PowerDurability, NeedsAnExclusiveHandle) {
  database.close();
  for (const qvdb::Mode mode : {qvdb::Mode::shared, qvdb::Mode::read_only}) {
    expectError(Reason::bad_argument, [&] {
      qvdb::Database::open(path(), {.mode = mode, .durability = qvdb::Durability::power});
    });
  }
}

TEST_F(PowerDurability, AnIndexOfKeysFollowsEachOperation) {
  const qvdb::KeyIndex<std::string> index(table, [](std::string_view text) { return text; },
                                          {.unique = true, .ordered = true});
  for (int i = 0; i < 200; ++i) {
    const std::string key = "key " + std::to_string(i);
    const Id id = table.add(key);
    ASSERT_EQ(index.find(key)->id(), id);
    if (i % 3 == 0) {
      EXPECT_TRUE(table.modify(id, key + " changed"));
      EXPECT_FALSE(index.contains(key));
      EXPECT_EQ(index.find(key + " changed")->id(), id);
    }
    if (i % 7 == 0) {
      EXPECT_TRUE(table.remove(id));
      EXPECT_FALSE(index.contains(key));
    }
  }
  expectError(Reason::key_exists, [&] { table.add("key 1"); });
}

// ---- random sequences ----

// What tables hold, by their names.
struct State {
  struct Content {
    std::vector<std::pair<Id, std::string>> records;
    std::string data = "(nothing)";
    bool operator==(const Content&) const = default;
  };
  std::map<std::string, Content> tables;
  bool operator==(const State&) const = default;
};

class RandomTransactions : public Transactions {
 protected:
  static State stateOf(const qvdb::Database& from) {
    State state;
    for (const qvdb::Table& each : from.tables()) {
      State::Content content;
      for (const qvdb::Record& record : each.records(qvdb::Load::payloads)) {
        const auto loaded = record.loaded();
        content.records.emplace_back(
            record.id(), std::string(reinterpret_cast<const char*>(loaded.data()), loaded.size()));
      }
      content.data = dataOf(each);
      state.tables[each.name()] = content;
    }
    return state;
  }

  size_t below(size_t n) { return random() % n; }
  std::string anyText() { return std::string(below(60), static_cast<char>('a' + below(26))); }

  void changeSomething(State& model) {
    auto entry =
        std::next(model.tables.begin(), static_cast<ptrdiff_t>(below(model.tables.size())));
    qvdb::Table on = database.table(entry->first);
    auto& records = entry->second.records;
    const size_t at = records.empty() ? 0 : below(records.size());
    const std::string value = anyText();
    switch (below(9)) {
      case 0:
        if (model.tables.size() < 6) {
          const std::string name = "table " + std::to_string(model.tables.size());
          database.add_table(name);
          model.tables[name] = {};
          break;
        }
        [[fallthrough]];
      case 1:
      case 2:
        records.emplace_back(on.add(value, static_cast<uint32_t>(below(40))), value);
        break;
      case 3: {
        qvdb::BulkAppender appender = on.appender();
        const size_t count = below(5);
        std::vector<std::pair<Id, std::string>> added;
        for (size_t i = 0; i < count; ++i) {
          const std::string each = anyText();
          added.emplace_back(appender.add(each), each);
        }
        if (below(3) == 0) break;  // discarded
        appender.finish();
        records.insert(records.end(), added.begin(), added.end());
        break;
      }
      case 4:
        on.set_data(value, static_cast<uint32_t>(below(40)));
        entry->second.data = value;
        break;
      default:
        if (records.empty()) break;
        changeRecord(on, records, at, value);
    }
  }

  void changeRecord(qvdb::Table& on, std::vector<std::pair<Id, std::string>>& records, size_t at,
                    const std::string& value) {
    auto& [id, payload] = records[at];
    switch (below(4)) {
      case 0:
        EXPECT_TRUE(on.modify(id, value));
        payload = value;
        break;
      case 1:
        EXPECT_TRUE(on.touch(id));
        break;
      case 2:
        if (!payload.empty()) {
          EXPECT_TRUE(on.write(id, payload.size() - 1, "!"));
          payload.back() = '!';
        }
        break;
      default:
        EXPECT_TRUE(on.remove(id));
        records.erase(records.begin() + static_cast<ptrdiff_t>(at));
    }
  }

  // Through indexes, too.
  void expectIs(const State& model) {
    ASSERT_EQ(stateOf(database), model);
    for (const auto& [name, content] : model.tables) {
      const qvdb::Table on = database.table(name);
      for (const auto& [id, payload] : content.records) ASSERT_EQ(text(on, id), payload);
    }
  }

  std::mt19937_64 random{randomSeed()};
};

TEST_F(RandomTransactions, AreWhatAModelSays) {
  State model = stateOf(database);
  std::vector<qvdb::RecordIndex> indexes;
  std::optional<qvdb::Cache> cache;
  for (int i = 0; i < 150; ++i) {
    if (below(4) == 0) indexes.push_back(database.tables()[below(model.tables.size())].index());
    if (below(8) == 0) indexes.clear();
    if (below(6) == 0) cache.emplace(database.cache());
    if (below(6) == 0) cache.reset();
    if (below(3) == 0) {
      changeSomething(model);  // a plain one
      continue;
    }
    const State before = model;
    auto t = database.begin();
    for (size_t n = below(10); n > 0; --n) {
      changeSomething(model);
      if (below(4) == 0) expectIs(model);
    }
    EXPECT_EQ(stateOf(openDatabase(qvdb::Mode::read_only)), before);
    if (below(3) == 0) {
      t.rollback();
      model = before;
    } else {
      t.commit();
    }
    expectIs(model);
    ASSERT_EQ(stateOf(openDatabase(qvdb::Mode::read_only)), model);
  }
  indexes.clear();
  cache.reset();
  database.reopen();
  expectIs(model);
}

}  // namespace
}  // namespace qvdbase::test
