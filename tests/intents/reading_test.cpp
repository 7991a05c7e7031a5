// Reading a database in which transactions are committed but not in their places: what a crash has
// left, and what happens to it while it is open for reading only.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "intents/commit.h"
#include "intents/recovery.h"
#include "intents/shown_contents.h"
#include "intents/staged_transactions.h"
#include "kit/database_fixture.h"
#include "kit/forked.h"
#include "kit/recorded_calls.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;

// The file once recovery is through with it, in memory.
Bytes completed(Bytes file) {
  for (const intents::PlannedWrite& write : intents::plan(BytesReader(file)).writes) {
    file = file.with(static_cast<size_t>(write.position),
                     Bytes(write.bytes.begin(), write.bytes.end()));
  }
  return file;
}

class ReadingAfterACrash : public DatabaseTest {
 protected:
  // Three commits, of which nothing is in its place: records of one table that were added, moved
  // and removed, table data, and a table that is new.
  void SetUp() override {
    int16_t db = create();
    notes_ = addTable(db, "notes");
    addTable(db, "other");
    for (const uint64_t id : {1u, 2u, 3u, 4u, 5u}) assignRecord(db, notes_, id, text("as it was"));
    close(db);
    sound_ = contents();
    db = open();
    intents::CommitLog log(db, intents::Durability::power);
    log.holdBack(64);
    commit(&log, [&](int16_t work) {
      change(work, 3, 100);
      assignRecord(work, notes_, 6, text("added"));
    });
    commit(&log, [&](int16_t work) {
      EXPECT_EQ(DeleteOneRecord(work, notes_, 1, nullptr), 1);
      change(work, 6, 200);
      setTableData(work, notes_, text("data"));
    });
    commit(&log,
           [&](int16_t work) { assignRecord(work, addTable(work, "new"), 7, text("first")); });
    close(db);
    crashed_ = contents();
    plan_ = intents::plan(BytesReader(crashed_));
    after_ = tableContentsOf(completed(crashed_));
    ASSERT_EQ(plan_.intents.size(), 3u);
    ASSERT_NE(after_, tableContentsOf(crashed_));
    allowDamage("test.qvd");
  }

  static Bytes text(const std::string& of) { return Bytes().text(of); }

  void change(int16_t db, uint64_t id, uint32_t size) {
    EXPECT_EQ(ModifyRecordData(db, notes_, Bytes(size, 'x').data(), size, id, nullptr), 1);
  }

  template <typename Work>
  void commit(intents::CommitLog* log, const Work& work) {
    Bytes before = contents();
    log->held().layOver(0, before.data(), before.size());
    writeFile(path("work.qvd"), before.with(4558, Bytes().zeros(24)));
    const int16_t db = open("work.qvd");
    work(db);
    close(db);
    const Bytes after = contents("work.qvd").with(4558, before.at(4558, 24));
    ASSERT_EQ(log->commit(changesBetween(before, after)).outcome, intents::Outcome::committed);
  }

  Database reader() { return Database::open(path(), Mode::read_only); }

  uint64_t notes_ = 0;
  Bytes sound_;
  Bytes crashed_;
  intents::RecoveryPlan plan_;
  TableContents after_;
};

TEST_F(ReadingAfterACrash, ShowsWhatIsCommittedHoweverMuchOfItIsInPlace) {
  Bytes state = crashed_;
  for (size_t made = 0; made <= plan_.writes.size(); ++made) {
    writeFile(path(), state);
    EXPECT_EQ(shownBy(reader()), after_) << made;
    EXPECT_EQ(Database::inspect(path()).table_count, 3) << made;
    EXPECT_TRUE(sameBytes(contents(), state)) << made;
    if (made == plan_.writes.size()) break;
    const intents::PlannedWrite& write = plan_.writes[made];
    state = state.with(static_cast<size_t>(write.position),
                       Bytes(write.bytes.begin(), write.bytes.end()));
  }
}

TEST_F(ReadingAfterACrash, ShowsItThroughIndexesWalksAndReaders) {
  const Database database = reader();
  const qvdb::Table notes = database.table("notes");
  const qvdb::RecordIndex index = notes.index();
  EXPECT_FALSE(notes.contains(Id{1}));
  EXPECT_EQ(notes.get(Id{6})->size(), 200u);
  EXPECT_EQ(notes.last()->id(), Id{6});
  EXPECT_EQ(notes.first()->id(), Id{2});
  EXPECT_EQ(index.size(), 5u);
  EXPECT_EQ(shownBy(database), after_);
  const qvdb::Reader view = database.reader();
  EXPECT_EQ(view.table("notes").count(), 5u);
  EXPECT_EQ(view.table("new").get(Id{7})->size(), 5u);
  EXPECT_EQ(inForkedChild([&] { return shownBy(database) == after_ ? 0 : 1; }), 0);
}

// The C functions know nothing of it, also through the number of such a database.
TEST_F(ReadingAfterACrash, ConcernsNoCFunction) {
  const Database database = reader();
  EXPECT_EQ(shownBy(database), after_);
  int32_t tables = 0;
  EXPECT_EQ(GetNumberOfTable(database.handle(), &tables), 1);
  EXPECT_EQ(tables, 2);
  EXPECT_EQ(numberOfRecords(database.handle(), notes_), 5u);
  EXPECT_EQ(shownBy(database), after_);
}

// Whatever is missing when a look begins, it is read as it will be.
TEST_F(ReadingAfterACrash, GivesWayToTheOneWhoCompletesIt) {
  const Database database = reader();
  const qvdb::Table notes = database.table("notes");
  std::vector<uint64_t> walked;
  for (const qvdb::Record& record : notes.records()) {
    walked.push_back(record.id().value);
    if (walked.size() != 2) continue;
    EXPECT_EQ(inForkedChild([&] {
                Database::open(path(), Mode::exclusive).close();
                return 0;
              }),
              0);
  }
  EXPECT_EQ(walked, (std::vector<uint64_t>{2, 3, 4, 5, 6}));
  EXPECT_EQ(shownBy(database), after_);
  EXPECT_EQ(contents().at(4558, 24), Bytes().zeros(24));
  EXPECT_EQ(inForkedChild([&] {
              Database writer = Database::open(path(), Mode::exclusive);
              writer.table("notes").add_with_id(Id{8}, "later");
              writer.table("notes").remove(Id{2});
              return 0;
            }),
            0);
  EXPECT_EQ(shownBy(database), tableContentsOf(contents()));
  EXPECT_FALSE(notes.contains(Id{2}));
  EXPECT_TRUE(notes.contains(Id{8}));
}

// While the database is open for reading: it always shows what completing would make of the file,
// of tables that can no longer be completed what is in the file.
TEST_F(ReadingAfterACrash, FollowsWhatCFunctionsMakeOfTheFileMeanwhile) {
  const std::vector<std::function<void(int16_t)>> calls = {
      [&](int16_t db) { assignRecord(db, notes_, 20, text("by another program")); },
      [&](int16_t db) { EXPECT_EQ(DeleteOneRecord(db, notes_, 2, nullptr), 1); },
      [&](int16_t db) { change(db, 4, 500); },
      [&](int16_t db) { change(db, 4, 4); },
      [&](int16_t db) { setTableData(db, notes_, text("other data")); },
      [&](int16_t db) { addTable(db, "another"); },
      [&](int16_t db) { EXPECT_EQ(DeleteOneRecord(db, notes_, 5, nullptr), 1); },
  };
  for (size_t i = 0; i < calls.size(); ++i) {
    for (const bool isInPlace : {false, true}) {
      SCOPED_TRACE("call " + std::to_string(i) + (isInPlace ? " after" : " before") +
                   " all was in place");
      writeFile(path(), isInPlace ? completed(crashed_) : crashed_);
      const Database database = reader();
      EXPECT_EQ(shownBy(database), after_);
      const int16_t db = open();
      calls[i](db);
      close(db);
      const TableContents shown = shownBy(database);
      EXPECT_EQ(shown, tableContentsOf(completed(contents())));
      EXPECT_EQ(shown, shownBy(reader()));
      Database::open(path(), Mode::exclusive).close();
      EXPECT_EQ(shown, shownBy(database));
      EXPECT_EQ(shown, tableContentsOf(contents()));
    }
  }
}

// The log has not put anything into its place; the other opener is one that shares the file in the
// same process.
TEST_F(ReadingAfterACrash, IsTheSameForThoseWhoShareTheFile) {
  writeFile(path(), sound_);
  Database shared = Database::open(path(), Mode::shared);
  EXPECT_EQ(shownBy(shared), tableContentsOf(sound_));
  const int16_t db = open();
  {
    intents::CommitLog log(db, intents::Durability::interval);
    commit(&log, [&](int16_t work) { assignRecord(work, notes_, 6, text("added")); });
    ASSERT_FALSE(log.held().isEmpty());
    EXPECT_EQ(shared.table("notes").get(Id{6})->size(), 5u);
    commit(&log, [&](int16_t work) { change(work, 6, 300); });
    EXPECT_EQ(shared.table("notes").get(Id{6})->size(), 300u);
    EXPECT_EQ(shownBy(reader()), shownBy(shared));
    ASSERT_TRUE(log.settle());
  }
  EXPECT_EQ(shared.table("notes").get(Id{6})->size(), 300u);
  close(db);
}

TEST_F(ReadingAfterACrash, NeverShowsTheStateBeforeBecauseAReadFails) {
  for (const auto call : {RecordedCalls::Call::read, RecordedCalls::Call::length}) {
    int failed = 0;
    for (int skip = 0;; ++skip) {
      RecordedCalls host;
      host.failOnce(call, skip);
      try {
        EXPECT_EQ(shownBy(reader()), after_) << skip;
      } catch (const qvdb::Error& error) {
        EXPECT_EQ(error.reason(), qvdb::Reason::cannot_read) << error.what();
        ++failed;
      }
      const bool hasFailed = host.failed();
      host.heal();
      if (!hasFailed) break;
    }
    EXPECT_GT(failed, call == RecordedCalls::Call::read ? 20 : 1);
  }
  EXPECT_TRUE(sameBytes(contents(), crashed_));
}

// What was read once of a run of intents is not read again for each look.
TEST_F(ReadingAfterACrash, CostsAFewReadsForEachLook) {
  const Database database = reader();
  const qvdb::Table notes = database.table("notes");
  EXPECT_TRUE(notes.contains(Id{2}));
  RecordedCalls host;
  EXPECT_TRUE(notes.contains(Id{2}));
#if defined(QVDBASE_PLAIN_TRANSFERS)
  constexpr int kOfALookup = 20;  // a header is read field by field
#else
  constexpr int kOfALookup = 8;
#endif
  EXPECT_LE(host.count(RecordedCalls::Call::read),
            static_cast<int>(plan_.writes.size()) + kOfALookup);
}

}  // namespace
}  // namespace qvdbase::test
