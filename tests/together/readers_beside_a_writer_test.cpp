// Readers beside a writer, each in a process of its own: whatever the writer does, a reader sees a
// possible history and is never told that the file is damaged.
//
// The records with the numbers 1 to kStaying are never deleted; they change, in place and by moving
// to new blocks. All others come and go. Every payload says what it is.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"
#include "together/board.h"
#include "together/payloads.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Mode;
using qvdb::Order;
using qvdb::Reason;

constexpr uint64_t kStaying = 60;
constexpr uint32_t kLongest = 3000;

void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

// ---- the writer ----

class Writer {
 public:
  Writer(const std::filesystem::path& path, std::string table, uint64_t seed)
      : path_(path), tableName_(std::move(table)), random_(seed) {
    database_ =
        qvdb::Database::open(path, {.mode = Mode::exclusive, .wait = std::chrono::seconds(60)});
    table_ = database_.table(tableName_);
  }

  void work(int rounds) {
    for (int i = 0; i < rounds; ++i) step(i);
  }

 private:
  void step(int round) {
    switch (random_() % 8) {
      case 0:
      case 1:
        return add();
      case 2:
        return change(random_() % kStaying + 1);
      case 3:
        return remove();
      case 4:
        return addBatch();
      case 5:
        return static_cast<void>(table_.touch(Id{random_() % kStaying + 1}));
      case 6:
        return table_.set_data(payloadOf(table_.id().value, ++version_, length()));
      default:
        if (round % 97 == 0) return compact();
        return change(random_() % kStaying + 1);
    }
  }

  void add() {
    const std::string payload = payloadOf(++latest_, ++version_, length());
    table_.add_with_id(Id{latest_}, payload);
    passing_.push_back(latest_);
  }

  void addBatch() {
    qvdb::BulkAppender appender = table_.appender();
    for (int i = 0; i < 5; ++i) {
      const std::string payload = payloadOf(++latest_, ++version_, length());
      appender.add(qvdb::NewRecord(payload, 0, Id{latest_}));
      passing_.push_back(latest_);
    }
    appender.finish();
  }

  void change(uint64_t id) {
    require(table_.modify(Id{id}, payloadOf(id, ++version_, length())), "lost");
  }

  // Mostly the ends of the chain, where the slot changes, too.
  void remove() {
    while (passing_.size() > 40) {
      const size_t at = random_() % 3 == 0 ? random_() % passing_.size() : passing_.size() - 1;
      require(table_.remove(Id{passing_[at]}), "lost");
      passing_.erase(passing_.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }

  void compact() {
    database_.close();
    qvdb::compact(path_);
    database_ =
        qvdb::Database::open(path_, {.mode = Mode::exclusive, .wait = std::chrono::seconds(60)});
    table_ = database_.table(tableName_);
  }

  uint32_t length() { return static_cast<uint32_t>(random_() % kLongest); }

  const std::filesystem::path path_;
  const std::string tableName_;
  std::mt19937_64 random_;
  qvdb::Database database_;
  qvdb::Table table_;
  std::vector<uint64_t> passing_;
  uint64_t latest_ = 1000;
  uint32_t version_ = 0;
};

// ---- the readers ----

class Reader {
 public:
  Reader(const std::filesystem::path& path, const std::string& table, uint64_t seed)
      : random_(seed),
        database_(qvdb::Database::open(path, {.wait = std::chrono::seconds(60)})),
        table_(database_.table(table)) {
    if (seed % 2 == 0) index_.emplace(table_.index());
  }

  // Until the writer has done its work, and a few rounds more.
  void work(Board& board) {
    for (int i = 0; i < 3; ++i) {
      do {
        look();
        ++board.looks;
      } while (!board.isOver);
    }
  }

 private:
  void look() {
    if (random_() % 8 == 0 && !database_.is_current()) database_.reopen();
    if (random_() % 64 == 0) check();
    switch (random_() % 6) {
      case 0:
        return walk(Order::oldest_first);
      case 1:
        return walk(Order::newest_first);
      case 2:
        return lookUp();
      case 3:
        return readData();
      case 4:
        return readInfos();
      default:
        return readLater();
    }
  }

  // Of the file that has the name now: sound, or in use where it changes too fast.
  void check() {
    const qvdb::CheckReport report = qvdb::check(database_.path(), [](const qvdb::Finding&) {},
                                                 {.retries = 2, .wait_milliseconds = 1});
    require(report.state != qvdb::CheckState::damaged, "the check reports damage");
  }

  void walk(Order order) {
    std::set<uint64_t> seen;
    for (const qvdb::Record& record :
         table_.records({.order = order, .load = qvdb::Load::payloads})) {
      const uint64_t id = record.id().value;
      require(seen.insert(id).second, "a record twice in a walk: " + std::to_string(id));
      require(isOnePayload(record.loaded(), id), "a walk delivers no payload of the record");
    }
    for (uint64_t id = 1; id <= kStaying; ++id) {
      require(seen.count(id) == 1, "a walk misses record " + std::to_string(id));
    }
  }

  void lookUp() {
    for (int i = 0; i < 10; ++i) {
      const Id id{random_() % kStaying + 1};
      const auto payload = table_.get(id);
      require(payload.has_value(), "not found: " + to_string(id));
      require(isOnePayload(*payload, id.value), "no payload of the record");
    }
    require(!table_.contains(Id{999}), "found what was never there");
  }

  void readData() {
    const auto data = table_.data();
    require(!data || isOnePayload(*data, table_.id().value), "mixed table data");
  }

  void readInfos() {
    require(database_.info().table_count == database_.info().table_count, "tables");
    const qvdb::TableInfo info = table_.info();
    require(info.record_count >= kStaying, "too few records counted");
    require(info.record_write_count >= info.record_count, "more records than were written");
    require(table_.first().has_value() && table_.last().has_value(), "no record at an end");
    require(database_.tables().size() >= 29 || table_.name() == "first", "tables are missing");
  }

  // By the record that was found before: it may be gone by then.
  void readLater() {
    std::optional<qvdb::Record> last = table_.last();
    require(last.has_value(), "no last record");
    try {
      require(isOnePayload(last->payload(), last->id().value), "no payload of the last record");
    } catch (const qvdb::Error& error) {
      require(error.reason() == Reason::record_missing, error.what());
    }
  }

  std::mt19937_64 random_;
  qvdb::Database database_;
  qvdb::Table table_;
  std::optional<qvdb::RecordIndex> index_;
};

class TogetherTest : public LayerTest, public testing::WithParamInterface<const char*> {};

TEST_P(TogetherTest, FourReadersSeeAPossibleHistory) {
  const std::string table = GetParam();
  const uint64_t seed = randomSeed();
  const SharedBoard board;
  std::vector<ForkedLater> processes;
  for (uint64_t i = 0; i < 4; ++i) {
    processes.emplace_back([&, i] {
      Reader(path(), table, seed + i).work(*board);
      return 0;
    });
  }
  processes.emplace_back([&] {
    const AtEnd end{*board};
    Writer(path(), table, seed).work(testEverything() ? 200'000 : 5'000);
    return 0;
  });
  {
    qvdb::Database database = createDatabase();
    database.add_table("first");
    // The slot of the 29th table crosses the border of a page.
    for (int i = 1; i <= 28 && table != "first"; ++i) database.add_table("t" + std::to_string(i));
    qvdb::Table filled = database.table(table);
    for (uint64_t id = 1; id <= kStaying; ++id) filled.add_with_id(Id{id}, payloadOf(id, 0, 100));
  }
  for (ForkedLater& process : processes) process.begin();
  for (ForkedLater& process : processes) EXPECT_EQ(process.end(), 0);
  EXPECT_GT(board->looks, 0u);
  reportCount("looks of readers beside a writer", board->looks);
}

INSTANTIATE_TEST_SUITE_P(TablesIn, TogetherTest, testing::Values("first", "t28"),
                         [](const auto& table) { return std::string(table.param); });

}  // namespace
}  // namespace qvdbase::test
