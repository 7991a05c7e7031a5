// Readers beside a writer, each in a process of its own: whatever the writer does, a reader sees a
// possible history and is never told that the file is damaged.
//
// The records with the numbers 1 to kStaying are never deleted; they change, in place and by moving
// to new blocks. All others come and go. Every payload says what it is.
#include <gtest/gtest.h>
#include <qvdbase/qvdb.hpp>

#include <random>
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
constexpr uint64_t kNever = 999;
constexpr uint32_t kLongest = 3000;

void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

// ---- the writer ----

class Writer {
 public:
  Writer(const std::filesystem::path& path, std::string table, uint64_t seed, Board& board)
      : path_(path), tableName_(std::move(table)), random_(seed), board_(board) {
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
      board_.deleted = passing_[at];
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
  Board& board_;
  qvdb::Database database_;
  qvdb::Table table_;
  std::vector<uint64_t> passing_;
  uint64_t latest_ = 1000;
  uint32_t version_ = 0;
};

// ---- the readers ----

class ReadingProcess {
 public:
  ReadingProcess(const std::filesystem::path& path, const std::string& table, uint64_t seed,
                 Board& board)
      : random_(seed),
        board_(board),
        database_(qvdb::Database::open(path, {.wait = std::chrono::seconds(60)})),
        table_(database_.table(table)) {
    if (seed % 2 == 0) index_.emplace(table_.index());
  }

  // Until the writer has done its work, and a few rounds more.
  void work() {
    for (int i = 0; i < 3; ++i) {
      do {
        look();
        ++board_.looks;
      } while (!board_.isOver);
    }
  }

 private:
  void look() {
    if (random_() % 8 == 0 && !database_.is_current()) database_.reopen();
    if (random_() % 64 == 0) check();
    if (random_() % 4 != 0) return lookAt(table_);
    const qvdb::Reader reader = database_.reader();
    const qvdb::Table table = reader.table(table_.name());
    std::optional<qvdb::RecordIndex> index;
    if (random_() % 2 == 0) index.emplace(table.index());
    lookAt(table);
    lookAt(table);
  }

  void lookAt(const qvdb::Table& table) {
    switch (random_() % 8) {
      case 0:
        return walk(table, Order::oldest_first);
      case 1:
        return walk(table, Order::newest_first);
      case 2:
        return walkAfter(table);
      case 3:
        return lookUp(table);
      case 4:
        return lookUpTheAbsent();
      case 5:
        return readData(table);
      case 6:
        return readInfos(table);
      default:
        return readLater(table);
    }
  }

  // Of the file that has the name now: sound, or in use where it changes too fast.
  void check() {
    const qvdb::CheckReport report = qvdb::check(database_.path(), [](const qvdb::Finding&) {},
                                                 {.retries = 2, .wait_milliseconds = 1});
    require(report.state != qvdb::CheckState::damaged, "the check reports damage");
  }

  // The numbers ascend from the oldest record to the newest. All staying ones from `first` on are
  // among them.
  static void walk(qvdb::RecordRange records, bool ascends, uint64_t first) {
    uint64_t staying = 0;
    uint64_t before = 0;
    for (const qvdb::Record& record : records) {
      const uint64_t id = record.id().value;
      require(before == 0 || (before < id) == ascends,
              "a walk delivers " + std::to_string(id) + " after " + std::to_string(before));
      require(isOnePayload(record.loaded(), id), "a walk delivers no payload of the record");
      require(id >= first, "a walk delivers a record before its beginning");
      before = id;
      if (id <= kStaying) ++staying;
    }
    require(staying == kStaying + 1 - first, "a walk misses a record");
  }

  static void walk(const qvdb::Table& table, Order order) {
    walk(table.records({.order = order, .load = qvdb::Load::payloads}),
         order == Order::oldest_first, 1);
  }

  // By identifier, or by a record that was found before.
  void walkAfter(const qvdb::Table& table) {
    const Id id{random_() % kStaying + 1};
    const auto load = qvdb::Load::payloads;
    if (random_() % 2 == 0) return walk(table.records_after(id, load), true, id.value + 1);
    const auto record = table.find(id);
    require(record.has_value(), "not found: " + to_string(id));
    walk(table.records_after(*record, load), true, id.value + 1);
  }

  void lookUp(const qvdb::Table& table) {
    for (int i = 0; i < 10; ++i) {
      const Id id{random_() % kStaying + 1};
      const auto payload = table.get(id);
      require(payload.has_value(), "not found: " + to_string(id));
      require(isOnePayload(*payload, id.value), "no payload of the record");
    }
    require(!table.contains(Id{kNever}), "found what was never there");
    require(!table.get(Id{kNever}).has_value(), "a payload of what was never there");
  }

  // What was deleted before is gone from the file that has the name since.
  void lookUpTheAbsent() {
    const Id id{board_.deleted};
    if (id.value == 0) return;
    if (!database_.is_current()) database_.reopen();
    require(!table_.contains(id), "found what was deleted before: " + to_string(id));
    bool isMissing = false;
    try {
      for (const qvdb::Record& record : table_.records_after(id)) static_cast<void>(record);
    } catch (const qvdb::Error& error) {
      require(error.reason() == Reason::record_missing, error.what());
      isMissing = true;
    }
    require(isMissing, "a walk begins after what was deleted before: " + to_string(id));
  }

  void readData(const qvdb::Table& table) {
    const auto data = table.data();
    require(!data || isOnePayload(*data, table.id().value), "mixed table data");
  }

  void readInfos(const qvdb::Table& table) {
    require(database_.info().table_count == database_.info().table_count, "tables");
    const qvdb::TableInfo info = table.info();
    require(info.record_count >= kStaying, "too few records counted");
    require(info.record_write_count >= info.record_count, "more records than were written");
    require(table.first().has_value() && table.last().has_value(), "no record at an end");
    require(table.first()->id().value == 1, "another first record");
    require(database_.tables().size() >= 29 || table.name() == "first", "tables are missing");
  }

  // By the record that was found before: it may be gone by then.
  void readLater(const qvdb::Table& table) {
    std::optional<qvdb::Record> last = table.last();
    require(last.has_value(), "no last record");
    try {
      require(isOnePayload(last->payload(), last->id().value), "no payload of the last record");
      for (const qvdb::Record& record : table.records_after(*last)) {
        require(record.id().value > last->id().value, "what follows the last record is older");
      }
    } catch (const qvdb::Error& error) {
      require(error.reason() == Reason::record_missing, error.what());
    }
  }

  std::mt19937_64 random_;
  Board& board_;
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
      ReadingProcess(path(), table, seed + i, *board).work();
      return 0;
    });
  }
  processes.emplace_back([&] {
    const AtEnd end{*board};
    Writer(path(), table, seed, *board).work(testEverything() ? 200'000 : 5'000);
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
