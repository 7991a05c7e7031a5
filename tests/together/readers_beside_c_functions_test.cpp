// Readers beside a writer that uses the C functions, which takes no part in the turns.
//
// What such a writer does to a reader is counted: readings that fail, miss a record, or get a
// payload that is mixed from two. Each is right when it is repeated, and all are once the writer
// rests. Nothing else happens: no record twice, out of order or that never was, no bytes of another
// record.
//
// The records with the numbers 1 to kStaying are never deleted. Each payload says what it is.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <random>
#include <span>
#include <string>
#include <thread>
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
using qvdb::Reason;

constexpr uint64_t kStaying = 30;
constexpr uint64_t kNever = 999;
constexpr uint32_t kFirstExtra = 2'000;

void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

// ---- the writer ----

class CWriter {
 public:
  CWriter(const std::filesystem::path& path, const std::string& table, uint64_t seed)
      : random_(seed) {
    const std::u16string wide = qvdb::Database::native_path(path);
    db_ = OpenDBaseW(reinterpret_cast<const QVWCHAR*>(wide.c_str()), 3);
    table_ = FindTableByName(db_, table.c_str());
    require(db_ != 0 && table_ != 0, "cannot open it");
    longest_.fill(kFirstExtra);
  }
  ~CWriter() { CloseDBase(db_); }
  CWriter(const CWriter&) = delete;
  CWriter& operator=(const CWriter&) = delete;

  void work(int rounds) {
    for (int i = 0; i < rounds; ++i) step();
  }

 private:
  void step() {
    const std::array<uint64_t, 2> added = {add(), add()};
    writeOver(random_() % kStaying + 1);
    if (random_() % 8 == 0) move(random_() % kStaying + 1);
    if (random_() % 4 == 0) setData();
    if (random_() % 4 == 0) {
      const uint64_t touched = random_() % kStaying + 1;
      require(ModifyOneRecordInfo_LMTime(db_, table_, touched) == 1, "touching fails");
    }
    for (const uint64_t id : added) {
      require(DeleteOneRecord(db_, table_, id, nullptr) == 1, "deleting fails");
    }
  }

  uint64_t add() {
    uint64_t id = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>("x");
    require(AddRecordData(db_, table_, bytes, 1, 0, &id) == 1, "adding fails");
    return id;
  }

  void writeOver(uint64_t id) { modify(id, static_cast<uint32_t>(random_() % (longest_[id] + 1))); }

  void move(uint64_t id) { modify(id, ++longest_[id]); }

  void modify(uint64_t id, uint32_t extra) {
    const std::string payload = payloadOf(id, ++version_, extra);
    const auto* bytes = reinterpret_cast<const unsigned char*>(payload.data());
    const auto size = static_cast<uint32_t>(payload.size());
    require(ModifyRecordData(db_, table_, bytes, size, id, nullptr) == 1, "modifying fails");
  }

  void setData() {
    const auto extra = static_cast<uint32_t>(random_() % (kFirstExtra + 1));
    const std::string data = payloadOf(table_, ++version_, extra);
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
    const auto size = static_cast<uint32_t>(data.size());
    require(SetTableData(db_, table_, bytes, size, 0) == 1, "table data fail");
  }

  std::mt19937_64 random_;
  int16_t db_ = 0;
  uint64_t table_ = 0;
  uint32_t version_ = 0;
  std::array<uint32_t, kStaying + 1> longest_ = {};  // by record: beyond that it moves
};

// ---- the readers ----

struct Count {
  uint64_t readings = 0;
  uint64_t failed = 0;   // with a reason that the contract names
  uint64_t missing = 0;  // a record that was there all the time
  uint64_t mixed = 0;    // payloads and table data
};

class ReaderBesideC {
 public:
  ReaderBesideC(const std::filesystem::path& path, const std::string& table, uint64_t seed)
      : random_(seed),
        database_(qvdb::Database::open(path)),
        table_(database_.table(table)),
        view_(database_.reader()),
        viewed_(view_.table(table)) {
    if (seed % 2 == 0) indexes_ = {table_.index(), viewed_.index()};
  }

  // Until the writer rests; then everything once more, which is right at once.
  Count work(const Board& board) {
    do {
      repeat(static_cast<int>(random_() % kReadings));
    } while (!board.isOver);
    const Count besideTheWriter = count_;
    for (int i = 0; i < kReadings * 2; ++i) require(read(i), "not right after the writer's end");
    return besideTheWriter;
  }

 private:
  static constexpr int kReadings = 8;

  // For longer than the writer can need to end its call, also where it waits for a processor.
  void repeat(int reading) {
    ++count_.readings;
    for (int i = 0; i < 2'000; ++i) {
      if (read(reading)) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    throw std::runtime_error("reading " + std::to_string(reading) + " never comes to its end");
  }

  // Whether it was right.
  bool read(int reading) {
    const qvdb::Table& table = random_() % 2 == 0 ? table_ : viewed_;
    const Id id{random_() % kStaying + 1};
    try {
      switch (reading % kReadings) {
        case 0:
          return get(table, id);
        case 1:
          return walk(table.records({.load = qvdb::Load::payloads}), 1, kStaying);
        case 2:
          return walk(table.records({.order = qvdb::Order::newest_first}), kStaying, 1);
        case 3:
          return walkAfter(table, id);
        case 4:
          return lookUpTheAbsent(table);
        case 5:
          return readData(table);
        case 6:
          return readInfo(table);
        default:
          return found(table.first().has_value() && table.last().has_value());
      }
    } catch (const qvdb::Error& error) {
      require(isOfThisContract(error.reason()), error.what());
      ++count_.failed;
      return false;
    }
  }

  static bool isOfThisContract(Reason reason) {
    constexpr std::array kReasons = {Reason::changed_meanwhile, Reason::chain_damaged,
                                     Reason::directory_damaged, Reason::data_damaged,
                                     Reason::record_missing};
    return std::find(kReasons.begin(), kReasons.end(), reason) != kReasons.end();
  }

  bool found(bool isFound) {
    if (!isFound) ++count_.missing;
    return isFound;
  }

  bool isOne(std::span<const std::byte> bytes, uint64_t owner) {
    const Given given = classify(bytes, owner);
    require(given != Given::other, "bytes that " + std::to_string(owner) + " never had");
    if (given == Given::mixed) ++count_.mixed;
    return given == Given::one;
  }

  bool get(const qvdb::Table& table, Id id) {
    const auto payload = table.get(id);
    return found(payload.has_value()) && isOne(*payload, id.value);
  }

  // The staying records from one number to another are among them, in order.
  bool walk(qvdb::RecordRange records, uint64_t from, uint64_t to) {
    std::vector<uint64_t> seen;
    bool isRight = true;
    for (const qvdb::Record& record : records) {
      const uint64_t id = record.id().value;
      if (id > kStaying) continue;
      require(seen.empty() || (from < to) == (seen.back() < id), "out of order");
      seen.push_back(id);
      if (record.is_loaded()) isRight = isOne(record.loaded(), id) && isRight;
    }
    const uint64_t expected = from < to ? to - from + 1 : from - to + 1;
    return found(seen.size() == expected) && isRight;
  }

  bool walkAfter(const qvdb::Table& table, Id id) {
    if (id.value == kStaying) return true;
    return walk(
        random_() % 2 == 0 ? table.records_after(id) : table.records_after(table.find(id).value()),
        id.value + 1, kStaying);
  }

  bool lookUpTheAbsent(const qvdb::Table& table) {
    require(!table.contains(Id{kNever}), "found what was never there");
    require(!table.get(Id{kNever}).has_value(), "a payload of what was never there");
    return true;
  }

  bool readData(const qvdb::Table& table) {
    const auto data = table.data();
    return found(data.has_value()) && isOne(*data, table.id().value);
  }

  bool readInfo(const qvdb::Table& table) {
    const qvdb::TableInfo info = table.info();
    require(info.record_count <= kStaying + 2, "more records than there were at any time");
    return found(info.record_count >= kStaying);
  }

  std::mt19937_64 random_;
  qvdb::Database database_;
  qvdb::Table table_;
  qvdb::Reader view_;
  qvdb::Table viewed_;
  std::vector<qvdb::RecordIndex> indexes_;
  Count count_;
};

class BesideCFunctionsTest : public LayerTest, public testing::WithParamInterface<const char*> {};

TEST_P(BesideCFunctionsTest, ReadersGetTheRightAnswerWhenTheyAskAgain) {
  const std::string table = GetParam();
  const uint64_t seed = randomSeed();
  const SharedBoard board;
  std::vector<ForkedLater> processes;
  for (uint64_t i = 0; i < 4; ++i) {
    processes.emplace_back([&, i] {
      const Count count = ReaderBesideC(path(), table, seed + i).work(*board);
      reportCount("readings beside the C functions", count.readings);
      reportCount("readings beside the C functions that failed and were repeated", count.failed);
      reportCount("readings beside the C functions that missed a record", count.missing);
      reportCount("payloads that the C functions wrote over while they were read", count.mixed);
      return 0;
    });
  }
  processes.emplace_back([&] {
    const AtEnd end{*board};
    CWriter(path(), table, seed).work(testEverything() ? 200'000 : 1'000);
    return 0;
  });
  {
    qvdb::Database database = createDatabase();
    database.add_table("first");
    // The slot of the 29th table crosses the border of a page.
    for (int i = 1; i <= 28 && table != "first"; ++i) database.add_table("t" + std::to_string(i));
    qvdb::Table filled = database.table(table);
    filled.set_data(payloadOf(filled.id().value, 0, kFirstExtra));
    for (uint64_t id = 1; id <= kStaying; ++id) {
      filled.add_with_id(Id{id}, payloadOf(id, 0, kFirstExtra));
    }
  }
  for (ForkedLater& process : processes) process.begin();
  for (ForkedLater& process : processes) EXPECT_EQ(process.end(), 0);
}

INSTANTIATE_TEST_SUITE_P(TablesIn, BesideCFunctionsTest, testing::Values("first", "t28"),
                         [](const auto& table) { return std::string(table.param); });

}  // namespace
}  // namespace qvdbase::test
