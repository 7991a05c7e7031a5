// qvdb::trim: what is dead goes, what is in use stays byte for byte, and what went is reported.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <qvdbase/qvdb/trim.hpp>

#include <csignal>

#include "kit/holes.h"
#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Reason;

class Trim : public LayerTest {
 protected:
  // Live and dead payloads beside each other: deleted, changed into a new block, small.
  void SetUp() override {
    if (!kCanMakeHoles) GTEST_SKIP() << "the library makes no holes";
    LayerTest::SetUp();
    auto database = createDatabase();
    auto table = database.add_table("t");
    for (uint64_t id = 1; id <= 8; ++id) {
      table.add_with_id(Id{id},
                        span(pattern(id % 4 == 0 ? 900 : 30'000, static_cast<unsigned>(id))));
    }
    table.remove(*table.find(Id{2}));
    table.remove(*table.find(Id{4}));
    table.remove(*table.find(Id{8}));
    table.modify(*table.find(Id{3}), span(pattern(50'000, 30)));
    table.set_data(span(pattern(20'000, 7)));
  }

  uint64_t storedBytes() const {
    struct stat status = {};
    EXPECT_EQ(::stat(path().c_str(), &status), 0);
    return static_cast<uint64_t>(status.st_blocks) * 512;
  }

  // What is in use, in the order of the table.
  std::vector<Bytes> inUse() {
    const auto database = openDatabase(qvdb::Mode::read_only);
    const auto table = database.table("t");
    std::vector<Bytes> result;
    for (const qvdb::Record& record : table.records()) result.push_back(bytes(record.payload()));
    result.push_back(bytes(table.data()));
    return result;
  }

  std::vector<qvdb::FoundBlock> versions(uint64_t id) { return qvdb::history(path(), "t", Id{id}); }
};

TEST_F(Trim, GivesWholePagesOfDeadPayloadsBackAndChangesNothingElse) {
  const Bytes before = contents();
  const auto live = inUse();
  const uint64_t stored = storedBytes();
  const qvdb::TrimReport planned = qvdb::trim(path(), {.dry_run = true});
  EXPECT_TRUE(sameBytes(contents(), before));
  const qvdb::TrimReport report = qvdb::trim(path());
  EXPECT_EQ(report.payloads, 2u);  // of records 2 and 3; those of 4 and 8 are smaller than a page
  EXPECT_EQ(report.bytes, planned.bytes);
  EXPECT_GE(report.bytes, 2u * 6 * 4096);
  EXPECT_LT(report.bytes, 60'000u);
  EXPECT_EQ(storedBytes(), stored - report.bytes);
  EXPECT_EQ(inUse(), live);
  // Wherever a byte differs it is one of a dead payload: the mark, or a zero.
  const Bytes after = contents();
  ASSERT_EQ(after.size(), before.size());
  uint64_t changed = 0;
  for (const uint64_t id : {uint64_t{2}, uint64_t{3}}) {
    const auto block = versions(id).front();
    const auto begin = static_cast<size_t>(block.offset) + 55;
    for (size_t i = begin; i < begin + block.capacity; ++i)
      if (after[i] != before[i]) ++changed;
  }
  uint64_t all = 0;
  for (size_t i = 0; i < after.size(); ++i)
    if (after[i] != before[i]) ++all;
  EXPECT_EQ(changed, all);
  EXPECT_EQ(qvdb::trim(path()).bytes, 0u);
  EXPECT_EQ(qvdb::check(path()).errors, 0u);
}

TEST_F(Trim, IsReportedByAllThatBringsPayloadsBack) {
  qvdb::trim(path());
  for (const uint64_t id : {uint64_t{2}, uint64_t{3}}) {
    const auto block = versions(id).front();
    EXPECT_TRUE(block.is_trimmed);
    const auto message =
        expectError(Reason::cannot_read, [&] { qvdb::read_version(path(), block); });
    EXPECT_NE(message.find("given back"), std::string::npos) << message;
    expectError(Reason::cannot_read,
                [&] { qvdb::undelete(path(), path("back.qvd"), "t", Id{id}, block.offset); });
  }
  EXPECT_FALSE(versions(4).front().is_trimmed);
  EXPECT_EQ(bytes(qvdb::read_version(path(), versions(4).front())), pattern(900, 4));
  qvdb::undelete(path(), path("back.qvd"), "t", Id{4});
  const auto report =
      qvdb::salvage(path(), path("saved.qvd"), {}, {.deleted = true, .versions = true});
  EXPECT_TRUE(report.verified);
  ASSERT_FALSE(report.notes.empty());
  EXPECT_EQ(
      report.notes.front(),
      "Left out: 2 records of which the payload was given back to the file system by a trim.");
  const auto saved = openDatabase(qvdb::Mode::read_only, "saved.qvd");
  EXPECT_EQ(idsOf(saved.table("lost-and-found")).size(), 2u);  // 4 and 8
}

TEST_F(Trim, IsStillKnownInACopyWithoutHoles) {
  qvdb::trim(path());
  writeFile(path(), contents());
  EXPECT_TRUE(versions(2).front().is_trimmed);
  EXPECT_GT(qvdb::trim(path()).bytes, 0u);  // the zeros go again
  EXPECT_EQ(qvdb::compact(path()).records, 5u);
  EXPECT_EQ(inUse().size(), 6u);
}

TEST_F(Trim, FollowsATransactionThatIsOver) {
  {
    auto database = openDatabase();
    database.transaction([&](qvdb::Transaction& t) {
      auto table = t.table("t");
      table.add_with_id(Id{20}, span(pattern(30'000, 20)));
      table.modify(*table.find(Id{5}), span(pattern(60'000, 5)));
    });
    auto table = database.table("t");
    table.remove(*table.find(Id{20}));
  }
  const auto live = inUse();
  EXPECT_EQ(qvdb::trim(path()).payloads, 4u);
  EXPECT_EQ(inUse(), live);
  EXPECT_EQ(qvdb::check(path()).errors, 0u);
}

TEST_F(Trim, RefusesAFileThatIsOpen) {
  const Bytes before = contents();
  for (const auto mode : {qvdb::Mode::exclusive, qvdb::Mode::read_only}) {
    const auto database = openDatabase(mode);
    expectError(Reason::in_use, [&] { qvdb::trim(path()); });
  }
  EXPECT_TRUE(sameBytes(contents(), before));
}

TEST_F(Trim, RefusesADamagedFile) {
  allowDamage();
  const auto position = static_cast<size_t>(openDatabase().table("t").find(Id{5})->info().position);
  patchFile(path(), position, Bytes{0});
  const Bytes before = contents();
  expectError(Reason::damaged, [&] { qvdb::trim(path()); });
  EXPECT_TRUE(sameBytes(contents(), before));
}

TEST_F(Trim, SaysThatTheFileSystemHasNoHolesAndChangesNothing) {
  const Bytes before = contents();
  RecordedCalls host;
  host.failFrom(Call::punchHole, 0, EOPNOTSUPP);
  const auto message = expectError(Reason::cannot_write, [&] { qvdb::trim(path()); });
  EXPECT_NE(message.find("'qvdb compact'"), std::string::npos) << message;
  host.heal();
  EXPECT_TRUE(sameBytes(contents(), before));
}

TEST_F(Trim, LeavesASoundFileWhereverACallFails) {
  const Bytes before = contents();
  const auto live = inUse();
  for (const Call kind : {Call::write, Call::sync, Call::syncData, Call::punchHole, Call::read}) {
    for (int skip = 0;; ++skip) {
      SCOPED_TRACE(std::string(nameOf(kind)) + " " + std::to_string(skip));
      writeFile(path(), before);
      RecordedCalls host;
      host.failFrom(kind, skip, EIO);
      bool hasThrown = false;
      try {
        qvdb::trim(path());
      } catch (const qvdb::Error&) {
        hasThrown = true;
      }
      const bool hasFailed = host.failed();
      host.heal();
      if (!hasFailed) break;
      EXPECT_TRUE(hasThrown);
      EXPECT_EQ(inUse(), live);
      EXPECT_EQ(qvdb::check(path()).errors, 0u);
      const auto block = versions(2).front();
      if (!block.is_trimmed) {
        EXPECT_EQ(bytes(qvdb::read_version(path(), block)), pattern(30'000, 2));
      }
    }
  }
}

TEST_F(Trim, LeavesASoundFileWhereverItIsKilled) {
  const Bytes before = contents();
  const auto live = inUse();
  for (int skip = 0;; ++skip) {
    SCOPED_TRACE("killed after " + std::to_string(skip) + " calls");
    writeFile(path(), before);
    const pid_t child = ::fork();
    if (child == 0) {
      RecordedCalls host;
      int left = skip;
      host.observe([&](Call kind) {
        const bool changes = kind == Call::write || kind == Call::punchHole || kind == Call::sync;
        if (changes && left-- == 0) ::kill(::getpid(), SIGKILL);
      });
      qvdb::trim(path());
      ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(inUse(), live);
    EXPECT_EQ(qvdb::check(path()).errors, 0u);
    const auto block = versions(3).front();
    if (!block.is_trimmed) {
      EXPECT_EQ(bytes(qvdb::read_version(path(), block)), pattern(30'000, 3));
    }
    qvdb::trim(path());
    EXPECT_EQ(qvdb::trim(path()).bytes, 0u);
    if (!WIFSIGNALED(status)) break;
  }
}

}  // namespace
}  // namespace qvdbase::test
