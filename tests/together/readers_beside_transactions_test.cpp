// Readers in processes of their own, beside one that commits transactions, and beside those that
// are killed while they commit or while they complete what another one has left: each walk over a
// table, and each lookup, shows the table before a transaction or after it.
//
// Every transaction gives all records of both tables the next number. The writer kills itself
// before some call to the host, and the next one goes on.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <csignal>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"
#include "together/board.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Mode;

constexpr uint64_t kRecords = 6;

void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

int numberIn(std::span<const std::byte> payload) {
  return std::stoi(std::string(reinterpret_cast<const char*>(payload.data()), payload.size()));
}

class ReadersBesideTransactions : public LayerTest {
 protected:
  void SetUp() override {
    qvdb::Database database = createDatabase();
    for (const char* name : {"one", "other"}) {
      qvdb::Table table = database.add_table(name);
      for (uint64_t id = 1; id <= kRecords; ++id) table.add_with_id(Id{id}, "0");
    }
  }

  static std::string payloadOf(int number) {
    return std::to_string(number) + std::string(static_cast<size_t>(number % 90), ' ');
  }

  // Records come and go beside those that are looked for.
  static void commit(qvdb::Database& database, int number) {
    database.transaction([&](qvdb::Transaction& t) {
      for (qvdb::Table& table : t.tables()) {
        const auto last = table.last()->id().value;
        for (uint64_t id = 1; id <= kRecords; ++id) {
          require(table.modify(Id{id}, payloadOf(number)), "lost");
        }
        if (last > kRecords) table.remove(Id{last});
        table.add_with_id(Id{kRecords + static_cast<uint64_t>(number)}, payloadOf(number));
      }
    });
  }

  // Goes on until it ends itself, or has come to the last number. Returns 0 then.
  int commitUntil(int last, qvdb::Durability durability, uint64_t callsLeft) {
    RecordedCalls host;
    host.observe([&](Call call) {
      if ((call == Call::write || call == Call::syncData) && callsLeft-- == 0) ::raise(SIGKILL);
    });
    qvdb::Database database = qvdb::Database::open(
        path(),
        {.mode = Mode::exclusive, .wait = std::chrono::seconds(60), .durability = durability});
    int number = numberIn(*database.table("one").get(Id{1}));
    while (number < last) commit(database, ++number);
    return 0;
  }

  // Each look is at one table.
  static void lookAt(const qvdb::Table& table, int* latest) {
    int number = -1;
    uint64_t count = 0;
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      const int seen = numberIn(record.loaded());
      require(number == -1 || seen == number,
              "a walk shows " + std::to_string(seen) + " after " + std::to_string(number));
      number = seen;
      ++count;
    }
    require(count == (number == 0 ? kRecords : kRecords + 1), "a walk shows too few records");
    require(number >= *latest, "a walk shows a state of before");
    for (uint64_t id = 1; id <= kRecords; ++id) {
      const int seen = numberIn(table.get(Id{id}).value());
      require(seen >= number, "a lookup of " + std::to_string(id) + " shows " +
                                  std::to_string(seen) + " after " + std::to_string(number));
      number = seen;
    }
    *latest = number;
  }

  int readUntilItIsOver(uint64_t seed, Board& board) const {
    const qvdb::Database database =
        qvdb::Database::open(path(), {.wait = std::chrono::seconds(60)});
    std::mt19937_64 random(seed);
    int latest[2] = {0, 0};
    const qvdb::Table tables[2] = {database.table("one"), database.table("other")};
    std::optional<qvdb::RecordIndex> index;
    while (!board.isOver) {
      if (random() % 16 == 0) index = index ? std::nullopt : std::optional(tables[0].index());
      const size_t at = random() % 2;
      lookAt(tables[at], &latest[at]);
      ++board.looks;
    }
    return 0;
  }

  void run(qvdb::Durability durability, bool isKilled) {
    const uint64_t seed = randomSeed();
    std::mt19937_64 random(seed);
    SharedBoard board;
    std::vector<ForkedLater> readers;
    for (uint64_t i = 0; i < 2; ++i) {
      readers.emplace_back([&, i] { return readUntilItIsOver(seed + i, *board); });
    }
    for (ForkedLater& reader : readers) reader.begin();
    const int last = testEverything() ? 1500 : 60;
    {
      const AtEnd atEnd{*board};
      // Readers have begun.
      while (board->looks < 2) std::this_thread::yield();
      int writers = 0;
      int status = -1;
      while (status != 0 && writers < 40 * last) {
        const uint64_t calls = isKilled ? random() % 90 : UINT64_MAX;
        status = inForkedChild([&] { return commitUntil(last, durability, calls); });
        ++writers;
        EXPECT_TRUE(status == 0 || (isKilled && status == -1)) << status;
        if (HasFailure()) break;
      }
      reportCount("writers beside readers", static_cast<uint64_t>(writers));
    }
    for (ForkedLater& reader : readers) EXPECT_EQ(reader.end(), 0);
    reportCount("looks beside them", board->looks);
    EXPECT_EQ(numberIn(*openDatabase().table("one").get(Id{1})), last);
  }
};

TEST_F(ReadersBesideTransactions, SeeEachBeforeOrAfter) {
  run(qvdb::Durability::process, false);
}

TEST_F(ReadersBesideTransactions, SeeEachBeforeOrAfterOnTheDevice) {
  run(qvdb::Durability::power, false);
}

TEST_F(ReadersBesideTransactions, SeeEachBeforeOrAfterWhileItWaitsForTheDevice) {
  run(qvdb::Durability::interval(std::chrono::milliseconds(1)), false);
}

TEST_F(ReadersBesideTransactions, SeeEachBeforeOrAfterThoughWritersAreKilled) {
  run(qvdb::Durability::process, true);
}

}  // namespace
}  // namespace qvdbase::test
