// Opening a database in which a crash has left a transaction: committed, but not in place.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "intents/commit.h"
#include "intents/staged_transactions.h"
#include "kit/database_fixture.h"
#include "kit/recorded_calls.h"

namespace qvdbase::test {
namespace {

// The codes of the findings of qvdb::check.
std::set<std::string> codesOf(const std::filesystem::path& file) {
  std::set<std::string> codes;
  static_cast<void>(
      qvdb::check(file, [&](const qvdb::Finding& finding) { codes.insert(finding.code); }));
  return codes;
}

class OpeningAfterACrash : public DatabaseTest {
 protected:
  // What the transaction adds.
  virtual std::vector<std::string> added() const { return {"committed"}; }

  // A file as it is when the process ends right after the sync of a commit.
  void SetUp() override {
    const int16_t db = create();
    const uint64_t table = addTable(db, "notes");
    addRecord(db, table, bytesOf("before"));
    close(db);
    const Bytes before = contents();
    writeFile(path("after.qvd"), before);
    const int16_t other = open("after.qvd");
    for (const std::string& each : added()) addRecord(other, table, bytesOf(each));
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
  EXPECT_EQ(database.table("notes").count(), 2u);
  database.close();
  expectComplete();
}

// The process may have ended before its intents were on the device. Patches that are there without
// them would be a part of a transaction, or make one that is torn look committed.
TEST_F(OpeningAfterACrash, SyncsTheIntentsBeforeItPutsAnythingInPlace) {
  RecordedCalls host;
  const int16_t db = open();
  ASSERT_TRUE(intents::recover(db).succeeded);
  close(db);
  std::string calls;
  size_t write = 0;
  for (const Event& event : host.events()) {
    if (event.call == RecordedCalls::Call::syncData) calls += "sync ";
    if (event.call != RecordedCalls::Call::write) continue;
    calls += host.writes().at(write++).position == 4558 ? "word " : "patch ";
  }
  EXPECT_EQ(calls, "sync patch patch sync word sync ");
  expectComplete();
}

TEST_F(OpeningAfterACrash, CompletesItForWritersThatShareTheFile) {
  qvdb::Database database = qvdb::Database::open(path(), qvdb::Mode::shared);
  EXPECT_EQ(database.table("notes").count(), 2u);
  database.close();
  expectComplete();
}

TEST_F(OpeningAfterACrash, CompletesItBeforeRepairAndMend) {
  const Bytes crashed = contents();
  EXPECT_EQ(qvdb::mend(path()).steps,
            std::vector<std::string>{"1 transaction that was committed is completed: 2 places"});
  expectComplete();
  EXPECT_TRUE(qvdb::mend(path()).steps.empty());
  writeFile(path(), crashed);
  static_cast<void>(qvdb::repair(path()));
  expectComplete();
}

TEST_F(OpeningAfterACrash, LeavesTheFileAloneWhenItOnlyAsks) {
  const Bytes crashed = contents();
  EXPECT_EQ(qvdb::mend(path(), {.dry_run = true}).steps,
            std::vector<std::string>{"1 transaction that was committed is completed: 2 places"});
  EXPECT_TRUE(sameBytes(contents(), crashed));
}

// A C function that adds a record between the crash and the mend.
class ContradictedTransaction : public OpeningAfterACrash {
 protected:
  std::vector<std::string> added() const override { return {"first", "second", "committed"}; }

  void SetUp() override {
    OpeningAfterACrash::SetUp();
    const int16_t db = open();
    addRecord(db, FindTableByName(db, "notes"), bytesOf("of another program"));
    close(db);
  }

  std::vector<std::string> payloads() {
    std::vector<std::string> found;
    const Bytes file = contents();
    const ReadDatabase database = readDatabase(file);
    for (const ReadRecord& record : database.tables.at(0).records) {
      found.push_back(record.fields.data().str());
    }
    return found;
  }
};

TEST_F(ContradictedTransaction, IsMendedOnceTheCallerHasSaidHow) {
  const Bytes crashed = contents();
  for (const bool isDry : {true, false}) {
    try {
      static_cast<void>(qvdb::mend(path(), {.dry_run = isDry}));
      ADD_FAILURE() << "mended";
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), qvdb::Reason::damaged);
      EXPECT_NE(std::string(error.what()).find("X3"), std::string::npos) << error.what();
    }
    EXPECT_EQ(contents(), crashed);
  }
  for (const bool isOpenedBefore : {false, true}) {
    for (const auto cutOff : {qvdb::CutOffWrites::link, qvdb::CutOffWrites::discard}) {
      writeFile(path(), crashed);
      if (isOpenedBefore) qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
      EXPECT_TRUE(codesOf(path()).contains("X3"));
      const auto steps = qvdb::mend(path(), {.cut_off = cutOff, .dry_run = true}).steps;
      EXPECT_TRUE(codesOf(path()).contains("X3"));
      EXPECT_EQ(qvdb::mend(path(), {.cut_off = cutOff}).steps, steps);
      EXPECT_NE(steps.back().find("counts as finished"), std::string::npos) << steps.back();
      std::vector<std::string> expected = {"before", "of another program"};
      if (cutOff == qvdb::CutOffWrites::link) {
        expected.insert(expected.end(), {"first", "second", "committed"});
      }
      EXPECT_EQ(payloads(), expected);
      const auto codes = codesOf(path());
      EXPECT_FALSE(codes.contains("X3") || codes.contains("X2"));
      EXPECT_TRUE(checkFile(contents()).empty()) << describe(checkFile(contents()));
      EXPECT_TRUE(qvdb::mend(path()).steps.empty());
    }
  }
}

TEST_F(ContradictedTransaction, IsSalvagedAsAWhole) {
  const Bytes crashed = contents();
  for (const bool isOpenedBefore : {false, true}) {
    writeFile(path(), crashed);
    if (isOpenedBefore) qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
    static_cast<void>(qvdb::salvage(path(), path("salvaged.qvd")));
    writeFile(path(), contents("salvaged.qvd"));
    std::filesystem::remove(path("salvaged.qvd"));
    std::vector<std::string> found = payloads();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<std::string>{"before", "committed", "first", "of another program",
                                               "second"}));
  }
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

// Who cannot see whether something is to be completed must not go on as if nothing were.
TEST_F(OpeningAfterACrash, IsRefusedWhereTheSystemDoesNotReadTheFile) {
  const Bytes crashed = contents();
  for (const auto call : {RecordedCalls::Call::read, RecordedCalls::Call::length}) {
    for (int skip = 0;; ++skip) {
      writeFile(path(), crashed);
      RecordedCalls host;
      host.failOnce(call, skip);
      bool isOpened = false;
      try {
        qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
        isOpened = true;
      } catch (const qvdb::Error& error) {
        EXPECT_EQ(error.reason(), qvdb::Reason::cannot_read) << error.what();
      }
      const bool hasFailed = host.failed();
      host.heal();
      if (isOpened) expectComplete();
      if (!hasFailed) break;
    }
  }
}

TEST_F(OpeningAfterACrash, IsNotNeededToCheckOrToCopy) {
  const Bytes crashed = contents();
  EXPECT_EQ(codesOf(path()), (std::set<std::string>{"S7", "X2"}));
  static_cast<void>(qvdb::compact(path(), path("compact.qvd")));
  EXPECT_EQ(contentsOf(contents("compact.qvd")), after_);
  static_cast<void>(qvdb::salvage(path(), path("salvaged.qvd")));
  EXPECT_EQ(readDatabase(contents("salvaged.qvd")).tables.size(), 1u);
  EXPECT_EQ(readDatabase(contents("salvaged.qvd")).tables[0].records.size(), 2u);
  EXPECT_EQ(contents(), crashed);
}

TEST_F(OpeningAfterACrash, IsNeededToPack) {
  const Bytes crashed = contents();
  try {
    static_cast<void>(qvdb::pack(path(), path("packed.qvd")));
    ADD_FAILURE() << "packed";
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(error.reason(), qvdb::Reason::in_use) << error.what();
  }
  EXPECT_EQ(contents(), crashed);
  EXPECT_FALSE(std::filesystem::exists(path("packed.qvd")));
  static_cast<void>(qvdb::mend(path()));
  static_cast<void>(qvdb::pack(path(), path("packed.qvd")));
  EXPECT_EQ(readDatabase(contents("packed.qvd")).tables.at(0).records.size(), 2u);
}

TEST_F(OpeningAfterACrash, LeavesIntentsThatCheckKnows) {
  qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
  EXPECT_EQ(codesOf(path()), (std::set<std::string>{"S7", "X1"}));
  static_cast<void>(qvdb::compact(path(), path("compact.qvd")));
  EXPECT_TRUE(codesOf(path("compact.qvd")).empty());
}

TEST_F(OpeningAfterACrash, IsReportedWhereTheWordIsDamaged) {
  const Bytes crashed = contents();
  writeFile(path(), crashed.with(4560, Bytes().be(1, 0x55)));
  EXPECT_EQ(codesOf(path()).count("X5"), 1u);
  EXPECT_EQ(codesOf(path()).count("D10"), 0u);
  // Bytes without a start, as one of the packs leaves them, are no word.
  Bytes image = crashed.with(4558, Bytes().zeros(24)).with(4558 + 16, Bytes().be(1, 40));
  writeFile(path(), image);
  EXPECT_EQ(codesOf(path()).count("X5"), 0u);
  EXPECT_EQ(codesOf(path()).count("D10"), 1u);
  qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
  EXPECT_EQ(contents(), image);
}

TEST_F(OpeningAfterACrash, LeavesATableAloneThatAnotherProgramHasChanged) {
  const int16_t db = open();
  const uint64_t table = readDatabase(contents()).tables[0].id;
  addRecord(db, table, bytesOf("from another program"));
  close(db);
  const std::string changed = contentsOf(contents());
  EXPECT_EQ(codesOf(path()).count("X3"), 1u);
  qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
  EXPECT_EQ(contentsOf(contents()), changed);
  EXPECT_EQ(contents().at(4558, 24), Bytes().zeros(24));
  EXPECT_EQ(codesOf(path()).count("X3"), 1u);
  EXPECT_EQ(codesOf(path()).count("S2"), 1u);  // what the transaction had added
}

TEST_F(OpeningAfterACrash, IsNotNeededForABackup) {
  const Bytes crashed = contents();
  const intents::RecoveryPlan plan = intents::plan(BytesReader(crashed));
  ASSERT_GT(plan.writes.size(), 1u);
  Bytes state = crashed;
  for (const intents::PlannedWrite& write : plan.writes) {
    writeFile(path(), state);
    std::filesystem::remove(path("backup.qvd"));
    qvdb::Database::open(path(), qvdb::Mode::read_only).backup(path("backup.qvd"));
    qvdb::Database::open(path("backup.qvd"), qvdb::Mode::exclusive).close();
    EXPECT_EQ(contentsOf(contents("backup.qvd")), after_);
    state = state.with(static_cast<size_t>(write.position),
                       Bytes(write.bytes.begin(), write.bytes.end()));
  }
}

// The process ends after all was put into its place, and before that was noted.
TEST_F(OpeningAfterACrash, IsOfNoImportanceWhereAllIsInPlaceAndOthersHaveGoneOn) {
  const Bytes word = contents().at(4558, 24);
  qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
  writeFile(path(), contents().with(4558, word));
  const int16_t db = open();
  const uint64_t table = readDatabase(contents()).tables[0].id;
  addRecord(db, table, bytesOf("from another program"));
  const std::vector<ReadRecord> records = readDatabase(contents()).tables[0].records;
  EXPECT_EQ(DeleteOneRecord(db, table, records[0].id, nullptr), 1);
  const Bytes longer(200, 'x');
  EXPECT_EQ(ModifyRecordData(db, table, longer.data(), 200, records[1].id, nullptr), 1);
  close(db);
  const std::string changed = contentsOf(contents());
  EXPECT_EQ(codesOf(path()).count("X3"), 0u);
  qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
  EXPECT_EQ(contentsOf(contents()), changed);
  EXPECT_EQ(codesOf(path()).count("X3"), 0u);
}

TEST_F(OpeningAfterACrash, IgnoresACommitThatWasTorn) {
  const Bytes crashed = contents();
  const Bytes before = crashed.with(4558, Bytes().zeros(24));
  for (const size_t lost : {size_t{1}, size_t{30}, size_t{80}, size_t{200}, size_t{500}}) {
    writeFile(path(), crashed.cut(crashed.size() - lost));
    qvdb::Database::open(path(), qvdb::Mode::exclusive).close();
    EXPECT_EQ(contents(), before.cut(crashed.size() - lost)) << lost;
  }
}

}  // namespace
}  // namespace qvdbase::test
