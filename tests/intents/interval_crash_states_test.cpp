// What a program with an interval leaves by a crash at any moment: the state after one of its
// commits, and none before the last one that was on the device.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "intents/crash_states.h"
#include "intents/shown_contents.h"
#include "kit/database_fixture.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"

namespace qvdbase::test {
namespace {

class CrashStatesOfIntervals : public DatabaseTest {
 protected:
  void runProgram(uint64_t seed) {
    random_.seed(seed);
    steps_.clear();
    states_.clear();
    std::filesystem::remove(path());
    qvdb::Database::create(path()).add_table("one").add("first");
    first_ = contents();
    const auto interval = std::chrono::milliseconds(random_() % 3 == 0 ? 1 : 1000);
    qvdb::Database database = qvdb::Database::open(
        path(),
        {.mode = qvdb::Mode::exclusive, .durability = qvdb::Durability::interval(interval)});
    states_.push_back(shownBy(database));
    for (int i = 0; i < 12; ++i) {
      RecordedCalls host;
      const size_t before = states_.size() - 1;
      change(database);
      states_.push_back(shownBy(database));
      note(host, before, before + 1);
    }
    RecordedCalls host;
    database.close();
    note(host, states_.size() - 1, states_.size() - 1);
  }

  // Every state is the one after some commit, and none before the last one that was synced.
  void tryStates() {
    Bytes now = first_;
    Bytes durable = first_;
    std::vector<const Step*> unsynced;
    size_t synced = 0;
    for (const Step& step : steps_) {
      if (step.isSync) {
        tryPowerStates(durable, unsynced, synced, step.begun);
        durable = now;
        unsynced.clear();
        synced = step.returned;
        continue;
      }
      const bool isAppend = step.position + step.bytes.size() > now.size();
      for (const size_t part : {size_t{0}, isAppend ? random_() % step.bytes.size() : 0}) {
        Bytes file = now;
        writeInto(&file, step.position, step.bytes, part);
        tryState(file, step.returned, step.begun, "kill");
      }
      writeInto(&now, step.position, step.bytes, step.bytes.size());
      unsynced.push_back(&step);
    }
    tryPowerStates(durable, unsynced, synced, states_.size() - 1);
  }

  size_t tried_ = 0;

 private:
  void change(qvdb::Database& database) {
    qvdb::Table table = database.table("one");
    const std::string text(random_() % 700, static_cast<char>('a' + random_() % 26));
    switch (random_() % 7) {
      case 0:
        database.transaction([&](qvdb::Transaction& t) { t.find_or_add_table("other").add(text); });
        break;
      case 1:
        database.transaction([&](qvdb::Transaction&) {
          for (int i = 0; i < 3; ++i) table.add(text);
          table.modify(table.first()->id(), text + "!");
        });
        break;
      case 2:
        if (table.count() > 1) table.remove(table.last()->id());
        break;
      case 3:
        table.set_data(text);
        break;
      case 4:
        table.modify(table.last()->id(), text);
        break;
      case 5:
        database.sync();
        break;
      default:
        table.add(text);
    }
  }

  void note(const RecordedCalls& host, size_t returned, size_t begun) {
    size_t write = 0;
    for (const Event& event : host.events()) {
      if (event.call == Call::syncData || event.call == Call::sync) {
        steps_.push_back({true, 0, {}, returned, begun});
      } else if (event.call == Call::write) {
        const Write& made = host.writes().at(write++);
        steps_.push_back({false, static_cast<size_t>(made.position), made.bytes, returned, begun});
      }
    }
  }

  void tryPowerStates(const Bytes& durable, const std::vector<const Step*>& unsynced, size_t least,
                      size_t most) {
    for (const size_t unit : {size_t{512}, size_t{4096}}) {
      PowerStates states(durable, unsynced, unit, &random_);
      states.forSome(testEverything() ? 100 : 12,
                     [&](const Bytes& file) { tryState(file, least, most, "power"); });
    }
  }

  void tryState(const Bytes& file, size_t least, size_t most, const char* what) {
    if (HasFailure()) return;
    ++tried_;
    const TableContents found = tableContentsOf(recovered(file));
    const auto from = states_.begin() + static_cast<std::ptrdiff_t>(least);
    const auto to = states_.begin() + static_cast<std::ptrdiff_t>(most) + 1;
    EXPECT_NE(std::find(from, to, found), to)
        << what << ": none of the states " << least << " to " << most;
  }

  std::mt19937_64 random_;
  Bytes first_;
  std::vector<Step> steps_;
  std::vector<TableContents> states_;  // before the first change, after it, ...
};

TEST_F(CrashStatesOfIntervals, AreThoseAfterACommitAndNoneBeforeTheLastOneOnTheDevice) {
  const uint64_t seed = randomSeed();
  const uint64_t programs = sequencesToTry(6, 2000);
  for (uint64_t i = 0; i < programs && !HasFailure(); ++i) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed + i));
    runProgram(seed + i);
    tryStates();
  }
  reportCount("states that programs with an interval leave", tried_);
}

}  // namespace
}  // namespace qvdbase::test
