// Transactions among those who do not expect them, and where the host refuses what they need.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "kit/forked.h"
#include "kit/recorded_calls.h"
#include "kit/threads.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Reason;

class TransactionsAmongOthers : public LayerTest {
 protected:
  void SetUp() override {
    database = createDatabase();
    table = database.add_table("t");
    for (int i = 0; i < 5; ++i) ids.push_back(table.add("record " + std::to_string(i), 20));
  }
  Bytes file() const { return contents(); }

  qvdb::Database database;
  qvdb::Table table;
  std::vector<Id> ids;
};

TEST_F(TransactionsAmongOthers, WhatIsTooMuchForTheDiskIsTakenBackWhole) {
  for (const bool cutsInTheMiddle : {true, false}) {
    const Bytes before = file();
    {
      RecordedCalls host;
      host.fullAfter(cutsInTheMiddle ? 20'000'000 : 0);
      auto t = database.begin();
      const std::string message = expectError(Reason::disk_full, [&] {
        for (int i = 0; i < 40; ++i) table.add(std::string(1'000'000, 'a'));
        t.commit();
      });
      EXPECT_NE(message, "");
      t.rollback();
    }
    EXPECT_EQ(file().size(), before.size());
    EXPECT_TRUE(sameBytes(file(), before)) << cutsInTheMiddle;
    EXPECT_EQ(table.count(), 5u);
    table.add("there is space again");
    EXPECT_TRUE(table.remove(table.last()->id()));
    database.compact();
  }
}

TEST_F(TransactionsAmongOthers, ADiskThatIsFullWhileItCommitsLeavesNothing) {
  const Bytes before = file();
  for (size_t space = 24; space < 1200; space += 37) {
    RecordedCalls host;
    host.fullAfter(space);
    auto t = database.begin();
    table.add(std::string(300, 'a'));
    EXPECT_TRUE(table.modify(ids[1], std::string(300, 'm')));
    bool isCommitted = false;
    try {
      t.commit();
      isCommitted = true;
    } catch (const qvdb::Error& error) {
      if (std::string(error.what()).find("opened again") != std::string::npos) break;
    }
    host.heal();
    if (isCommitted) break;
    EXPECT_EQ(table.count(), 5u);
    EXPECT_EQ(file().size(), before.size()) << space;
    EXPECT_TRUE(table.touch(ids[2])) << space;
  }
}

TEST_F(TransactionsAmongOthers, ALimitOfTheFilesLengthIsNamed) {
  const Bytes before = file();
  RecordedCalls host;
  host.setFileSizeLimit(before.size() + 100);
  auto t = database.begin();
  table.add(std::string(300, 'a'));
  const std::string message = expectError(Reason::size_limit, [&] { t.commit(); });
  EXPECT_NE(message.find("nothing of it was applied"), std::string::npos) << message;
  EXPECT_TRUE(sameBytes(file().with(4558, Bytes().zeros(24)), before));
}

TEST_F(TransactionsAmongOthers, CopiesAndChecksSeeTheStateBefore) {
  auto t = database.begin();
  table.add("in it");
  EXPECT_TRUE(table.modify(ids[0], std::string(100, 'm')));
  const qvdb::CheckReport report = qvdb::check(path(), {}, {.retries = 0});
  EXPECT_EQ(report.errors, 0u);
  expectError(Reason::bad_argument, [&] { database.compact(); });
  expectError(Reason::bad_argument, [&] { database.backup(path("backup.qvd")); });
  qvdb::compact(path(), path("copy.qvd"));
  EXPECT_EQ(openDatabase(qvdb::Mode::read_only, "copy.qvd").table("t").count(), 5u);
  EXPECT_TRUE(t.is_active());
  t.commit();
  EXPECT_EQ(table.count(), 6u);
}

TEST_F(TransactionsAmongOthers, OneThatOutlivesItsDatabaseHasEnded) {
  const Bytes before = file();
  qvdb::Transaction t = database.begin();
  table.add("lost");
  database = qvdb::Database();
  table = qvdb::Table();
  EXPECT_FALSE(t.is_active());
  EXPECT_TRUE(sameBytes(file(), before));
  expectError(Reason::not_open, [&] { t.commit(); });
  t.rollback();
  qvdb::Transaction none;
  expectError(Reason::not_open, [&] { none.commit(); });
  none.rollback();
  EXPECT_FALSE(none.is_active());
  const qvdb::Transaction moved = std::move(t);
  EXPECT_FALSE(t.is_active());
  expectError(Reason::bad_argument, [&] { static_cast<void>(t.tables()); });
}

TEST_F(TransactionsAmongOthers, AFileThatIsReplacedKeepsWhatIsCommittedToTheOldOne) {
  std::filesystem::copy_file(path(), path("other.qvd"));
  std::filesystem::create_hard_link(path(), path("old.qvd"));
  auto t = database.begin();
  table.add("in it");
  std::filesystem::rename(path("other.qvd"), path());
  const Bytes other = file();
  t.commit();
  EXPECT_TRUE(sameBytes(file(), other));
  EXPECT_FALSE(database.is_current());
  database.close();
  EXPECT_EQ(openDatabase(qvdb::Mode::read_only, "old.qvd").table("t").count(), 6u);
  EXPECT_EQ(openDatabase().table("t").count(), 5u);
}

TEST_F(TransactionsAmongOthers, ATableThatWasTakenBackTakesNothing) {
  auto t = database.begin();
  qvdb::Table other = t.add_table("other");
  const Id id = other.add("a");
  const qvdb::Record record = *other.find(id);
  const qvdb::RecordIndex index = other.index();
  t.rollback();
  expectError(Reason::table_missing, [&] { other.add("b"); });
  expectError(Reason::table_missing, [&] { other.modify(id, "b"); });
  expectError(Reason::table_missing, [&] { other.set_data("b"); });
  expectError(Reason::table_missing, [&] { static_cast<void>(other.appender()); });
  EXPECT_NE(errorOf([&] { static_cast<void>(record.payload()); }), std::nullopt);
  EXPECT_EQ(index.size(), 0u);
  EXPECT_TRUE(checkFile(file()).empty());
}

TEST_F(TransactionsAmongOthers, AThreadThatEndsLeavesItToTheOthers) {
  if (!kHasThreads) GTEST_SKIP() << "a build without threads";
  qvdb::Transaction t;
  std::thread([&] {
    t = database.begin();
    table.add("of the thread");
  }).join();
  EXPECT_TRUE(t.is_active());
  expectError(Reason::bad_argument, [&] { t.commit(); });
  t.rollback();
  EXPECT_EQ(table.count(), 5u);
}

TEST_F(TransactionsAmongOthers, AChildOfAForkEndsWithoutHarm) {
  auto t = database.begin();
  table.add("in it");
  for (int i = 0; i < 20; ++i) table.add(std::string(1'000'000, 'a'));
  const auto length = std::filesystem::file_size(path());
  const int status = inForkedChild([&] {
    {
      const qvdb::Transaction mine = std::move(t);
      const auto error = errorOf([&] { static_cast<void>(database.begin()); });
      if (!error) return 1;
    }
    database.close();
    return std::filesystem::file_size(path()) == length ? 0 : 2;
  });
  EXPECT_EQ(status, 0);
  t.commit();
  EXPECT_EQ(table.count(), 26u);
}

TEST_F(TransactionsAmongOthers, ASecondOpenerOfTheProcessDoesNotDisturbWhatIsCommitted) {
  for (const auto durability : {qvdb::Durability::process, qvdb::Durability::power}) {
    database.close();
    database =
        qvdb::Database::open(path(), {.mode = qvdb::Mode::exclusive, .durability = durability});
    table = database.table("t");
    const uint32_t before = table.count();
    database.transaction([&](qvdb::Transaction&) { table.add("first"); });
    try {
      qvdb::Database other = openDatabase(qvdb::Mode::shared);
      other.table("t").add("second");
      other.close();
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::in_use) << error.what();
      continue;
    }
    database.transaction([&](qvdb::Transaction&) { table.add("third"); });
    EXPECT_EQ(table.count(), before + 3);
    database.reopen();
    EXPECT_EQ(table.count(), before + 3);
  }
}

}  // namespace
}  // namespace qvdbase::test
