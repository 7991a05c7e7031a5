// What is left of transactions by a crash at any moment, and what recovery makes of it: exactly the
// state before a commit, or exactly the one after it.
//
// The writes and syncs of the library are recorded. From them come the states in which the end of
// the process leaves the file (every prefix of its writes, cut inside a write too), and those in
// which the end of the host leaves it (of every sector any version that it had since the last sync,
// and any of the lengths).
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QVDbase/directory_cache.h"
#include "format/intent.h"
#include "intents/commit.h"
#include "intents/crash_states.h"
#include "intents/file_io.h"
#include "intents/recovery.h"
#include "intents/shown_contents.h"
#include "intents/staged_transactions.h"
#include "kit/database_fixture.h"
#include "kit/file_fields.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"

namespace qvdbase::test {
namespace {

using namespace std::string_literals;
using intents::CommitLog;
using intents::Durability;

// The contents of a database, table by table. Those of loose tables are left out: an operation
// outside of any transaction can be cut off anywhere.
using Contents = std::vector<std::string>;

Contents contentsWithout(const std::set<size_t>& loose, Bytes file) {
  for (const size_t table : loose) {
    SlotFields slot = decodeSlot(file, table);
    slot.recordCount = 0;
    slot.firstRecordPos = 0;
    slot.firstDataPos = 0;
    file = file.with(slotOffset(table), slot.encode());
  }
  Contents contents = tablesOf(file);
  for (const size_t table : loose) {
    if (table < contents.size()) contents[table].clear();
  }
  return contents;
}

bool isSame(const Contents& found, const Contents& wanted, const std::set<size_t>& loose) {
  for (size_t i = 0; i < std::max(found.size(), wanted.size()); ++i) {
    if (loose.contains(i)) continue;
    if (i >= found.size() || i >= wanted.size() || found[i] != wanted[i]) return false;
  }
  return true;
}

std::set<size_t> tablesThatDiffer(const Contents& one, const Contents& other) {
  std::set<size_t> tables;
  for (size_t i = 0; i < std::max(one.size(), other.size()); ++i) {
    if (i >= one.size() || i >= other.size() || one[i] != other[i]) tables.insert(i);
  }
  return tables;
}

uint64_t hashOf(const Bytes& file) {
  return std::hash<std::string_view>{}({reinterpret_cast<const char*>(file.data()), file.size()});
}

class CrashStates : public DatabaseTest {
 protected:
  // How commits wait for the device: each by itself, or while others are appended.
  enum class Waiting { alone, together };

  // Runs a sequence of transactions, and plain operations between them, and keeps what was written.
  void runSequence(uint64_t seed, Durability durability, Waiting waiting = Waiting::alone);
  void tryStates();
  void tryRecoveryItself();

  std::mt19937_64 random_;
  std::vector<Step> steps_;
  size_t killStates_ = 0;  // different ones, as all counts of states
  size_t powerStates_ = 0;
  size_t recoveryStates_ = 0;
  size_t readStates_ = 0;
  size_t transactions_ = 0;
  size_t plainOperations_ = 0;

 private:
  struct Range {  // of states, both ends included
    size_t least;
    size_t most;
  };

  Bytes baseFile(RandomOperations* operations);
  Bytes withOperations(const Bytes& file, RandomOperations* operations, size_t count);
  void commitOne(CommitLog* log, int16_t db, RandomOperations* operations);
  void settleOrSync(CommitLog* log, RandomOperations* operations);
  void goOnWithGroup(CommitLog* log, RandomOperations* operations);
  void plainOperation(CommitLog* log, int16_t db, RandomOperations* operations, bool canAddTables);
  void note(RecordedCalls* host, bool isChange, const std::set<size_t>& loose = {});
  void tryPowerStates(const Bytes& durable, const std::vector<const Step*>& unsynced, Range range);
  bool tryState(const Bytes& file, Range range, const std::set<size_t>& loose, const char* what);
  const Contents* soundContents(const Bytes& end, const char* what);
  void tryReading(const Bytes& file, const Bytes& end, const char* what);
  void tryRecoveryOf(const Bytes& sample);
  void tryRecoveryOfKilled(const Bytes& file, const Bytes& durable, std::vector<Step> written,
                           Range range);

  Bytes first_;
  std::vector<Contents> contents_;  // after no change, after one, ...
  Waiting waiting_ = Waiting::alone;
  std::map<uint64_t, size_t> changes_;  // by the tickets of commits, the numbers of changes
  size_t returned_ = 0;                 // changes, where commits wait together
  std::vector<Bytes> samples_;          // states in which recovery has something to do
  std::set<std::pair<uint64_t, size_t>> tried_;
  std::map<uint64_t, Contents> sound_;  // what files hold that were found sound
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

// What the host was asked to write, after the last change or as part of the next one.
void CrashStates::note(RecordedCalls* host, bool isChange, const std::set<size_t>& loose) {
  const size_t begun = contents_.size() - 1;
  const bool isTogether = waiting_ == Waiting::together;
  const size_t returned = isTogether ? returned_ : isChange ? begun - 1 : begun;
  size_t write = 0;
  for (const Event& event : host->events()) {
    if (event.call == RecordedCalls::Call::syncData) {
      steps_.push_back({true, 0, {}, returned, begun, {}});
    } else if (event.call == RecordedCalls::Call::write) {
      const Write& made = host->writes().at(write++);
      const auto position = static_cast<size_t>(made.position);
      steps_.push_back({false, position, made.bytes, returned, begun, loose});
    }
  }
  host->forget();
}

void CrashStates::runSequence(uint64_t seed, Durability durability, Waiting waiting) {
  random_.seed(seed);
  waiting_ = waiting;
  changes_ = {{0, 0}};
  returned_ = 0;
  steps_.clear();
  samples_.clear();
  RandomOperations operations(seed);
  first_ = baseFile(&operations);
  contents_ = {tablesOf(first_)};
  allowDamage("test.qvd");
  allowDamage("scratch.qvd");
  writeFile(path(), first_);
  const int16_t db = open();
  CommitLog log(db, durability);
  const uint32_t held[] = {0, 1, 3, 8};
  log.holdBack(held[operations.below(4)]);
  const size_t count = 1 + operations.below(waiting == Waiting::together ? 9 : 5);
  for (size_t i = 0; i < count && !HasFatalFailure(); ++i) {
    commitOne(&log, db, &operations);
    if (waiting == Waiting::together) goOnWithGroup(&log, &operations);
    settleOrSync(&log, &operations);
    if (operations.below(4) == 0) {
      plainOperation(&log, db, &operations, durability == Durability::process);
    }
  }
  {
    RecordedCalls host;
    ASSERT_TRUE(log.settle());
    note(&host, false);
  }
  close(db);
  EXPECT_EQ(tablesOf(contents()), contents_.back());
  EXPECT_EQ(contents().at(4558, 24), Bytes().zeros(24));
}

void CrashStates::commitOne(CommitLog* log, int16_t db, RandomOperations* operations) {
  Bytes now = contents();
  log->held().layOver(0, now.data(), now.size());
  Bytes early;
  Bytes before = now;
  if (operations->below(4) == 0) {  // a large one, of which a part is written early
    const Bytes after = withOperations(now, operations, 1 + operations->below(5));
    early = after.from(now.size());
    for (const intents::Patch& patch : changesBetween(now, after).patches) {
      before = before.with(static_cast<size_t>(patch.position),
                           Bytes(patch.after.begin(), patch.after.end()));
    }
    before.add(early);
    now.add(early);
  }
  const Bytes end =
      withOperations(before, operations, 1 + operations->below(early.empty() ? 12 : 5));
  RecordedCalls host;
  if (!early.empty()) {
    const auto position = static_cast<int64_t>(now.size() - early.size());
    ASSERT_TRUE(intents::writeAt(db, position, early.data(), early.size()));
  }
  const intents::StagedChanges changes = changesBetween(now, end, early.size());
  const intents::Commit commit =
      waiting_ == Waiting::together ? log->append(changes) : log->commit(changes);
  ASSERT_EQ(commit.outcome, intents::Outcome::committed) << static_cast<int>(commit.obstacle);
  changes_[commit.ticket] = contents_.size();
  engine::dropDirectoryEntry(db);  // there may be more tables now
  contents_.push_back(tablesOf(end));
  note(&host, true);
  ++transactions_;
}

void CrashStates::settleOrSync(CommitLog* log, RandomOperations* operations) {
  RecordedCalls host;
  if (operations->below(8) == 0) {
    ASSERT_TRUE(log->settle());
  } else if (operations->below(waiting_ == Waiting::together ? 12 : 3) == 0) {
    ASSERT_TRUE(log->sync());
  }
  note(&host, false);
  returned_ = changes_.at(log->lastSynced());
}

// A sync has what was written before it began; others append until it is noted.
void CrashStates::goOnWithGroup(CommitLog* log, RandomOperations* operations) {
  for (int i = 0; i < 2 && operations->below(3) != 0; ++i) {
    RecordedCalls host;
    if (log->groupSync() == nullptr) {
      log->beginGroupSync()->run();
    } else {
      ASSERT_TRUE(log->noteGroupSync());
      ASSERT_TRUE(log->placeSynced());
    }
    note(&host, false);
    returned_ = changes_.at(log->lastSynced());
  }
}

// As the layer does for one outside of any transaction, and for a C function: what is committed is
// put in its place first.
void CrashStates::plainOperation(CommitLog* log, int16_t db, RandomOperations* operations,
                                 bool canAddTables) {
  RecordedCalls host;
  ASSERT_TRUE(log->settle());
  note(&host, false);
  returned_ = contents_.size() - 1;
  const Bytes now = contents();
  operations->oneOperation(db, now, canAddTables);
  contents_.push_back(tablesOf(contents()));
  note(&host, true, tablesThatDiffer(tablesOf(now), contents_.back()));
  returned_ = contents_.size() - 1;
  changes_[log->lastAppended()] = returned_;
  ++plainOperations_;
}

// Returns whether it was a new one.
bool CrashStates::tryState(const Bytes& file, Range range, const std::set<size_t>& loose,
                           const char* what) {
  if (HasFailure()) return false;
  if (!tried_.insert({hashOf(file), range.least << 8 | range.most}).second) return false;
  const Bytes end = recovered(file);
  EXPECT_EQ(end.size(), file.size());
  const Contents partly = loose.empty() ? Contents() : contentsWithout(loose, end);
  const Contents* const found = loose.empty() ? soundContents(end, what) : &partly;
  if (found == nullptr) return true;
  bool isOne = false;
  for (size_t i = range.least; i <= range.most; ++i) isOne |= isSame(*found, contents_[i], loose);
  EXPECT_TRUE(isOne) << what << ": none of the states " << range.least << " to " << range.most;
  if (!loose.empty()) return true;
  if (random_() % 64 == 0) tryReading(file, end, what);
  const bool hasWork = !std::equal(end.begin(), end.begin() + 4558, file.begin());
  if ((hasWork || random_() % 50 == 0) && random_() % 20 == 0) samples_.push_back(file);
  return true;
}

// What a file holds, which has no damage but what was torn, or was never committed.
const Contents* CrashStates::soundContents(const Bytes& end, const char* what) {
  const auto [known, isNew] = sound_.try_emplace(hashOf(end));
  if (!isNew) return &known->second;
  try {
    known->second = tablesOf(end);
  } catch (const std::exception& error) {
    ADD_FAILURE() << what << ": " << error.what();
    return nullptr;
  }
  for (const Finding& finding : checkFile(end)) {
    // Blocks of new tables are among it.
    const bool isLeftOver = finding.code == "S4" || finding.code == "S5" || finding.code == "S8";
    EXPECT_TRUE(isLeftOver) << what << ": " << finding.code << ' ' << finding.text;
  }
  return &known->second;
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

void CrashStates::tryPowerStates(const Bytes& durable, const std::vector<const Step*>& unsynced,
                                 Range range) {
  std::set<size_t> loose;
  for (const Step* step : unsynced) loose.insert(step->loose.begin(), step->loose.end());
  for (const size_t unit : {size_t{512}, size_t{4096}}) {
    PowerStates states(durable, unsynced, unit, &random_);
    states.forSome(
        48, [&](const Bytes& file) { powerStates_ += tryState(file, range, loose, "power"); });
  }
}

void CrashStates::tryStates() {
  tried_.clear();
  sound_.clear();
  Bytes now = first_;
  Bytes durable = first_;
  std::vector<const Step*> unsynced;
  const bool hasSyncs =
      std::any_of(steps_.begin(), steps_.end(), [](const Step& step) { return step.isSync; });
  size_t appended = 0;  // changes that were written, commits as intents with their blocks
  size_t synced = 0;    // that are on the device
  for (const Step& step : steps_) {
    appended = std::max(appended, step.returned);
    if (step.isSync) {
      tryPowerStates(durable, unsynced, {synced, step.begun});
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
      const bool isNew = tryState(file, {step.returned, step.begun}, step.loose, "kill");
      killStates_ += isNew;
      if (!isNew || !hasSyncs || !step.loose.empty() || random_() % 20 != 0) continue;
      std::vector<Step> written;
      for (const Step* each : unsynced) written.push_back(*each);
      written.push_back({false, step.position, step.bytes.cut(cut), 0, 0, {}});
      tryRecoveryOfKilled(file, durable, std::move(written), {synced, step.begun});
    }
    writeInto(&now, step.position, step.bytes, size);
    unsynced.push_back(&step);
    if (isIntent(step.bytes)) appended = step.begun;
    if (HasFailure()) return;
  }
  const size_t last = contents_.size() - 1;
  killStates_ += tryState(now, {last, last}, {}, "closed");
}

// A crash in recovery, and in the recovery after that: the next one comes to the same.
void CrashStates::tryRecoveryItself() {
  for (const Bytes& sample : std::exchange(samples_, {})) tryRecoveryOf(sample);
  std::vector<Bytes> again = std::exchange(samples_, {});
  if (again.size() > 2) again.resize(2);
  for (const Bytes& sample : again) tryRecoveryOf(sample);
}

void CrashStates::tryRecoveryOf(const Bytes& sample) {
  const Contents wanted = tablesOf(recovered(sample));
  writeFile(path(), sample);
  const int16_t db = open();
  first_ = sample;
  steps_.clear();
  contents_ = {wanted};
  waiting_ = Waiting::alone;
  {
    RecordedCalls host;
    ASSERT_TRUE(intents::recover(db).succeeded);
    note(&host, false);
  }
  close(db);
  EXPECT_EQ(tablesOf(contents()), wanted);
  EXPECT_EQ(intents::plan(BytesReader(contents())).pending, intents::Pending::nothing);
  const size_t before = killStates_ + powerStates_;
  tryStates();
  recoveryStates_ += killStates_ + powerStates_ - before;
}

// The end of a process, and then that of the host while the next one completes what it has left.
void CrashStates::tryRecoveryOfKilled(const Bytes& file, const Bytes& durable,
                                      std::vector<Step> written, Range range) {
  if (HasFailure() || !intents::plan(BytesReader(file)).hasWork()) return;
  writeFile(path(), file);
  const int16_t db = open();
  {
    RecordedCalls host;
    EXPECT_TRUE(intents::recover(db).succeeded);
    size_t write = 0;
    for (const Event& event : host.events()) {
      if (event.call == RecordedCalls::Call::syncData) break;
      if (event.call != RecordedCalls::Call::write) continue;
      const Write& made = host.writes().at(write++);
      written.push_back({false, static_cast<size_t>(made.position), made.bytes, 0, 0, {}});
    }
  }
  close(db);
  std::vector<const Step*> unsynced;
  for (const Step& step : written) unsynced.push_back(&step);
  tryPowerStates(durable, unsynced, range);
}

class CrashStatesOf : public CrashStates {
 protected:
  void tryAll(Durability durability, const char* name, Waiting waiting = Waiting::alone) {
    const uint64_t seed = randomSeed();
    const uint64_t sequences = sequencesToTry(12, 10'000);
    for (uint64_t i = 0; i < sequences && !HasFailure(); ++i) {
      SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed + i));
      runSequence(seed + i, durability, waiting);
      // A host that ends promises nothing for those that never wait for the device.
      if (durability == Durability::process) {
        steps_.erase(std::remove_if(steps_.begin(), steps_.end(),
                                    [](const Step& step) { return step.isSync; }),
                     steps_.end());
      }
      if (!HasFailure()) tryStates();
      if (!HasFailure()) tryRecoveryItself();
      ++sequences_;
      if (sequences_ % 500 == 0) {
        std::cout << "after " << sequences_ << " sequences: " << killStates_ + powerStates_
                  << " states" << std::endl;
      }
    }
    reportCounts(name);
  }

 private:
  void reportCounts(const std::string& name) const {
    reportCount("sequences of transactions, " + name, sequences_);
    reportCount("transactions, " + name, transactions_);
    reportCount("plain operations between them, " + name, plainOperations_);
    reportCount("states after the end of the process, " + name, killStates_);
    reportCount("states after the end of the host, " + name, powerStates_);
    reportCount("of these, states of recovery itself, " + name, recoveryStates_);
    reportCount("of these, read before it, " + name, readStates_);
  }

  size_t sequences_ = 0;
};

TEST_F(CrashStatesOf, CommitsThatWaitForTheDeviceAreBeforeOrAfter) {
  tryAll(Durability::power, "power");
}

TEST_F(CrashStatesOf, CommitsThatWaitForTheDeviceTogetherAreBeforeOrAfter) {
  tryAll(Durability::power, "power, in groups", Waiting::together);
}

TEST_F(CrashStatesOf, CommitsOfAnIntervalAreAPrefix) {
  tryAll(Durability::interval, "interval");
}

TEST_F(CrashStatesOf, CommitsOfTheProcessSurviveItsEnd) {
  tryAll(Durability::process, "process");
}

// Else a place that a power failure takes back to what it was before that could look like one that
// the transaction has changed, and a transaction of which blocks are missing like a committed one.
class WhatWasWrittenBeforeACommit : public DatabaseTest {
 protected:
  // What the host was asked to do for one commit, after a plain operation: 's' for a sync, 'w' for
  // the pending word, 'i' for the intent, 'p' for anything else.
  std::string callsOfOne(CommitLog* log, int16_t db, uint64_t table) {
    addRecord(db, table, bytesOf("plain"));
    const Bytes now = contents();
    writeFile(path("scratch.qvd"), now);
    const int16_t scratch = open("scratch.qvd");
    addRecord(scratch, table, bytesOf("of the transaction"));
    close(scratch);
    RecordedCalls host;
    const intents::Commit commit = log->commit(changesBetween(now, contents("scratch.qvd")));
    EXPECT_EQ(commit.outcome, intents::Outcome::committed);
    std::string calls;
    size_t write = 0;
    for (const Event& event : host.events()) {
      if (event.call == RecordedCalls::Call::syncData) calls += 's';
      if (event.call != RecordedCalls::Call::write) continue;
      const Write& made = host.writes().at(write++);
      calls += made.position == 4558 ? 'w' : isIntent(made.bytes) ? 'i' : 'p';
    }
    return calls;
  }

  // Of the first commit, and of one after the log has settled.
  std::pair<std::string, std::string> callsWith(Durability durability) {
    std::filesystem::remove(path());
    const int16_t db = create();
    const uint64_t table = addTable(db, "t");
    CommitLog log(db, durability);
    log.holdBack(0);
    const std::string first = callsOfOne(&log, db, table);
    EXPECT_TRUE(log.settle());
    const std::string later = callsOfOne(&log, db, table);
    EXPECT_TRUE(log.settle());
    close(db);
    return {first, later};
  }
};

TEST_F(WhatWasWrittenBeforeACommit, IsOnTheDeviceBeforeThePendingWord) {
  EXPECT_EQ(callsWith(Durability::power), std::pair("swispp"s, "swispp"s));
  EXPECT_EQ(callsWith(Durability::interval), std::pair("swi"s, "swi"s));
}

TEST_F(WhatWasWrittenBeforeACommit, IsNotWaitedForWhereOnlyTheProcessMatters) {
  EXPECT_EQ(callsWith(Durability::process), std::pair("wipp"s, "wipp"s));
}

}  // namespace
}  // namespace qvdbase::test
