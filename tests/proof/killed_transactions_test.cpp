// A process that commits transactions and is killed (SIGKILL), again and again: by another process
// at any moment, or between two of its own calls to the host, in the completing of what was left
// before, too. It acknowledges each commit through a pipe. Every one that was acknowledged is in
// the file as a whole; the one that was under way is there as a whole, or not at all.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "intents/recovery.h"
#include "intents/staged_transactions.h"
#include "kit/file_checker.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/table_contents.h"
#include "kit/temp_folder.h"
#include "kit/test_extent.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Table;

// A transaction, made of its seed: what it does to a database, and to what it should hold.
class RandomTransaction {
 public:
  // With so many records of a MiB beside the others.
  explicit RandomTransaction(uint64_t seed, size_t large = 0)
      : random_(seed), seed_(seed), large_(large) {}

  void run(TableContents& state, Database* database) {
    const std::string mark = "transaction " + std::to_string(seed_);
    for (const char* name : {"one", "other"}) add(state, database, name, mark);
    for (size_t i = 0; i < large_; ++i) {
      add(state, database, i % 3 == 0 ? "other" : "one",
          std::string(size_t{1} << 20, static_cast<char>('A' + below(26))));
    }
    for (size_t count = below(6); count > 0; --count) {
      const std::string name = std::next(state.begin(), offset(below(state.size())))->first;
      changeOne(state, database, name);
    }
    if (below(20) == 0 && state.size() < 6) {
      const std::string name = "table " + std::to_string(seed_);
      state[name] = {};
      if (database != nullptr) database->add_table(name);
      add(state, database, name, mark);
    }
  }

 private:
  size_t below(size_t end) { return static_cast<size_t>(random_() % end); }
  static std::ptrdiff_t offset(size_t at) { return static_cast<std::ptrdiff_t>(at); }
  std::string text() { return std::string(below(200), static_cast<char>('a' + below(26))); }

  void add(TableContents& state, Database* database, const std::string& name,
           const std::string& payload) {
    const uint64_t id = seed_ * 64 + ++added_;
    state[name].records.emplace_back(id, payload);
    if (database != nullptr) database->table(name).add_with_id(Id{id}, payload);
  }

  void changeOne(TableContents& state, Database* database, const std::string& name) {
    TableContent& content = state[name];
    const std::string payload = text();
    const size_t kind = below(8);
    if (kind == 0) {
      content.data = payload;
      if (database != nullptr) database->table(name).set_data(payload);
    } else if (kind == 1 || content.records.empty()) {
      add(state, database, name, payload);
    } else {
      const size_t last = content.records.size() - 1;
      const size_t choices[] = {0, last, last - (last > 0), below(last + 1)};
      const auto at = content.records.begin() + offset(choices[below(4)]);
      const Id id{at->first};
      if (kind < 5) {
        at->second = payload;
        if (database != nullptr) database->table(name).modify(id, payload);
      } else {
        content.records.erase(at);
        if (database != nullptr) database->table(name).remove(id);
      }
    }
  }

  std::mt19937_64 random_;
  uint64_t seed_;
  size_t large_;
  uint64_t added_ = 0;
};

struct Message {
  uint64_t seed = 0;
  bool isDone = false;
};

// The child: commits until it is killed, or has done what it had to.
class Committer {
 public:
  Committer(int pipe, TableContents state, size_t large)
      : pipe_(pipe), state_(std::move(state)), large_(large) {}

  void run(const std::filesystem::path& path, qvdb::Durability durability, uint64_t firstSeed) {
    Database database =
        Database::open(path, {.mode = qvdb::Mode::exclusive, .durability = durability});
    const uint64_t count = large_ > 0 ? 3 : 40;
    for (uint64_t seed = firstSeed; seed < firstSeed + count; ++seed) {
      report({seed, false});
      qvdb::Transaction t = database.begin();
      RandomTransaction(seed, large_).run(state_, &database);
      t.commit();
      report({seed, true});
    }
  }

 private:
  void report(const Message& message) const {
    if (::write(pipe_, &message, sizeof message) != sizeof message) _exit(4);
  }

  int pipe_;
  TableContents state_;
  size_t large_;
};

class KilledTransactions : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove(path_);
    Database database = Database::create(path_);
    for (const char* name : {"one", "other"}) database.add_table(name);
    database.close();
    state_ = tableContentsOf(readFile(path_));
  }

  // Ends by a signal of its own before a call to the host, or is killed from here.
  void runAndKill(qvdb::Durability durability, bool byItself) {
    underWay_.reset();
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const uint64_t most = large_ > 0 ? 24 : 250;
    const uint64_t calls = random_() % (byItself ? most : most / 20);
    const uint64_t spins = random_() % 200'000;
    const pid_t child = ::fork();
    if (child == 0) {
      ::close(ends[0]);
      RecordedCalls host;
      uint64_t left = byItself ? calls : UINT64_MAX;
      host.observe([&left](Call call) {
        const bool counts = call == Call::write || call == Call::syncData || call == Call::truncate;
        if (counts && left-- == 0) ::raise(SIGKILL);
      });
      try {
        Committer(ends[1], state_, large_).run(path_, durability, nextSeed_);
      } catch (const std::exception& error) {
        std::fprintf(stderr, "in the child: %s\n", error.what());
        _exit(5);
      }
      _exit(0);
    }
    ::close(ends[1]);
    for (uint64_t done = 0; (byItself || done < calls) && receive(ends[0]);) {
      if (!underWay_) ++done;
    }
    if (!byItself) {
      for (volatile uint64_t i = 0; i < spins;) i = i + 1;
      ::kill(child, SIGKILL);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const bool isKilled = WIFSIGNALED(status) || WEXITSTATUS(status) == 0;
    EXPECT_TRUE(isKilled) << "the child ended by itself: " << WEXITSTATUS(status);
    while (receive(ends[0])) continue;
    ::close(ends[0]);
  }

  void expectWhole() {
    const Bytes left = readFile(path_);
    const intents::RecoveryPlan plan = intents::plan(BytesReader(left));
    EXPECT_TRUE(plan.contradicted.empty());
    if (!plan.writes.empty()) ++incomplete_;
    size_t open = 0;
    for (const intents::FoundIntent& intent : plan.intents) open += intent.isWhole ? 1 : 0;
    mostOpen_ = std::max(mostOpen_, open);
    Bytes file = left;
    for (const intents::PlannedWrite& write : plan.writes) {
      file = file.with(static_cast<size_t>(write.position),
                       Bytes(write.bytes.begin(), write.bytes.end()));
    }
    const TableContents found = tableContentsOf(file);
    if (underWay_ && found != state_) {
      RandomTransaction(*underWay_, large_).run(state_, nullptr);
      ++wholeUnderWay_;
    }
    EXPECT_EQ(found, state_);
    for (const Finding& finding : checkFile(file.with(4558, Bytes().zeros(24)))) {
      // Blocks that were never committed, or are not whole.
      const bool isLeftOver = finding.code == "S4" || finding.code == "S5" || finding.code == "S8";
      EXPECT_TRUE(isLeftOver) << finding.code << ' ' << finding.text;
    }
  }

  // Sometimes this process is the next opener, who completes the file and leaves it settled.
  void openHere() {
    const auto before = std::filesystem::file_size(path_);
    Database::open(path_, qvdb::Mode::exclusive).close();
    EXPECT_GE(std::filesystem::file_size(path_), before);
    const Bytes file = readFile(path_);
    EXPECT_EQ(file.at(4558, 24), Bytes().zeros(24));
    EXPECT_EQ(tableContentsOf(file), state_);
  }

  TempFolder folder_;
  const std::filesystem::path path_ = folder_ / "a.qvd";
  std::mt19937_64 random_;
  uint64_t incomplete_ = 0;
  uint64_t wholeUnderWay_ = 0;
  size_t mostOpen_ = 0;
  size_t large_ = 0;

 private:
  bool receive(int pipe) {
    Message message;
    if (::read(pipe, &message, sizeof message) != sizeof message) return false;
    nextSeed_ = message.seed + 1;
    if (message.isDone) {
      RandomTransaction(message.seed, large_).run(state_, nullptr);
      underWay_.reset();
    } else {
      underWay_ = message.seed;
    }
    return true;
  }

  TableContents state_;
  uint64_t nextSeed_ = 1;
  std::optional<uint64_t> underWay_;
};

TEST_F(KilledTransactions, AreWholeWhereTheyWereAcknowledged) {
  const uint64_t seed = randomSeed();
  random_.seed(seed);
  const int kills = testEverything() ? 3000 : 40;
  for (int i = 0; i < kills && !HasFailure(); ++i) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed) + ", kill " + std::to_string(i));
    const qvdb::Durability durabilities[] = {
        qvdb::Durability::process, qvdb::Durability::power,
        qvdb::Durability::interval(std::chrono::milliseconds(random_() % 2))};
    runAndKill(durabilities[random_() % 3], random_() % 3 != 0);
    expectWhole();
    if (random_() % 3 == 0 && !HasFailure()) openHere();
  }
  reportCount("killed committers", static_cast<uint64_t>(kills));
  reportCount("of these, with patches missing", incomplete_);
  reportCount("of these, committed and not acknowledged", wholeUnderWay_);
  reportCount("most intents open at once", mostOpen_);
}

// Those that are larger than what is kept in memory have written blocks before their commit, to the
// end of the file. What is left of these when they are killed stays in the file, where nothing
// leads to it.
TEST_F(KilledTransactions, AreWholeWhereTheyHaveWrittenEarly) {
  const uint64_t seed = randomSeed();
  random_.seed(seed);
  large_ = 17;
  const int kills = testEverything() ? 300 : 6;
  uint64_t early = 0;
  for (int i = 0; i < kills && !HasFailure(); ++i) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed) + ", kill " + std::to_string(i));
    if (i % 3 == 0) SetUp();
    const auto before = std::filesystem::file_size(path_);
    const bool waits = random_() % 2 == 0;
    runAndKill(waits ? qvdb::Durability::power : qvdb::Durability::process, random_() % 4 != 0);
    expectWhole();
    if (std::filesystem::file_size(path_) > before + (size_t{8} << 20)) ++early;
    if (random_() % 3 == 0 && !HasFailure()) openHere();
  }
  reportCount("killed committers of large transactions", static_cast<uint64_t>(kills));
  reportCount("of these, with blocks written early", early);
  reportCount("of these, with patches missing", incomplete_);
  reportCount("of these, committed and not acknowledged", wholeUnderWay_);
}

// A C function that writes through the same handle between two transactions knows nothing of the
// first one, of which it is not noted yet that all is in place.
TEST_F(KilledTransactions, AreWholeAfterACFunctionOfTheSameProgram) {
  for (const bool appends : {false, true}) {
    for (uint64_t call = 0;; ++call) {
      SCOPED_TRACE("killed before call " + std::to_string(call));
      SetUp();
      const pid_t child = ::fork();
      if (child == 0) {
        RecordedCalls host;
        Database database = Database::open(path_, qvdb::Mode::exclusive);
        Table table = database.table("one");
        database.transaction([&](qvdb::Transaction&) {
          for (const uint64_t id : {1u, 2u, 3u}) table.add_with_id(Id{id}, "as it was", 20);
        });
        const Bytes payload(10, 'c');
        uint64_t id = 9;
        const bool isDone =
            appends ? AddRecordData_AssignRecordID(database.handle(), table.id().value,
                                                   payload.data(), 10, 0, &id) == 1
                    : DeleteOneRecord(database.handle(), table.id().value, 1, nullptr) == 1;
        if (!isDone) _exit(6);
        uint64_t left = call;
        host.observe([&left](Call kind) {
          if (kind == Call::write && left-- == 0) ::raise(SIGKILL);
        });
        database.transaction([&](qvdb::Transaction&) {
          table.modify(Id{2}, std::string(100, 'm'));
          table.remove(Id{3});
          table.add_with_id(Id{4}, "added");
        });
        _exit(0);
      }
      int status = 0;
      ::waitpid(child, &status, 0);
      ASSERT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << WEXITSTATUS(status);
      Database::open(path_, qvdb::Mode::exclusive).close();
      const TableContents found = tableContentsOf(readFile(path_));
      const auto& records = found.at("one").records;
      const bool isAfter = std::any_of(records.begin(), records.end(),
                                       [](const auto& record) { return record.first == 4; });
      std::vector<std::pair<uint64_t, std::string>> expected;
      if (appends) expected.emplace_back(1, "as it was");
      expected.emplace_back(2, isAfter ? std::string(100, 'm') : "as it was");
      if (!isAfter) expected.emplace_back(3, "as it was");
      if (appends) expected.emplace_back(9, "cccccccccc");
      if (isAfter) expected.emplace_back(4, "added");
      EXPECT_EQ(records, expected);
      for (const Finding& finding : checkFile(readFile(path_))) {
        EXPECT_TRUE(finding.code == "S4" || finding.code == "S5" || finding.code == "S8")
            << finding.code << ' ' << finding.text;
      }
      if (!WIFSIGNALED(status)) break;
      if (HasFailure()) return;
    }
  }
}

}  // namespace
}  // namespace qvdbase::test
