// What is left of transactions by a crash at any moment, and what recovery makes of it: exactly the
// state before a commit, or exactly the one after it.
//
// The writes and syncs of the library are recorded. From them come the states in which the end of
// the process leaves the file (every prefix of its writes, cut inside a write too), and those in
// which the end of the host leaves it (of every sector any version that it had since the last sync,
// and any of the lengths).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "intents/commit.h"
#include "intents/crash_states.h"
#include "intents/file_io.h"
#include "intents/recovery.h"
#include "intents/shown_contents.h"
#include "intents/staged_transactions.h"
#include "kit/database_fixture.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"

namespace qvdbase::test {
namespace {

using intents::CommitLog;
using intents::Durability;

class CrashStates : public DatabaseTest {
 protected:
  // Runs a sequence of transactions and keeps what was written.
  void runSequence(uint64_t seed, Durability durability);
  void tryStates(Durability durability);
  void tryState(const Bytes& file, size_t least, size_t most, const char* what);
  void tryReading(const Bytes& file, const Bytes& end, const char* what);
  void tryRecoveryItself();

  std::mt19937_64 random_;
  Bytes first_;
  std::vector<std::string> contents_;  // after no commit, after one, ...
  std::vector<Step> steps_;
  std::vector<Bytes> samples_;  // states in which recovery has something to do
  size_t killStates_ = 0;
  size_t powerStates_ = 0;
  size_t recoveryStates_ = 0;
  size_t readStates_ = 0;
  size_t transactions_ = 0;

 private:
  Bytes baseFile(RandomOperations* operations);
  Bytes withOperations(const Bytes& file, RandomOperations* operations, size_t count);
  void note(RecordedCalls* host, size_t returned, size_t begun);
};

Bytes CrashStates::withOperations(const Bytes& file, RandomOperations* operations, size_t count) {
  writeFile(path("scratch.qvd"), file);
  const int16_t db = open("scratch.qvd");
  for (size_t i = 0; i < count; ++i) operations->oneOperation(db, contents("scratch.qvd"));
  close(db);
  return contents("scratch.qvd");
}

Bytes CrashStates::baseFile(RandomOperations* operations) {
  const int16_t db = create("scratch.qvd");
  const size_t tables[] = {1, 2, 4, 11, 15, 18, 22, 25, 29};
  const size_t count = tables[operations->below(std::size(tables))];
  for (size_t i = 0; i < count; ++i) addTable(db, "t" + std::to_string(i));
  close(db);
  return withOperations(contents("scratch.qvd"), operations, operations->below(14));
}

void CrashStates::note(RecordedCalls* host, size_t returned, size_t begun) {
  size_t write = 0;
  const std::vector<Write> writes = host->writes();
  for (const Event& event : host->events()) {
    if (event.call == RecordedCalls::Call::syncData) {
      steps_.push_back({true, 0, {}, returned, begun});
    } else if (event.call == RecordedCalls::Call::write) {
      const Write& made = writes.at(write++);
      steps_.push_back({false, static_cast<size_t>(made.position), made.bytes, returned, begun});
    }
  }
  host->forget();
}

void CrashStates::runSequence(uint64_t seed, Durability durability) {
  random_.seed(seed);
  steps_.clear();
  contents_.clear();
  samples_.clear();
  RandomOperations operations(seed);
  first_ = baseFile(&operations);
  contents_.push_back(contentsOf(first_));
  allowDamage("test.qvd");
  allowDamage("scratch.qvd");
  writeFile(path(), first_);
  const int16_t db = open();
  CommitLog log(db, durability);
  const uint32_t held[] = {0, 1, 3, 8};
  log.holdBack(held[operations.below(4)]);
  const size_t count = 1 + operations.below(5);
  for (size_t i = 0; i < count; ++i) {
    Bytes now = contents();
    log.held().layOver(0, now.data(), now.size());
    Bytes early;
    if (operations.below(4) == 0) {  // a large one, of which a part is written early
      const Bytes after = withOperations(now, &operations, 1 + operations.below(5));
      early = after.from(now.size());
      now.add(early);
      const intents::StagedChanges part = changesBetween(now.cut(now.size() - early.size()), after);
      Bytes whole = now;
      for (const intents::Patch& patch : part.patches) {
        whole = whole.with(static_cast<size_t>(patch.position),
                           Bytes(patch.after.begin(), patch.after.end()));
      }
      const Bytes end = withOperations(whole, &operations, 1 + operations.below(5));
      RecordedCalls host;
      if (!early.empty()) {
        ASSERT_TRUE(intents::writeAt(db, static_cast<int64_t>(now.size() - early.size()),
                                     early.data(), early.size()));
      }
      const intents::Commit commit = log.commit(changesBetween(now, end, early.size()));
      ASSERT_EQ(commit.outcome, intents::Outcome::committed);
      contents_.push_back(contentsOf(end));
      note(&host, i, i + 1);
    } else {
      const Bytes end = withOperations(now, &operations, 1 + operations.below(12));
      RecordedCalls host;
      const intents::Commit commit = log.commit(changesBetween(now, end));
      ASSERT_EQ(commit.outcome, intents::Outcome::committed) << static_cast<int>(commit.obstacle);
      contents_.push_back(contentsOf(end));
      note(&host, i, i + 1);
    }
    ++transactions_;
    RecordedCalls host;
    if (operations.below(8) == 0) {
      ASSERT_TRUE(log.settle());
    } else if (operations.below(3) == 0) {
      ASSERT_TRUE(log.sync());
    }
    note(&host, i + 1, i + 1);
  }
  {
    RecordedCalls host;
    ASSERT_TRUE(log.settle());
    note(&host, count, count);
  }
  close(db);
  EXPECT_EQ(contentsOf(contents()), contents_.back());
  EXPECT_EQ(contents().at(4558, 24), Bytes().zeros(24));
}

void CrashStates::tryState(const Bytes& file, size_t least, size_t most, const char* what) {
  if (HasFailure()) return;
  const Bytes end = recovered(file);
  std::string found;
  try {
    found = contentsOf(end);
  } catch (const std::exception& error) {
    FAIL() << what << ": " << error.what();
  }
  const auto from = contents_.begin() + static_cast<std::ptrdiff_t>(least);
  const auto to = contents_.begin() + static_cast<std::ptrdiff_t>(most) + 1;
  EXPECT_NE(std::find(from, to, found), to)
      << what << ": none of the states " << least << " to " << most;
  EXPECT_EQ(end.size(), file.size());
  for (const Finding& finding : checkFile(end)) {
    // What was torn, or was never committed, blocks of new tables among that.
    const bool isLeftOver = finding.code == "S4" || finding.code == "S5" || finding.code == "S8";
    EXPECT_TRUE(isLeftOver) << what << ": " << finding.code << ' ' << finding.text;
  }
  if (random_() % 64 == 0) tryReading(file, end, what);
  if (end.cut(4558) != file.cut(4558) || random_() % 50 == 0) {
    if (random_() % 20 == 0) samples_.push_back(file);
  }
}

// Who opens it for reading only sees what recovery would make of it, and writes nothing.
void CrashStates::tryReading(const Bytes& file, const Bytes& end, const char* what) {
  ++readStates_;
  writeFile(path("read.qvd"), file);
  allowDamage("read.qvd");
  try {
    const qvdb::Database database = qvdb::Database::open(path("read.qvd"), qvdb::Mode::read_only);
    EXPECT_EQ(shownBy(database), tableContentsOf(end)) << what;
  } catch (const std::exception& error) {
    ADD_FAILURE() << what << ": " << error.what();
  }
  EXPECT_TRUE(sameBytes(contents("read.qvd"), file)) << what;
}

void CrashStates::tryStates(Durability durability) {
  Bytes now = first_;
  Bytes durable = first_;
  std::vector<const Step*> unsynced;
  size_t appended = 0;  // commits whose intents were written, with their blocks
  size_t synced = 0;    // that are on the device
  for (const Step& step : steps_) {
    if (step.isSync) {
      for (const size_t unit : {size_t{512}, size_t{4096}}) {
        PowerStates states(durable, unsynced, unit, &random_);
        states.forSome(48, [&](const Bytes& file) {
          ++powerStates_;
          tryState(file, synced, step.begun, "power");
        });
      }
      durable = now;
      unsynced.clear();
      synced = appended;
      continue;
    }
    const size_t size = step.bytes.size();
    const bool isAppend = step.position + size > now.size();
    std::set<size_t> cuts = {0};
    for (size_t n = 1; n < size; ++n) {
      if ((step.position + n) % 512 == 0) cuts.insert(n);
    }
    if (isAppend) cuts.insert({1, size - 1, random_() % size});
    for (const size_t cut : cuts) {
      Bytes file = now;
      writeInto(&file, step.position, step.bytes, cut);
      ++killStates_;
      tryState(file, step.returned, step.begun, "kill");
    }
    writeInto(&now, step.position, step.bytes, size);
    unsynced.push_back(&step);
    if (isIntent(step.bytes)) ++appended;
    if (HasFailure()) return;
  }
  static_cast<void>(durability);
  tryState(now, contents_.size() - 1, contents_.size() - 1, "closed");
}

// A crash in recovery: the next one comes to the same.
void CrashStates::tryRecoveryItself() {
  for (const Bytes& sample : std::exchange(samples_, {})) {
    const std::string wanted = contentsOf(recovered(sample));
    writeFile(path(), sample);
    const int16_t db = open();
    steps_.clear();
    {
      RecordedCalls host;
      ASSERT_TRUE(intents::recover(db).succeeded);
      note(&host, 0, 0);
    }
    close(db);
    EXPECT_EQ(contentsOf(contents()), wanted);
    EXPECT_EQ(intents::plan(BytesReader(contents())).pending, intents::Pending::nothing);
    contents_ = {wanted};
    first_ = sample;
    const size_t before = killStates_ + powerStates_;
    tryStates(Durability::power);
    recoveryStates_ += killStates_ + powerStates_ - before;
  }
}

void reportCounts(const char* durability, size_t transactions, size_t kill, size_t power,
                  size_t recovery, size_t read) {
  const std::string name = durability;
  reportCount("transactions, " + name, transactions);
  reportCount("states after the end of the process, " + name, kill);
  reportCount("states after the end of the host, " + name, power);
  reportCount("of these, states of recovery itself, " + name, recovery);
  reportCount("of these, read before it, " + name, read);
}

class CrashStatesOf : public CrashStates {
 protected:
  void tryAll(Durability durability, const char* name) {
    const uint64_t seed = randomSeed();
    const size_t sequences = testEverything() ? 3400 : 12;
    for (uint64_t i = 0; i < sequences && !HasFailure(); ++i) {
      SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed + i));
      runSequence(seed + i, durability);
      // A host that ends promises nothing for those that never wait for the device.
      if (durability == Durability::process) {
        steps_.erase(std::remove_if(steps_.begin(), steps_.end(),
                                    [](const Step& step) { return step.isSync; }),
                     steps_.end());
      }
      if (!HasFailure()) tryStates(durability);
      if (!HasFailure()) tryRecoveryItself();
    }
    reportCounts(name, transactions_, killStates_, powerStates_, recoveryStates_, readStates_);
  }
};

TEST_F(CrashStatesOf, CommitsThatWaitForTheDeviceAreBeforeOrAfter) {
  tryAll(Durability::power, "power");
}

TEST_F(CrashStatesOf, CommitsOfAnIntervalAreAPrefix) {
  tryAll(Durability::interval, "interval");
}

TEST_F(CrashStatesOf, CommitsOfTheProcessSurviveItsEnd) {
  tryAll(Durability::process, "process");
}

}  // namespace
}  // namespace qvdbase::test
