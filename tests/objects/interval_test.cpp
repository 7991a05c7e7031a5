// Durability::interval: commits that wait for the device together, and are read from memory before
// they are in their place.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "kit/forked.h"
#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Durability;
using qvdb::Id;
using qvdb::Reason;
using Call = RecordedCalls::Call;

constexpr std::chrono::hours kLong(1);

std::vector<std::string> texts(const qvdb::Table& table) {
  std::vector<std::string> found;
  for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
    const auto bytes = record.loaded();
    found.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  return found;
}

class IntervalDurability : public LayerTest {
 protected:
  using Texts = std::vector<std::string>;

  void SetUp() override {
    database = createDatabase();
    database.add_table("t").add("first");
    openWith(kLong);
  }

  void openWith(std::chrono::milliseconds time) {
    database.close();
    database = qvdb::Database::open(
        path(), {.mode = qvdb::Mode::exclusive, .durability = Durability::interval(time)});
    table = database.table("t");
    // The first commit waits for what was written before.
    EXPECT_TRUE(table.touch(table.first()->id()));
    database.sync();
  }

  // What the file shows to a program that knows nothing of transactions.
  Texts inPlace() const {
    Texts found;
    const ReadDatabase file = readDatabase(contents());
    for (const ReadRecord& record : file.tables.at(0).records) {
      const Bytes data = record.fields.data();
      found.emplace_back(data.begin(), data.end());
    }
    return found;
  }
  Bytes pendingWord() const { return contents().at(4558, 24); }

  static int syncsOf(const RecordedCalls& host) {
    return host.count(Call::sync) + host.count(Call::syncData);
  }

  qvdb::Database database;
  qvdb::Table table;
};

TEST_F(IntervalDurability, CommitsAreReadAtOnceAndPutInPlaceWhenTheyAreOnTheDevice) {
  RecordedCalls host;
  const Id second = table.add("second");
  database.transaction([&](qvdb::Transaction&) {
    table.add("third");
    EXPECT_TRUE(table.modify(second, "second, longer"));
  });
  const Texts expected = {"first", "second, longer", "third"};
  EXPECT_EQ(texts(table), expected);
  EXPECT_EQ(table.count(), 3u);
  EXPECT_EQ(inPlace(), Texts{"first"});
  EXPECT_EQ(syncsOf(host), 0);
  database.sync();
  EXPECT_EQ(syncsOf(host), 1);
  EXPECT_EQ(inPlace(), expected);
  EXPECT_EQ(texts(table), expected);
  EXPECT_TRUE(table.remove(second));
  EXPECT_EQ(texts(table), (Texts{"first", "third"}));
  EXPECT_EQ(inPlace(), expected);
}

TEST_F(IntervalDurability, ClosingPutsEverythingInPlaceOnTheDevice) {
  for (int i = 0; i < 10; ++i) table.add(std::to_string(i));
  const Texts expected = texts(table);
  RecordedCalls host;
  database.close();
  EXPECT_GE(syncsOf(host), 2);  // the commits, and what they change
  EXPECT_EQ(inPlace(), expected);
  EXPECT_EQ(pendingWord(), Bytes().zeros(24));
}

TEST_F(IntervalDurability, TheEndOfTheObjectDoesSoToo) {
  table.add("second");
  table = {};
  database = {};
  EXPECT_EQ(inPlace(), (Texts{"first", "second"}));
  EXPECT_EQ(pendingWord(), Bytes().zeros(24));
}

TEST_F(IntervalDurability, TheFirstOperationAfterTheTimeWaitsForTheDevice) {
  openWith(std::chrono::milliseconds(10));
  RecordedCalls host;
  host.setMicroseconds(1'000'000);
  table.add("at 0 ms");
  host.setMicroseconds(1'009'999);
  table.add("at 9 ms");
  EXPECT_EQ(table.count(), 3u);
  EXPECT_EQ(syncsOf(host), 0);
  host.setMicroseconds(1'010'000);
  host.forget();
  EXPECT_EQ(table.count(), 3u);  // an operation that reads writes nothing
  EXPECT_EQ(syncsOf(host), 1);
  EXPECT_TRUE(host.writes().empty());
  EXPECT_EQ(inPlace(), Texts{"first"});
  table.add("at 10 ms");  // puts in place what was synced, and begins an interval of its own
  EXPECT_EQ(syncsOf(host), 1);
  EXPECT_EQ(inPlace(), (Texts{"first", "at 0 ms", "at 9 ms"}));
  host.setMicroseconds(1'020'000);
  table.add("at 20 ms");
  EXPECT_EQ(syncsOf(host), 2);
  EXPECT_EQ(inPlace(), (Texts{"first", "at 0 ms", "at 9 ms", "at 10 ms", "at 20 ms"}));
  EXPECT_EQ(inPlace(), texts(table));
}

TEST_F(IntervalDurability, WithoutTimeEachCommitWaits) {
  for (const int milliseconds : {0, -5}) {
    openWith(std::chrono::milliseconds(milliseconds));
    RecordedCalls host;
    table.add("waits");
    EXPECT_EQ(syncsOf(host), 1);
    EXPECT_EQ(inPlace(), texts(table));
  }
}

TEST_F(IntervalDurability, NoMoreThan64CommitsWaitTogether) {
  RecordedCalls host;
  for (int i = 0; i < 63; ++i) table.add(std::to_string(i));  // and one was made before
  EXPECT_EQ(syncsOf(host), 0);
  EXPECT_EQ(inPlace().size(), 1u);
  table.add("one more");
  EXPECT_GE(syncsOf(host), 1);
  EXPECT_EQ(inPlace().size(), 64u);
  EXPECT_EQ(table.count(), 65u);
}

TEST_F(IntervalDurability, TablesAreFoundBeforeTheyAreInPlace) {
  qvdb::Table other = database.add_table("other");
  other.add("its first");
  EXPECT_TRUE(database.contains("other"));
  EXPECT_EQ(database.tables().size(), 2u);
  EXPECT_EQ(readDatabase(contents()).tables.size(), 1u);
  EXPECT_EQ(FindTableByName(database.handle(), "other"), 0u);  // the C functions see the file
  EXPECT_EQ(texts(database.table("other")), Texts{"its first"});
  {
    auto t = database.begin();
    EXPECT_EQ(t.table("other").count(), 1u);
    t.add_table("third").add("taken back");
  }
  EXPECT_EQ(database.tables().size(), 2u);
  database.sync();
  EXPECT_NE(FindTableByName(database.handle(), "other"), 0u);
  EXPECT_EQ(readDatabase(contents()).tables.size(), 2u);
}

TEST_F(IntervalDurability, OtherOpenersReadThemToo) {
  const auto reader = qvdb::Database::open(path(), qvdb::Mode::read_only);
  const qvdb::Reader view = database.reader();
  const qvdb::Table seen = reader.table("t");
  const qvdb::Table viewed = view.table("t");
  for (int i = 0; i < 5; ++i) {
    table.add(std::to_string(i));
    EXPECT_EQ(texts(seen), texts(table));
    EXPECT_EQ(texts(viewed), texts(table));
    if (i == 2) database.sync();
  }
  EXPECT_EQ(inPlace().size(), 4u);
  EXPECT_EQ(inForkedChild([&] { return texts(table).size() == 6 ? 0 : 1; }), 0);
}

TEST_F(IntervalDurability, IndexesFollow) {
  const qvdb::RecordIndex index = table.index();
  const qvdb::KeyIndex<std::string> keys(table, [](std::string_view text) { return text; },
                                         {.unique = true, .ordered = true});
  for (int i = 0; i < 150; ++i) {
    const std::string key = "key " + std::to_string(i);
    const Id id = table.add(key);
    EXPECT_EQ(keys.find(key)->id(), id);
    ASSERT_TRUE(table.get(id).has_value());
    if (i % 5 == 0) database.sync();
    if (i % 3 == 0) {
      EXPECT_TRUE(table.remove(id));
      EXPECT_FALSE(keys.contains(key));
      EXPECT_FALSE(table.get(id).has_value());
    }
    expectError(Reason::key_exists, [&] { table.add("first"); });
  }
}

TEST_F(IntervalDurability, AppendersAndOperationsOnTheWholeFileBeginWithWhatIsInPlace) {
  table.add("held back");
  {
    qvdb::BulkAppender appender = table.appender();
    EXPECT_EQ(inPlace(), (Texts{"first", "held back"}));
    for (int i = 0; i < 3; ++i) appender.add("bulk");
    appender.finish();
  }
  EXPECT_EQ(table.count(), 5u);
  EXPECT_EQ(inPlace().size(), 2u);
  qvdb::RecordWriter writer = table.writer();
  writer.write("in pieces");
  writer.finish();
  EXPECT_EQ(inPlace().size(), 5u);
  database.set_version(110);
  EXPECT_EQ(inPlace().size(), 6u);
  table.add("held back again");
  database.compact();
  EXPECT_EQ(inPlace().size(), 7u);
  EXPECT_EQ(texts(table), inPlace());
  table.add("after it");
  EXPECT_EQ(texts(table).size(), 8u);
  database.backup(path("copy.qvd"));
  EXPECT_EQ(texts(qvdb::Database::open(path("copy.qvd")).table("t")), texts(table));
}

TEST_F(IntervalDurability, ACacheDoesNotHideThem) {
  const qvdb::Cache cache = database.cache();
  EXPECT_EQ(texts(table), Texts{"first"});
  const Id id = table.add("second");
  EXPECT_EQ(texts(table), (Texts{"first", "second"}));
  database.sync();
  EXPECT_EQ(texts(table), (Texts{"first", "second"}));
  EXPECT_TRUE(table.remove(id));
  EXPECT_EQ(texts(table), Texts{"first"});
}

TEST_F(IntervalDurability, ATransactionIsNotDisturbedByTheTimeThatPasses) {
  openWith(std::chrono::milliseconds(10));
  RecordedCalls host;
  host.setMicroseconds(1'000'000);
  table.add("before it");
  auto t = database.begin();
  table.add("in it");
  host.setMicroseconds(2'000'000);
  EXPECT_EQ(table.count(), 3u);
  database.sync();
  t.commit();
  EXPECT_EQ(texts(table), (Texts{"first", "before it", "in it"}));
  EXPECT_EQ(inPlace(), texts(table));
}

TEST_F(IntervalDurability, AfterASyncThatFailedItReadsOnAndWritesNothing) {
  const auto failing = [](RecordedCalls& host) {
    host.failFrom(Call::syncData, 0, EIO);
    host.failFrom(Call::sync, 0, EIO);
  };
  table.add("committed");
  {
    RecordedCalls host;
    failing(host);
    expectError(Reason::cannot_write, [&] { database.sync(); });
  }
  EXPECT_EQ(texts(table), (Texts{"first", "committed"}));
  expectError(Reason::cannot_write, [&] { table.add("refused"); });
  EXPECT_EQ(inPlace(), Texts{"first"});
  expectError(Reason::cannot_write, [&] { database.close(); });
  openWith(kLong);
  EXPECT_EQ(texts(table), (Texts{"first", "committed"}));
}

TEST_F(IntervalDurability, ASyncThatFailsBeforeAReadIsReportedByTheNextWrite) {
  openWith(std::chrono::milliseconds(10));
  RecordedCalls host;
  host.setMicroseconds(1'000'000);
  table.add("committed");
  host.setMicroseconds(2'000'000);
  host.failOnce(Call::syncData, 0, EIO);
  EXPECT_EQ(texts(table), (Texts{"first", "committed"}));
  expectError(Reason::cannot_write, [&] { table.add("refused"); });
  expectError(Reason::cannot_write, [&] { database.close(); });
}

TEST_F(IntervalDurability, ACommitWhoseSyncFailsIsReadAndUndecided) {
  openWith(std::chrono::milliseconds(0));
  {
    RecordedCalls host;
    host.failOnce(Call::syncData, 0, EIO);
    const std::string message = expectError(Reason::cannot_write, [&] { table.add("undecided"); });
    EXPECT_NE(message.find("whether it is committed shows when"), std::string::npos) << message;
  }
  EXPECT_EQ(texts(table), (Texts{"first", "undecided"}));
  expectError(Reason::cannot_write, [&] { table.add("refused"); });
}

TEST_F(IntervalDurability, ClosingReportsThatTheDeviceDoesNotHaveEverything) {
  table.add("committed");
  RecordedCalls host;
  host.failFrom(Call::syncData, 0, EIO);
  expectError(Reason::cannot_write, [&] { database.close(); });
  EXPECT_FALSE(database.is_open());
}

// What it has written stays; the table that it changed keeps the state that it saw.
TEST_F(IntervalDurability, WhatACFunctionWritesMeanwhileIsNotOverwritten) {
  database.add_table("other");
  database.sync();
  table.add("held back");
  database.table("other").add("held back, too");
  const uint64_t id = FindTableByName(database.handle(), "t");
  uint64_t record = 0;
  const Bytes text = bytesOf("by a C function");
  ASSERT_EQ(AddRecordData(database.handle(), id, text.data(), static_cast<uint32_t>(text.size()), 0,
                          &record),
            1);
  database.sync();
  EXPECT_EQ(texts(table), (Texts{"first", "by a C function"}));
  EXPECT_EQ(texts(database.table("other")), Texts{"held back, too"});
  EXPECT_EQ(inPlace(), texts(table));
  table.add("it goes on");
  database.close();
  EXPECT_EQ(inPlace(), (Texts{"first", "by a C function", "it goes on"}));
  allowDamage("test.qvd");
}

TEST_F(IntervalDurability, NeedsAnExclusiveHandle) {
  database.close();
  for (const qvdb::Mode mode : {qvdb::Mode::shared, qvdb::Mode::read_only}) {
    expectError(Reason::bad_argument, [&] {
      qvdb::Database::open(path(), {.mode = mode, .durability = Durability::interval(kLong)});
    });
  }
  EXPECT_EQ(Durability::interval(kLong), Durability::interval(kLong));
  EXPECT_NE(Durability::interval(kLong), Durability::power);
  EXPECT_NE(Durability::interval(kLong), Durability::interval(std::chrono::seconds(1)));
}

TEST_F(IntervalDurability, ReopeningGoesOn) {
  table.add("second");
  database.reopen();
  EXPECT_EQ(inPlace(), (Texts{"first", "second"}));
  RecordedCalls host;
  table.add("third");
  EXPECT_EQ(syncsOf(host), 1);
  table.add("fourth");
  EXPECT_EQ(syncsOf(host), 1);
  EXPECT_EQ(texts(table), (Texts{"first", "second", "third", "fourth"}));
}

}  // namespace
}  // namespace qvdbase::test
