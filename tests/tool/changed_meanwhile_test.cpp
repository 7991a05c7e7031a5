// What reads all of a database, beside a program that writes to it: a dump, a digest or a
// comparison that could be of no single moment does not look like a whole one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>

#include "kit/old_file.h"
#include "tool/tool_fixture.h"
#include "tools/qvdb/content/digests.h"
#include "tools/qvdb/content/dump_writer.h"
#include "tools/qvdb/content/json_lines.h"
#include "tools/qvdb/content/patch_writer.h"
#include "tools/qvdb/content/steady_file.h"

namespace qvdbase::test {
namespace {

namespace fs = std::filesystem;
using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::tool::ChangedMeanwhile;

constexpr int kRecords = 4000;

class ToolBesideAWriter : public ToolTest {
 protected:
  // Two tables, the first of which takes more lines than a pipe holds.
  void SetUp() override {
    auto database = Database::create(path());
    auto first = database.add_table("first");
    auto second = database.add_table("second");
    oldest_ = first.add("oldest");
    auto appender = first.appender();
    for (int i = 2; i < kRecords; ++i) appender.add("record " + std::to_string(i));
    appender.finish();
    newest_ = first.add("newest");
    second.add("of the second");
    database.close();
    makeOld(path());
  }

  // In both tables: what had both or none of it was of one moment.
  void change() {
    auto database = Database::open(path(), Mode::exclusive);
    database.table("first").modify(newest_, "changed");
    database.table("second").add("added");
  }

  // Runs the tool with its output in a pipe, and the function when it has begun to write.
  Outcome runInPipe(const Words& words, const std::function<void()>& then) {
    const fs::path pipe = path("pipe");
    EXPECT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    // Opened first: the program's opening waits for a reader.
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(::fcntl(reader, F_SETFL, 0), 0);
    std::string taken;
    ProgramCall call = callOf(words);
    call.outputFile = pipe;
    call.meanwhile = [&](pid_t) {
      char buffer[4096];
      bool isFirst = true;
      for (;;) {
        const ssize_t got = ::read(reader, buffer, sizeof buffer);
        if (got <= 0) break;
        taken.append(buffer, static_cast<size_t>(got));
        if (isFirst) then();
        isFirst = false;
      }
    };
    Outcome outcome = runProgram(call);
    ::close(reader);
    outcome.out = taken;
    fs::remove(pipe);
    return outcome;
  }

  Id oldest_;
  Id newest_;
};

TEST_F(ToolBesideAWriter, ADumpOfNoSingleMomentLacksItsEnd) {
  Outcome outcome = runInPipe({"dump", "test.qvd"}, [&] { change(); });
  EXPECT_EQ(outcome.status, 3);
  expectOneLine(outcome.err, {"test.qvd", "written to while it was read", "qvdb backup"});
  EXPECT_EQ(outcome.out.find("\"end\":\"dump\""), std::string::npos);
  fails({"load", "new.qvd", "-"}, 1, {"end"}, outcome.out);
  EXPECT_FALSE(fs::exists(path("new.qvd")));

  makeOld(path());
  outcome = runInPipe({"dump", "test.qvd"}, [] {});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_NE(outcome.out.find("\"end\":\"dump\""), std::string::npos);
}

// It is a list of records, which goes on where the next one begins.
TEST_F(ToolBesideAWriter, ADumpAfterARecordTakesWhatItFinds) {
  const std::string oldest = qvdb::to_string(oldest_);
  const Outcome outcome =
      runInPipe({"dump", "--table", "first", "--after", oldest, "test.qvd"}, [&] { change(); });
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), kRecords - 1 + 4);
}

TEST_F(ToolBesideAWriter, ADigestOfNoSingleMomentIsNotPrinted) {
  const Outcome outcome = runInPipe({"digest", "--records", "test.qvd"}, [&] { change(); });
  EXPECT_EQ(outcome.status, 3);
  expectOneLine(outcome.err, {"test.qvd", "written to while it was read"});
  EXPECT_EQ(outcome.out.find("  test.qvd\n"), std::string::npos);
}

TEST_F(ToolBesideAWriter, ADifferenceOfNoSingleMomentIsTrouble) {
  done({"create", "none.qvd"});
  const std::vector<Words> commands = {{"diff", "none.qvd", "test.qvd"},
                                       {"diff", "--json", "none.qvd", "test.qvd"},
                                       {"diff", "--patch", "none.qvd", "test.qvd"}};
  for (const Words& words : commands) {
    makeOld(path());
    const Outcome outcome = runInPipe(words, [&] { change(); });
    EXPECT_EQ(outcome.status, 2);
    expectOneLine(outcome.err, {"test.qvd", "written to while it was read"});
    EXPECT_EQ(outcome.out.find("\"end\":\"patch\""), std::string::npos);
  }
}

// Whatever replaces the file: what was open was whole, but that is not known of it.
TEST_F(ToolBesideAWriter, ACompactionCountsAsAChange) {
  const Outcome outcome = runInPipe({"dump", "test.qvd"}, [&] { done({"compact", "test.qvd"}); });
  EXPECT_EQ(outcome.status, 3);
}

TEST_F(ToolBesideAWriter, AllThatReadsEverythingLooksAgainAtItsEnd) {
  const Database database = Database::open(path());
  bool changes = true;
  const auto changeOnce = [&] {
    if (changes) change();
    changes = false;
  };
  qvdb::tool::DigestListener listener;
  listener.record = [&](const auto&) { changeOnce(); };
  EXPECT_THROW(qvdb::tool::digestOf(database, listener), ChangedMeanwhile);
  EXPECT_NO_THROW(qvdb::tool::digestOf(database, listener));
  changes = true;
  qvdb::tool::JsonLines lines([&](std::string_view) { changeOnce(); });
  EXPECT_THROW(qvdb::tool::dumpDatabase(database, {}, lines), ChangedMeanwhile);
  EXPECT_NO_THROW(qvdb::tool::dumpDatabase(database, {}, lines));
  done({"create", "none.qvd"});
  const Database none = Database::open(path("none.qvd"));
  changes = true;
  EXPECT_THROW(qvdb::tool::writePatch(none, database, lines), ChangedMeanwhile);
  EXPECT_TRUE(qvdb::tool::writePatch(none, database, lines));
}

// A change in the same step of the file system's clock would not show.
TEST_F(ToolBesideAWriter, ItWaitsUntilAnotherChangeWouldShow) {
  const Database database = Database::open(path());
  fs::last_write_time(path(), fs::file_time_type::clock::now());
  const qvdb::tool::SteadyFile steady(database);
  change();
  EXPECT_THROW(steady.require(), ChangedMeanwhile);
}

TEST_F(ToolBesideAWriter, ItIsTriedAgainAsLongAsWaitAllows) {
  const auto before = qvdb::tool::waitSeconds;
  int attempts = 0;
  const auto attempt = [&] {
    if (++attempts < 3) throw ChangedMeanwhile("x");
    return attempts;
  };
  qvdb::tool::waitSeconds = 1000;
  EXPECT_EQ(qvdb::tool::whileChanging(attempt), 3);
  qvdb::tool::waitSeconds = std::nullopt;
  attempts = 0;
  EXPECT_THROW(qvdb::tool::whileChanging(attempt), ChangedMeanwhile);
  qvdb::tool::waitSeconds = before;
}

}  // namespace
}  // namespace qvdbase::test
