// Opening a database in which a crash has left a transaction: committed, but not in place.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <string>

#include "intents/commit.h"
#include "intents/staged_transactions.h"
#include "kit/database_fixture.h"
#include "kit/recorded_calls.h"

namespace qvdbase::test {
namespace {

class OpeningAfterACrash : public DatabaseTest {
 protected:
  // A file as it is when the process ends right after the sync of a commit.
  void SetUp() override {
    const int16_t db = create();
    const uint64_t table = addTable(db, "notes");
    addRecord(db, table, bytesOf("before"));
    close(db);
    const Bytes before = contents();
    writeFile(path("after.qvd"), before);
    const int16_t other = open("after.qvd");
    addRecord(other, table, bytesOf("committed"));
    close(other);
    after_ = contentsOf(contents("after.qvd"));
    const int16_t again = open();
    intents::CommitLog log(again, intents::Durability::power);
    const auto commit = log.commit(changesBetween(before, contents("after.qvd")));
    ASSERT_EQ(commit.outcome, intents::Outcome::committed);
    ASSERT_FALSE(log.held().isEmpty());  // its patches are not in the file
    close(again);
    ASSERT_NE(contentsOf(contents()), after_);
    allowDamage("test.qvd");
  }

  void expectComplete() {
    EXPECT_EQ(contentsOf(contents()), after_);
    EXPECT_EQ(contents().at(4558, 24), Bytes().zeros(24));
    EXPECT_TRUE(checkFile(contents()).empty()) << describe(checkFile(contents()));
  }

  static Bytes bytesOf(const std::string& text) { return Bytes().text(text); }

  std::string after_;
};

TEST_F(OpeningAfterACrash, CompletesWhatIsCommitted) {
  qvdb::Database database = qvdb::Database::open(path(), qvdb::Mode::exclusive);
  EXPECT_EQ(database.table("notes").size(), 2u);
  database.close();
  expectComplete();
}

TEST_F(OpeningAfterACrash, CompletesItForWritersThatShareTheFile) {
  qvdb::Database database = qvdb::Database::open(path(), qvdb::Mode::shared);
  EXPECT_EQ(database.table("notes").size(), 2u);
  database.close();
  expectComplete();
}

TEST_F(OpeningAfterACrash, CompletesItBeforeRepairAndMend) {
  const Bytes crashed = contents();
  EXPECT_TRUE(qvdb::mend(path()).steps.empty());
  expectComplete();
  writeFile(path(), crashed);
  static_cast<void>(qvdb::repair(path()));
  expectComplete();
}

TEST_F(OpeningAfterACrash, ReportsWhatTheSystemRefuses) {
  const Bytes crashed = contents();
  for (const auto call : {RecordedCalls::Call::write, RecordedCalls::Call::syncData}) {
    for (int skip = 0;; ++skip) {
      writeFile(path(), crashed);
      RecordedCalls host;
      host.failOnce(call, skip);
      try {
        qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
      } catch (const qvdb::Error& error) {
        EXPECT_EQ(error.reason(), qvdb::Reason::cannot_write) << error.what();
        EXPECT_EQ(error.system_code().value(), EIO);
      }
      host.heal();
      if (!host.failed()) break;
      qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
      expectComplete();
    }
  }
}

TEST_F(OpeningAfterACrash, ClearsADamagedWord) {
  const Bytes damaged = contents().with(4560, Bytes().be(1, 0x55));
  writeFile(path(), damaged);
  qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
  EXPECT_EQ(contents(), damaged.with(4558, Bytes().zeros(24)));
}

}  // namespace
}  // namespace qvdbase::test
