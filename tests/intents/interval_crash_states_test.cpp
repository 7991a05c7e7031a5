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

// A link that the last commit ends, and that is zero because its sector has not arrived.
class CrashStatesOfALostLink : public DatabaseTest {
 protected:
  // Adds a record, in another commit three, of which the last one is removed; nothing is synced.
  void runProgram(size_t length) {
    std::filesystem::remove(path());
    qvdb::Database::create(path()).add_table("one").add("first");
    file_ = contents();
    qvdb::Database database = qvdb::Database::open(
        path(), {.mode = qvdb::Mode::exclusive,
                 .durability = qvdb::Durability::interval(std::chrono::hours(1))});
    before_ = shownBy(database);
    qvdb::Table table = database.table("one");
    RecordedCalls host;
    table.add(std::string(1500, 'a'));
    database.transaction([&](qvdb::Transaction&) {
      for (const char c : {'b', 'c', 'd'}) table.add(std::string(length, c));
    });
    table.remove(table.last()->id());
    for (const Write& made : host.writes()) {
      writeInto(&file_, static_cast<size_t>(made.position), made.bytes, made.bytes.size());
    }
    after_ = shownBy(database);
  }

  size_t payload(char c) const {
    const Bytes wanted = Bytes().text(std::string(1500, c));
    const auto found = std::search(file_.begin(), file_.end(), wanted.begin(), wanted.end());
    return static_cast<size_t>(found - file_.begin());
  }

  void loseSector(size_t position) {
    const auto begin = file_.begin() + static_cast<std::ptrdiff_t>(position / 512 * 512);
    std::fill(begin, begin + 512, uint8_t{0});
  }

  Bytes file_;  // what the commits leave
  TableContents before_;
  TableContents after_;
};

TEST_F(CrashStatesOfALostLink, IsNoSignOfALaterCommit) {
  runProgram(1500);
  // The block of c begins 20 bytes before the end of a sector: its mark and its table are there,
  // its link to d is in the next one.
  const size_t block = payload('c') - 55;
  runProgram(1500 + (2 * 512 - 20 - block % 512) % 512);
  ASSERT_EQ((payload('c') - 55) % 512, 492u);
  ASSERT_EQ(tableContentsOf(recovered(file_)), after_);
  loseSector(payload('c') - 16);
  loseSector(payload('a') + 512);
  EXPECT_EQ(tableContentsOf(recovered(file_)), before_);
}

}  // namespace
}  // namespace qvdbase::test
