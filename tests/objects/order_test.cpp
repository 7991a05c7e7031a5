// Walks in either order, from any record, with payloads loaded in part; the ends of a table.
#include <ranges>

#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Load;
using qvdb::Order;
using qvdb::Reason;
using qvdb::Record;
using qvdb::WalkOptions;

using Ids = std::vector<uint64_t>;

class OrderedRecords : public LayerTest {
 protected:
  // Records 1 to `count`, each with `size` bytes of its number.
  void fill(int count, size_t size = 20) {
    database = createDatabase();
    table = database.add_table("t");
    auto bulk = table.appender();
    for (int i = 1; i <= count; ++i) {
      bulk.add(qvdb::NewRecord(span(Bytes(size, static_cast<uint8_t>(i))), 0,
                               Id{static_cast<uint64_t>(i)}));
    }
    bulk.finish();
  }

  static Ids idsOf(qvdb::RecordRange walk) {
    Ids ids;
    for (const Record& record : walk) ids.push_back(record.id().value);
    return ids;
  }
  Ids newestFirst() const { return idsOf(table.records({.order = Order::newest_first})); }

  static Ids range(int from, int to) {
    Ids ids;
    const int step = from <= to ? 1 : -1;
    for (int i = from; i != to + step; i += step) ids.push_back(static_cast<uint64_t>(i));
    return ids;
  }

  qvdb::Database database;
  qvdb::Table table;
};

TEST_F(OrderedRecords, AreDeliveredNewestFirst) {
  for (const int count : {1, 2, 5, 700, 5000}) {
    fill(count);
    EXPECT_EQ(newestFirst(), range(count, 1));
    EXPECT_EQ(idsOf(table.records(WalkOptions{})), range(1, count));
    database.close();
    std::filesystem::remove(path());
  }
}

TEST_F(OrderedRecords, OfAnEmptyTableAreNoneInEitherOrder) {
  fill(0);
  EXPECT_EQ(newestFirst(), Ids{});
  EXPECT_FALSE(table.first().has_value());
  EXPECT_FALSE(table.last().has_value());
}

TEST_F(OrderedRecords, HaveTheirPayloadsOnTheWayBackToo) {
  for (const size_t size : {0u, 20u, 300u, 5000u}) {
    fill(1500, size);
    uint64_t expected = 1500;
    for (const Record& record :
         table.records({.order = Order::newest_first, .load = Load::payloads})) {
      EXPECT_EQ(record.id().value, expected);
      EXPECT_TRUE(record.is_loaded());
      EXPECT_EQ(bytes(record.loaded()), Bytes(size, static_cast<uint8_t>(expected--)));
    }
    EXPECT_EQ(expected, 0u);
    database.close();
    std::filesystem::remove(path());
  }
}

TEST_F(OrderedRecords, BeginWithTheRecordThatIsAskedFor) {
  fill(9);
  const auto fifth = table.find(Id{5});
  ASSERT_TRUE(fifth.has_value());
  EXPECT_EQ(idsOf(table.records({.from = *fifth})), range(5, 9));
  EXPECT_EQ(idsOf(table.records({.order = Order::newest_first, .from = *fifth})), range(5, 1));
  const int64_t position = fifth->info().position;
  EXPECT_EQ(idsOf(table.records({.from = position})), range(5, 9));
  EXPECT_EQ(idsOf(table.records({.order = Order::newest_first, .from = position})), range(5, 1));
  const auto after = qvdb::WalkStart::after(*fifth);
  EXPECT_EQ(idsOf(table.records({.order = Order::newest_first, .from = after})), range(4, 1));
}

TEST_F(OrderedRecords, AfterOneAreThoseThatWereAddedAfterIt) {
  fill(9);
  const auto fifth = table.find(Id{5});
  EXPECT_EQ(idsOf(table.records_after(*fifth)), range(6, 9));
  EXPECT_EQ(idsOf(table.records_after(Id{5})), range(6, 9));
  EXPECT_EQ(idsOf(table.records_after(*table.last())), Ids{});
  const qvdb::RecordIndex index = table.index();
  EXPECT_EQ(idsOf(table.records_after(Id{8})), Ids{9});
  EXPECT_EQ(idsOf(table.records_after(Id{9})), Ids{});
}

TEST_F(OrderedRecords, BeginWithARecordThatHasMovedSinceItWasFound) {
  fill(9);
  const auto fifth = table.find(Id{5});
  table.modify(Id{5}, span(Bytes(500, 'm')));
  EXPECT_EQ(idsOf(table.records({.from = *fifth})), range(5, 9));
  EXPECT_EQ(idsOf(table.records_after(*fifth)), range(6, 9));
}

TEST_F(OrderedRecords, CannotBeginWithOneThatIsGone) {
  fill(9);
  const auto fifth = table.find(Id{5});
  table.remove(Id{5});
  expectError(Reason::record_missing, [&] { idsOf(table.records({.from = *fifth})); });
  expectError(Reason::record_missing, [&] { idsOf(table.records_after(*fifth)); });
  expectError(Reason::record_missing, [&] { idsOf(table.records_after(Id{5})); });
  for (const int64_t position : {fifth->info().position, int64_t{0}, int64_t{-1}, INT64_MAX}) {
    const std::string why =
        expectError(Reason::record_missing, [&] { idsOf(table.records({.from = position})); });
    EXPECT_NE(why.find("position " + std::to_string(position)), std::string::npos) << why;
  }
}

TEST_F(OrderedRecords, AtTheEndsAreTheFirstAndTheLast) {
  fill(3);
  EXPECT_EQ(table.first()->id(), Id{1});
  EXPECT_EQ(table.last()->id(), Id{3});
  EXPECT_EQ(bytes(table.last()->payload()), Bytes(20, 3));
  EXPECT_FALSE(table.last()->is_loaded());
  table.remove(Id{3});
  table.remove(Id{1});
  EXPECT_EQ(table.first()->id(), Id{2});
  EXPECT_EQ(table.last()->id(), Id{2});
}

TEST_F(OrderedRecords, LoadOnlyTheFirstBytesWhereTheseAreWanted) {
  fill(1000);
  table.modify(Id{3}, "ab");
  for (const Order order : {Order::oldest_first, Order::newest_first}) {
    size_t seen = 0;
    for (const Record& record : table.records({.order = order, .load = qvdb::first_bytes(5)})) {
      const bool isShort = record.id() == Id{3};
      EXPECT_EQ(record.is_loaded(), isShort);
      const auto first = static_cast<uint8_t>(record.id().value);
      EXPECT_EQ(bytes(record.loaded()), isShort ? bytesOf("ab") : Bytes(5, first));
      ++seen;
    }
    EXPECT_EQ(seen, 1000u);
  }
}

// The record after a large one has its own payload again.
TEST_F(OrderedRecords, LeaveOutPayloadsAboveTheStatedSize) {
  fill(400);
  table.modify(Id{200}, span(Bytes(101, 'L')));
  table.modify(Id{201}, span(Bytes(100, 'k')));
  for (const Order order : {Order::oldest_first, Order::newest_first}) {
    const WalkOptions options{.order = order, .load = Load::payloads, .largest_loaded = 100};
    for (const Record& record : table.records(options)) {
      EXPECT_EQ(record.is_loaded(), record.id() != Id{200});
      if (record.is_loaded()) {
        EXPECT_EQ(record.loaded().size(), record.size());
      } else {
        EXPECT_TRUE(record.loaded().empty());
        EXPECT_EQ(bytes(record.payload()), Bytes(101, 'L'));
      }
    }
  }
  const WalkOptions usual{.load = Load::payloads};
  table.modify(Id{1}, span(Bytes(1024 * 1024 + 1, 'L')));
  for (const Record& record : table.records(usual)) {
    EXPECT_EQ(record.is_loaded(), record.id() != Id{1});
  }
  for (const Record& record : table.records(Load::payloads)) EXPECT_TRUE(record.is_loaded());
}

// The slot and ten headers: what a walk of ten thousand records reads would be 1.5 MB.
TEST_F(OrderedRecords, CostTheReadsOfTheLastTenWhereOnlyTheseAreWanted) {
  fill(10'000, 100);
  RecordedCalls host;
  Ids last;
  for (const Record& record : table.records({.order = Order::newest_first})) {
    last.push_back(record.id().value);
    if (last.size() == 10) break;
  }
  EXPECT_EQ(last, range(10'000, 9'991));
  uint64_t asked = 0;
  for (const Event& event : host.events()) {
    if (event.call == Call::read) asked += event.count;
  }
  EXPECT_LE(asked, 32u * 1024);
  if (platform::gathersTransfers()) {
    EXPECT_LE(host.count(Call::read), 10);
  }
}

TEST_F(OrderedRecords, AreReadInLargePiecesOnTheWayBack) {
  fill(10'000, 100);
  for (const Load load : {Load::headers, Load::payloads}) {
    RecordedCalls host;
    EXPECT_EQ(std::ranges::distance(table.records({.order = Order::newest_first, .load = load})),
              10'000);
    if (platform::gathersTransfers()) {
      EXPECT_LE(host.count(Call::read), 60);
    }
  }
}

TEST_F(OrderedRecords, CanAllBeDeletedOrMovedOnTheWayBack) {
  for (const int count : {1, 3, 7, 500, 3000}) {
    fill(count);
    auto expected = static_cast<uint64_t>(count);
    for (const Record& record :
         table.records({.order = Order::newest_first, .load = Load::payloads})) {
      EXPECT_EQ(record.id().value, expected);
      EXPECT_EQ(bytes(record.loaded()), Bytes(20, static_cast<uint8_t>(expected)));
      if (expected % 2 == 0) {
        EXPECT_TRUE(table.remove(record));
      } else {
        EXPECT_TRUE(table.modify(record, span(Bytes(60, 'm'))));
      }
      --expected;
    }
    EXPECT_EQ(expected, 0u);
    EXPECT_EQ(table.count(), static_cast<uint32_t>(count + 1) / 2);
    database.close();
    std::filesystem::remove(path());
  }
}

TEST_F(OrderedRecords, OnTheWayBackAreThoseThatAreThereWhenTheWalkComesToThem) {
  fill(8);
  Ids seen;
  for (const Record& record : table.records({.order = Order::newest_first})) {
    seen.push_back(record.id().value);
    if (seen.back() != 6) continue;
    table.add_with_id(Id{99}, "added at the other end");
    table.remove(record);
    table.remove(Id{5});
    table.modify(Id{4}, span(Bytes(100, 'm')));
    table.remove(Id{2});
  }
  EXPECT_EQ(seen, (Ids{8, 7, 6, 4, 3, 1}));
}

// ---- Damaged and hostile files

class DamagedOrder : public LayerTest {
 protected:
  // Ten records, and where they are.
  void SetUp() override {
    LayerTest::SetUp();
    image.addTable("notes", 0x11);
    for (uint64_t i = 1; i <= 10; ++i) at.push_back(image.addRecord(0, i, pattern(20)));
    allowDamage();
  }

  // Walks, and expects damage if it should be reached. Returns the identifiers before it; *error is
  // what was thrown.
  Ids walk(const WalkOptions& options, std::optional<qvdb::Error>* error = nullptr,
           bool reachesDamage = true) {
    auto database = openImage(image, qvdb::Mode::read_only);
    Ids seen;
    const auto goThrough = [&] {
      for (const Record& record : database.table("notes").records(options)) {
        seen.push_back(record.id().value);
      }
    };
    if (!reachesDamage) {
      goThrough();
      return seen;
    }
    auto thrown = errorOf(goThrough);
    if (thrown) {
      EXPECT_EQ(thrown->reason(), Reason::chain_damaged) << thrown->what();
    }
    if (error != nullptr) *error = std::move(thrown);
    return seen;
  }
  static constexpr WalkOptions kBack{.order = Order::newest_first};

  FileImage image;
  std::vector<int64_t> at;
};

TEST_F(DamagedOrder, IsReportedWithTheNumberOfTheRecordOnTheWayBack) {
  image.record(at[3]).blockMark = 0;
  std::optional<qvdb::Error> error;
  EXPECT_EQ(walk(kBack, &error), (Ids{10, 9, 8, 7, 6, 5}));
  EXPECT_EQ(error->record_number(), 4u);
  EXPECT_NE(std::string(error->what()).find("record 4 of 10"), std::string::npos) << error->what();
}

TEST_F(DamagedOrder, OfABackwardChainThatEndsEarlyIsReported) {
  image.record(at[3]).prevRecordPos = 0;
  std::optional<qvdb::Error> error;
  EXPECT_EQ(walk(kBack, &error), (Ids{10, 9, 8, 7, 6, 5, 4}));
  EXPECT_EQ(error->record_number(), 3u);
}

TEST_F(DamagedOrder, OfABackwardChainThatLoopsEndsTheWalk) {
  image.record(at[3]).prevRecordPos = at[7];
  image.slot(0).recordCount = 0xFFFFFFFF;
  const Ids seen = walk(kBack);
  EXPECT_GE(seen.size(), 7u);
  EXPECT_LE(seen.size(), 100u);
}

TEST_F(DamagedOrder, OfThePositionsInTheSlotIsReported) {
  for (const int64_t position : {int64_t{0}, int64_t{-1}, int64_t{1} << 40, INT64_MAX, at[4] + 1}) {
    image.slot(0).lastRecordPos = position;
    EXPECT_EQ(walk(kBack), Ids{});
    auto database = openImage(image, qvdb::Mode::read_only);
    expectError(Reason::chain_damaged, [&] { database.table("notes").last(); });
    EXPECT_EQ(database.table("notes").first()->id(), Id{1});
  }
}

TEST_F(DamagedOrder, IsReportedWhereAPartOfTheChainIsCutOff) {
  image.record(at[7]).nextRecordPos = 0;
  image.record(at[2]).prevRecordPos = 0;
  std::optional<qvdb::Error> error;
  // The record to begin with is beside neither.
  EXPECT_EQ(walk({.from = at[5]}, &error), (Ids{6, 7, 8}));
  EXPECT_EQ(error->record_number(), std::nullopt);
  EXPECT_EQ(walk({.order = Order::newest_first, .from = at[5]}), (Ids{6, 5, 4, 3}));
}

// One neighbour leads to each of these.
TEST_F(DamagedOrder, LeavesTheRecordsBesideItAsPlacesToBeginWith) {
  image.record(at[4]).blockMark = 0;
  EXPECT_EQ(walk({.order = Order::newest_first, .from = at[3]}, nullptr, false), (Ids{4, 3, 2, 1}));
  EXPECT_EQ(walk({.from = at[5]}, nullptr, false), (Ids{6, 7, 8, 9, 10}));
}

TEST_F(DamagedOrder, OfALoopEndsAWalkThatBeganInIt) {
  image.record(at[9]).nextRecordPos = at[3];
  image.slot(0).recordCount = 0xFFFFFFFF;
  EXPECT_LE(walk({.from = at[5]}).size(), 100u);
}

// Positions beside a record, in the header of the file and after its last block.
TEST_F(DamagedOrder, IsNoPlaceToBeginWith) {
  auto database = openImage(image, qvdb::Mode::read_only);
  auto table = database.table("notes");
  for (const int64_t position : {at[5] - 1, at[5] + 1, int64_t{22}, at[9] + 74}) {
    expectError(Reason::record_missing, [&] {
      auto walk = table.records({.from = position});
      walk.begin();
    });
  }
}

}  // namespace
}  // namespace qvdbase::test
