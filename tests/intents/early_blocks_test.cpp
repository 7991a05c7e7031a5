// Blocks that a large transaction writes before its commit: what is left of them when it is rolled
// back, or killed, and what everybody makes of that.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "intents/staged_transactions.h"
#include "kit/database_fixture.h"
#include "kit/file_checker.h"
#include "kit/holes.h"
#include "kit/recorded_calls.h"
#include "kit/replaced_calls.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Table;

constexpr size_t kPrelude = 98;

// The findings of a check that are more than information, and those about transactions.
std::set<std::string> findingsOf(const std::filesystem::path& file) {
  std::set<std::string> codes;
  static_cast<void>(qvdb::check(file, [&](const qvdb::Finding& finding) {
    const std::string code = finding.code;
    if (finding.severity != qvdb::Severity::information || code[0] == 'X') codes.insert(code);
  }));
  return codes;
}

class EarlyBlocks : public DatabaseTest {
 protected:
  void SetUp() override {
    Database database = Database::create(path());
    Table notes = database.add_table("notes");
    for (const char* text : {"first", "second", "third", "fourth"}) ids_.push_back(notes.add(text));
    notes.remove(ids_[3]);
    notes.set_data("about notes");
    database.close();
    before_ = contents();
    content_ = contentsOf(before_);
    allowDamage(kDefaultFile);  // blocks of a table that never came to be
  }

  // Adds 17 MiB or more, which is more than is kept in memory, in records of a MiB, and changes
  // what there was.
  static void change(Database& database, const std::vector<Id>& ids, int records = 18) {
    const std::string large(size_t{1} << 20, 'x');
    Table notes = database.table("notes");
    notes.modify(ids[0], "longer than it was");
    notes.remove(ids[1]);
    notes.set_data("more about notes, which needs a block of its own");
    notes.add_with_id(ids[3], "fourth again");
    Table other = database.add_table("other");
    for (int i = 0; i < records; ++i) (i % 3 == 0 ? other : notes).add(large);
  }

  // As before for those who read, and for those who bring back.
  void expectNothingOfIt(const std::set<std::string>& expected) {
    EXPECT_EQ(findingsOf(path()), expected);
    EXPECT_EQ(contentsOf(contents()), content_);
    const auto versions = qvdb::deleted_records(path(), "notes");
    ASSERT_EQ(versions.size(), 1u);
    EXPECT_EQ(versions[0].record, ids_[3]);
    EXPECT_EQ(qvdb::read_version(path(), versions[0]).size(), 6u);  // "fourth"
    EXPECT_EQ(salvaged(), content_);
    static_cast<void>(qvdb::compact(path(), path("compact.qvd")));
    EXPECT_EQ(database("compact.qvd").tables.size(), 1u);
    EXPECT_EQ(database("compact.qvd").tables.at(0).records.size(), 3u);
    EXPECT_LT(fileSize("compact.qvd"), size_t{10'000});
    std::filesystem::remove(path("compact.qvd"));
  }

  std::string salvaged() {
    static_cast<void>(qvdb::salvage(path(), path("salvaged.qvd")));
    std::string found = contentsOf(contents("salvaged.qvd"));
    std::filesystem::remove(path("salvaged.qvd"));
    return found;
  }

  std::vector<Id> ids_;
  Bytes before_;
  std::string content_;
};

// The file as it is when the process ends at a write of the transaction, or within it.
TEST_F(EarlyBlocks, AreKnownForWhatTheyAreWhereverTheProcessEnds) {
  static std::vector<std::pair<size_t, size_t>> writes;  // position and length
  static std::vector<Bytes> parts;
  writes.clear();
  parts.clear();
  {
    ReplacedCalls calls;
    calls->writeAt = [](int descriptor, const void* bytes, size_t count, off_t position) {
      const ssize_t done = platform::hostSystemCalls().writeAt(descriptor, bytes, count, position);
      if (done > 0) {
        const auto* from = static_cast<const uint8_t*>(bytes);
        writes.emplace_back(static_cast<size_t>(position), static_cast<size_t>(done));
        Bytes part;
        part.insert(part.end(), from, from + done);
        parts.push_back(std::move(part));
      }
      return done;
    };
    Database database = Database::open(path(), Mode::exclusive);
    qvdb::Transaction t = database.begin();
    change(database, ids_, 40);
  }
  ASSERT_GE(writes.size(), 4u);  // the first with its prelude, then the prelude and the next
  EXPECT_EQ(contents(), before_);
  Bytes file = before_;
  for (size_t i = 0; i < writes.size(); ++i) {
    const auto [position, length] = writes[i];
    ASSERT_LE(position, file.size());
    std::vector<size_t> ends = {length};
    if (position == file.size()) {
      for (const size_t end : {kPrelude + 1, kPrelude + 56, kPrelude + 400, size_t{4096} * 300 + 7,
                               length - (size_t{1} << 20), length - 1}) {
        ends.push_back(end);
      }
    }
    for (const size_t end : ends) {
      SCOPED_TRACE("write " + std::to_string(i) + " up to " + std::to_string(end));
      Bytes state = file;
      state.resize(std::max(state.size(), position + end));
      std::copy_n(parts[i].begin(), end, state.begin() + static_cast<ptrdiff_t>(position));
      writeFile(path(), state);
      expectNothingOfIt({"X4"});
      // A mend has nothing to do, and takes them off where it is asked to.
      EXPECT_TRUE(qvdb::mend(path()).steps.empty());
      EXPECT_EQ(contents(), state);
      EXPECT_EQ(qvdb::mend(path(), {.cut_off = qvdb::CutOffWrites::discard}).steps.size(), 1u);
      EXPECT_TRUE(sameBytes(contents(), before_));
      if (HasFailure()) return;
    }
    file.resize(std::max(file.size(), position + length));
    std::copy(parts[i].begin(), parts[i].end(), file.begin() + static_cast<ptrdiff_t>(position));
  }
  // Whoever goes on finds a sound file, and so does whoever comes after.
  writeFile(path(), file);
  {
    Database database = Database::open(path(), Mode::exclusive);
    Table notes = database.table("notes");
    notes.add("after it");
    database.transaction([&](qvdb::Transaction&) { notes.add("and again"); });
    notes.remove(notes.last()->id());
  }
  content_ = contentsOf(contents());
  EXPECT_EQ(findingsOf(path()), (std::set<std::string>{"X1", "X4"}));
  EXPECT_EQ(salvaged(), content_);
  EXPECT_EQ(qvdb::deleted_records(path(), "notes").size(), 2u);
  if (kCanMakeHoles) {
    EXPECT_GT(qvdb::trim(path()).bytes, size_t{16} << 20);
  }
  EXPECT_EQ(contentsOf(contents()), content_);
}

TEST_F(EarlyBlocks, OfACommittedTransactionAreItsRecords) {
  {
    Database database = Database::open(path(), Mode::exclusive);
    database.transaction([&](qvdb::Transaction&) { change(database, ids_); });
  }
  const std::string after = contentsOf(contents());
  EXPECT_NE(after, content_);
  EXPECT_TRUE(checkFile(contents()).empty());
  EXPECT_EQ(findingsOf(path()), std::set<std::string>{"X1"});
  EXPECT_EQ(salvaged(), after);
  // What is removed later counts as deleted.
  {
    Database database = Database::open(path(), Mode::exclusive);
    Table other = database.table("other");
    while (other.count() > 0) other.remove(other.last()->id());
  }
  EXPECT_EQ(findingsOf(path()), std::set<std::string>{"X1"});
  EXPECT_EQ(qvdb::deleted_records(path(), "other").size(), 6u);
}

TEST_F(EarlyBlocks, AreCutOffByARollbackAfterEveryOperation) {
  Database database = Database::open(path(), Mode::exclusive);
  Table notes = database.table("notes");
  for (int records = 14; records < 40; records += 5) {
    qvdb::Transaction t = database.begin();
    change(database, ids_, records);
    t.rollback();
    EXPECT_TRUE(sameBytes(contents(), before_)) << records;
  }
  // One that has nothing to commit in the end leaves nothing, either.
  qvdb::Transaction t = database.begin();
  for (int i = 0; i < 20; ++i) notes.add(std::string(size_t{1} << 20, 'y'));
  while (notes.count() > 3) notes.remove(notes.last()->id());
  t.rollback();
  EXPECT_TRUE(sameBytes(contents(), before_));
}

TEST_F(EarlyBlocks, StayWhereTheFileCannotBeCut) {
  {
    Database database = Database::open(path(), Mode::exclusive);
    qvdb::Transaction t = database.begin();
    change(database, ids_);
    RecordedCalls host;
    host.failFrom(Call::truncate, 0);
    t.rollback();
    EXPECT_EQ(database.table("notes").count(), 3u);
  }
  EXPECT_GT(fileSize(), size_t{16} << 20);
  expectNothingOfIt({"X4"});
  // The transaction has added a record with this identifier again.
  EXPECT_EQ(qvdb::history(path(), "notes", ids_[3]).size(), 2u);
  static_cast<void>(qvdb::undelete(path(), path("undeleted.qvd"), "notes", ids_[3]));
  EXPECT_NE(contentsOf(contents("undeleted.qvd")).find(" fourth\n"), std::string::npos);
}

// Where another program has appended meanwhile, nothing is cut off, and nothing of that is lost.
TEST_F(EarlyBlocks, StayWhereAnotherHasAppended) {
  {
    Database database = Database::open(path(), Mode::exclusive);
    qvdb::Transaction t = database.begin();
    change(database, ids_);
    const Bytes file = contents();
    t.rollback();
    writeFile(path("other.qvd"), file);
  }
  std::filesystem::rename(path("other.qvd"), path());
  const int16_t db = open();
  const uint64_t notes = FindTableByName(db, "notes");
  const uint64_t added = addRecord(db, notes, Bytes().text("by a C function"));
  const uint64_t deleted = addRecord(db, notes, Bytes().text("deleted"));
  EXPECT_EQ(DeleteOneRecord(db, notes, deleted, nullptr), 1);
  close(db);
  EXPECT_EQ(findingsOf(path()), std::set<std::string>{"X4"});
  EXPECT_EQ(salvaged(), contentsOf(contents()));
  const auto versions = qvdb::deleted_records(path(), "notes");
  EXPECT_EQ(versions.size(), 2u);
  EXPECT_NE(added, 0u);
}

// A chain that is broken later must not make its records those of a transaction that never was.
TEST_F(EarlyBlocks, AreNotTakenForUncommittedWhereTheIntentIsDamaged) {
  {
    Database database = Database::open(path(), Mode::exclusive);
    database.transaction([&](qvdb::Transaction&) { change(database, ids_); });
  }
  const std::string after = contentsOf(contents());
  Bytes file = contents();
  const std::string magic("QVtx\0\2", 6);
  const auto intent = std::search(file.begin(), file.end(), magic.begin(), magic.end());
  ASSERT_NE(intent, file.end());
  *(intent + 90) = static_cast<uint8_t>(*(intent + 90) ^ 1);  // in its hash
  allowDamage("test.qvd");
  writeFile(path(), file);
  EXPECT_EQ(findingsOf(path()).count("X4"), 0u);
  EXPECT_EQ(salvaged(), after);
}

}  // namespace
}  // namespace qvdbase::test
