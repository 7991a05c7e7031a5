// Transactions whose calls to the host fail, one after the other: when the database is opened and
// what a crash has left is completed, while a transaction is open, in its commit, before a plain
// operation, and when the database is closed.
//
// After each of them the file is looked at as if the process had ended there, and at the end it is
// opened again. A commit that returned is there, one that says that nothing was applied is not, and
// only of one that says so it is open which of the two it is.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "intents/commit.h"
#include "intents/recovery.h"
#include "intents/staged_transactions.h"
#include "kit/bytes.h"
#include "kit/file_checker.h"
#include "kit/file_reader.h"
#include "kit/old_file.h"
#include "kit/recorded_calls.h"
#include "kit/temp_folder.h"
#include "kit/test_extent.h"
#include "proof/failures.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Durability;
using qvdb::Id;
using qvdb::Table;

// The payloads of a table, in order, and its data, by the name of the table.
using State = std::map<std::string, std::vector<std::string>>;

State stateOf(const Bytes& file) {
  State state;
  for (const ReadTable& table : readDatabase(file).tables) {
    std::vector<std::string>& held = state[table.name];
    held.push_back(table.data ? table.data->data().str() : "");
    for (const ReadRecord& record : table.records) held.push_back(record.fields.data().str());
  }
  return state;
}

// What the next opener makes of the file.
Bytes completed(Bytes file, const intents::RecoveryPlan& plan) {
  for (const intents::PlannedWrite& write : plan.writes) {
    file = file.with(static_cast<size_t>(write.position),
                     Bytes(write.bytes.begin(), write.bytes.end()));
  }
  return file.with(4558, Bytes().zeros(24));
}

// A step of the program: what it does, and what that makes of the state.
struct Step {
  std::string name;
  std::function<void(Database&)> run;
  std::function<void(State&)> effect;
};

constexpr Id kGrows{0xA1};
constexpr Id kStays{0xA2};
constexpr Id kGoes{0xA3};

// All in one: a record that grows, one that is changed, one that comes and one that goes.
Step transfer(int number) {
  const std::string text = "transfer " + std::to_string(number);
  const std::string grown(static_cast<size_t>(30 * number), 'g');
  return {text,
          [=](Database& database) {
            database.transaction([&](qvdb::Transaction& t) {
              Table one = t.table("one");
              Table other = t.table("other");
              one.modify(kGrows, grown);
              one.modify(kStays, text);
              other.add(text);
              if (number == 2) one.remove(kGoes);
              if (number == 3) t.add_table("third").add(text);
              other.set_data(text + grown);
            });
          },
          [=](State& state) {
            auto& one = state["one"];
            one[1] = grown;
            one[2] = text;
            if (number == 2) one.erase(one.begin() + 3);
            if (number == 3) state["third"] = {"", text};
            state["other"].push_back(text);
            state["other"][0] = text + grown;
          }};
}

Step version() {
  return {"version", [](Database& database) { database.set_version(150); }, [](State&) {}};
}

Step alone() {
  return {"alone",
          [](Database& database) { database.table("one").modify(kStays, std::string(70, 'a')); },
          [](State& state) { state["one"][2] = std::string(70, 'a'); }};
}

Step many() {
  return {"many",
          [](Database& database) {
            qvdb::BulkAppender appender = database.table("other").appender();
            for (int i = 0; i < 3; ++i) appender.add("many");
            appender.finish();
          },
          [](State& state) { state["other"].insert(state["other"].end(), 3, "many"); }};
}

Step synced() {
  return {"synced", [](Database& database) { database.sync(); }, [](State&) {}};
}

// More than is kept in memory: most of it is written before the commit.
Step large() {
  const std::string payload(size_t{6} << 20, 'l');
  return {"large",
          [=](Database& database) {
            database.transaction([&](qvdb::Transaction& t) {
              Table other = t.table("other");
              for (int i = 0; i < 3; ++i) other.add(payload);
              t.table("one").modify(kStays, "after three large ones");
            });
          },
          [=](State& state) {
            state["other"].insert(state["other"].end(), 3, payload);
            state["one"][2] = "after three large ones";
          }};
}

struct Program {
  std::string name;
  Durability durability;
  std::vector<Step> steps;
  bool isCrashed = false;  // what it opens was left by a crash
  bool isMended = false;   // it is not opened, but mended
};

// Single operations are transactions only where each is to be on the device.
std::vector<Program> programs() {
  return {
      {"Process", Durability::process, {transfer(1), transfer(2), version(), transfer(3)}},
      {"Power", Durability::power, {transfer(1), alone(), many(), version(), transfer(3)}},
      {"Interval",
       Durability::interval(std::chrono::hours(1)),
       {transfer(1), alone(), synced(), many(), version(), transfer(3)}},
      {"AfterACrash", Durability::process, {transfer(4)}, true},
      {"AfterACrashOnTheDevice", Durability::power, {transfer(4)}, true},
      {"MendedAfterACrash", Durability::process, {}, true, true},
  };
}

class FailingTransactionSteps : public testing::TestWithParam<Program> {
 protected:
  struct Outcome {
    bool succeeded = false;
    bool failed = false;
  };

  std::filesystem::path path() const { return folder_ / "a.qvd"; }

  void SetUp() override {
    {
      Database database = Database::create(path());
      Table one = database.add_table("one");
      for (const Id id : {kGrows, kStays, kGoes}) one.add_with_id(id, "as it was", 12);
      Table other = database.add_table("other");
      other.add("first");
      other.set_data("data");
    }
    first_ = readFile(path());
    state_ = stateOf(first_);
    if (GetParam().isCrashed) leaveByACrash();
  }

  // The file as it is when a process ends after the sync of two commits.
  void leaveByACrash() {
    const int16_t db = OpenDBaseW(folder_.wide("a.qvd"), 3);
    ASSERT_NE(db, 0);
    intents::CommitLog log(db, intents::Durability::power);
    for (const int number : {1, 2}) {
      Bytes before = readFile(path());
      log.held().layOver(0, before.data(), before.size());
      writeFile(folder_ / "after.qvd", before.with(4558, Bytes().zeros(24)));
      const int16_t after = OpenDBaseW(folder_.wide("after.qvd"), 3);
      const uint64_t table = readDatabase(before).tables[1].id;
      const std::string text = "committed " + std::to_string(number);
      uint64_t id = 0;
      ASSERT_EQ(AddRecordData(after, table, reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<uint32_t>(text.size()), 0, &id),
                1);
      CloseDBase(after);
      const Bytes wanted = readFile(folder_ / "after.qvd").with(4558, before.at(4558, 24));
      ASSERT_EQ(log.commit(changesBetween(before, wanted)).outcome, intents::Outcome::committed);
      state_["other"].push_back(text);
    }
    ASSERT_FALSE(log.held().isEmpty());
    CloseDBase(db);
    first_ = readFile(path());
    ASSERT_NE(stateOf(first_), state_);
  }

  Outcome attempt(const Failure* failure, int skip) {
    writeFile(path(), first_);
    possible_ = {state_};
    isTorn_ = false;
    cutsForGood_ = failure != nullptr && failure->isForGood && failure->kind == Call::write;
    Outcome outcome;
    RecordedCalls host;
    if (failure != nullptr) failure->plan(host, skip);
    outcome.succeeded = runAll();
    outcome.failed = failure != nullptr && host.failed();
    host.heal();
    expectPossible("as it was left");
    expectOpens();
    return outcome;
  }

  // Whether no step has failed.
  bool runAll() {
    try {
      if (GetParam().isMended) return mend();
      Database database = Database::open(
          path(), {.mode = qvdb::Mode::exclusive, .durability = GetParam().durability});
      bool succeeded = true;
      for (const Step& step : GetParam().steps) succeeded = run(database, step) && succeeded;
      database.close();
      return succeeded;
    } catch (const qvdb::Error&) {
      return false;
    }
  }

  bool mend() {
    makeOld(path());
    const qvdb::MendReport report = qvdb::mend(path());
    EXPECT_FALSE(report.steps.empty());
    EXPECT_EQ(stateOf(readFile(path())), state_);
    EXPECT_EQ(readFile(path()).at(4558, 24), Bytes().zeros(24));
    return true;
  }

  bool run(Database& database, const Step& step) {
    SCOPED_TRACE(step.name);
    std::vector<State> after = possible_;
    for (State& state : after) step.effect(state);
    try {
      step.run(database);
      possible_ = after;
      expectPossible("done");
      return true;
    } catch (const qvdb::Error& error) {
      const std::string message = error.what();
      if (message.find("it is committed, but") != std::string::npos) {
        possible_ = after;
      } else if (message.find("whether it is committed shows when") != std::string::npos) {
        possible_.insert(possible_.end(), after.begin(), after.end());
      }
      expectPossible(message);
      return false;
    }
  }

  void expectPossible(const std::string& what) {
    if (HasFailure()) return;
    const Bytes left = readFile(path());
    const intents::RecoveryPlan plan = intents::plan(BytesReader(left));
    // A patch of which the host has taken a part, and then nothing more, is reported.
    if (!plan.contradicted.empty() && cutsForGood_) {
      ++reported_;
      isTorn_ = true;
    }
    if (isTorn_) return;
    EXPECT_TRUE(plan.contradicted.empty()) << what;
    const Bytes file = completed(left, plan);
    EXPECT_GE(file.size(), first_.size());
    try {
      const State found = stateOf(file);
      EXPECT_NE(std::find(possible_.begin(), possible_.end(), found), possible_.end()) << what;
    } catch (const std::exception& error) {
      ADD_FAILURE() << what << ": " << error.what();
    }
    for (const Finding& finding : checkFile(file)) {
      // Blocks that were never committed, or are not whole.
      const bool isLeftOver = finding.code == "S4" || finding.code == "S5" || finding.code == "S8";
      EXPECT_TRUE(isLeftOver) << what << ": " << finding.code << ' ' << finding.text;
    }
  }

  // The next opener, with a host that works: it finds what is possible, and writes.
  void expectOpens() {
    if (HasFailure() || isTorn_) return;
    Database database = Database::open(
        path(), {.mode = qvdb::Mode::exclusive, .durability = GetParam().durability});
    database.table("other").add("it writes again");
    database.close();
    for (State& state : possible_) state["other"].push_back("it writes again");
    EXPECT_EQ(readFile(path()).at(4558, 8), Bytes().zeros(8));  // no word, whatever is after it
    expectPossible("opened again");
  }

 protected:
  uint64_t reported_ = 0;

 private:
  TempFolder folder_{TempFolder::inMemory()};
  Bytes first_;
  State state_;
  std::vector<State> possible_;
  bool cutsForGood_ = false;
  bool isTorn_ = false;
};

TEST_P(FailingTransactionSteps, AreWholeOrNotThereAndSayWhich) {
  const Outcome whole = attempt(nullptr, 0);
  ASSERT_TRUE(whole.succeeded);
  const uint64_t attempts = tryAllFailures(
      2, [&](const Failure* failure, int skip) { return attempt(failure, skip); },
      [](const Failure&, const Outcome&) {});
  reportCount("failing calls, of programs with transactions", attempts);
  reportCount("of these, patches that were torn and are reported", reported_);
}

// Each file of them is large: the sample tries the calls that meet what is written early, once
// each.
class FailingLargeTransactions : public FailingTransactionSteps {
 protected:
  static bool isSampled(const Failure& failure) {
    return failure.isError && failure.name.find("moves") == std::string::npos &&
           (failure.kind == Call::write || failure.kind == Call::truncate ||
            failure.kind == Call::syncData);
  }
};

TEST_P(FailingLargeTransactions, AreWholeOrNotThereAndSayWhich) {
  ASSERT_TRUE(attempt(nullptr, 0).succeeded);
  uint64_t attempts = 0;
  for (const Failure& failure : allFailures()) {
    if (!isSampled(failure) && !testEverything()) continue;
    for (int skip = 0;; skip += 1 + (testEverything() ? 0 : skip)) {
      SCOPED_TRACE(failure.name + " after " + std::to_string(skip));
      const Outcome outcome = attempt(&failure, skip);
      if (!outcome.failed) {
        EXPECT_TRUE(outcome.succeeded);
        break;
      }
      ++attempts;
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(attempts, 0u);
  reportCount("failing calls, of large transactions", attempts);
}

std::vector<Program> largePrograms() {
  std::vector<Program> all = {{"Process", Durability::process, {large()}}};
  if (testEverything()) all.push_back({"Power", Durability::power, {large()}});
  return all;
}

INSTANTIATE_TEST_SUITE_P(Of, FailingLargeTransactions, testing::ValuesIn(largePrograms()),
                         [](const auto& program) { return program.param.name; });

INSTANTIATE_TEST_SUITE_P(Of, FailingTransactionSteps, testing::ValuesIn(programs()),
                         [](const auto& program) { return program.param.name; });

}  // namespace
}  // namespace qvdbase::test
