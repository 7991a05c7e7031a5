// Walks during which the table changes, and records that outlive the walk that delivered them.
#include <memory>

#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Load;
using qvdb::Record;

// Only an iterator would be left of such a range, and it would point to nothing.
template <typename Range>
concept BeginsWithoutAName = requires(Range (*make)()) {
  make().begin();
};
template <typename Range>
concept BeginsWithAName = requires(Range& range) {
  range.begin();
};
static_assert(BeginsWithAName<qvdb::RecordRange> && !BeginsWithoutAName<qvdb::RecordRange>);
static_assert(std::ranges::input_range<qvdb::RecordRange>);

class WalksWithChanges : public LayerTest {
 protected:
  void fill(int count, size_t size = 20) {
    database = createDatabase();
    table = database.add_table("t");
    auto bulk = table.appender();
    for (int i = 0; i < count; ++i) {
      bulk.add(qvdb::NewRecord(span(Bytes(size, static_cast<uint8_t>(i))), 0,
                               Id{static_cast<uint64_t>(i) + 1}));
    }
    bulk.finish();
  }
  static uint64_t numberOf(const Record& record) { return record.id().value; }

  qvdb::Database database;
  qvdb::Table table;
};

TEST_F(WalksWithChanges, CopiedRecordsKeepTheirPayloads) {
  fill(700);
  std::vector<Record> copies;
  {
    auto walk = table.records(Load::payloads);
    for (const Record& record : walk) {
      copies.push_back(record);
      if (record.id().value == 1) {
        EXPECT_NE(copies.back().loaded().data(), record.loaded().data());
      }
    }
  }
  const std::vector<Record> again = copies;
  copies.clear();
  ASSERT_EQ(again.size(), 700u);
  for (size_t i = 0; i < again.size(); ++i) {
    EXPECT_EQ(bytes(again[i].loaded()), Bytes(20, static_cast<uint8_t>(i)));
  }
  Record assigned;
  for (const Record& record : table.records(Load::payloads)) assigned = record;
  EXPECT_EQ(bytes(assigned.loaded()), Bytes(20, static_cast<uint8_t>(699)));
  const Record moved = std::move(assigned);
  EXPECT_EQ(moved.loaded().size(), 20u);
}

// The calls to the system that the walk's own steps make; those of the changes do not count.
template <typename Change>
int callsOfSteps(const qvdb::Table& table, Load load, Change change) {
  RecordedCalls host;
  int calls = 0;
  auto walk = table.records(load);
  for (auto i = walk.begin(); i != walk.end();) {
    change(*i);
    const int before = host.count(Call::read);
    ++i;
    calls += host.count(Call::read) - before;
  }
  return calls;
}

TEST_F(WalksWithChanges, ReadNothingAgainWhenTheRecordJustDeliveredChanges) {
  if (!platform::gathersTransfers()) GTEST_SKIP() << "each transfer is a system call of its own";
  for (const Load load : {Load::headers, Load::payloads}) {
    fill(2000);
    const int alone = callsOfSteps(table, load, [](const Record&) {});
    const auto expectNoMore = [&](auto change) {
      EXPECT_LE(callsOfSteps(table, load, change), alone + 1);
    };
    expectNoMore([&](const Record& record) { EXPECT_TRUE(table.modify(record, "in place")); });
    expectNoMore([&](const Record& record) { EXPECT_TRUE(table.write(record, 0, "part")); });
    expectNoMore([&](const Record& record) { EXPECT_TRUE(table.touch(record)); });
    auto other = database.add_table("other");
    expectNoMore([&](const Record&) { other.add("x"); });
    expectNoMore([&](const Record& record) { EXPECT_TRUE(table.remove(record)); });
    EXPECT_EQ(table.count(), 0u);
    database.close();
    std::filesystem::remove(path());
  }
}

TEST_F(WalksWithChanges, DeliverEachRecordOnceWhileAllAreDeletedOrMoved) {
  for (const int count : {1, 3, 7, 500, 3000}) {
    fill(count);
    uint64_t expected = 0;
    for (const Record& record : table.records(Load::payloads)) {
      EXPECT_EQ(numberOf(record), ++expected);
      EXPECT_EQ(bytes(record.loaded()), Bytes(20, static_cast<uint8_t>(expected - 1)));
      if (expected % 2 == 0) {
        EXPECT_TRUE(table.remove(record));
      } else {
        EXPECT_TRUE(table.modify(record, span(Bytes(60, 'm'))));
      }
    }
    EXPECT_EQ(expected, static_cast<uint64_t>(count));
    EXPECT_EQ(table.count(), static_cast<uint32_t>(count + 1) / 2);
    database.close();
    std::filesystem::remove(path());
  }
}

// After the current record was deleted, its block still names the next one, which then goes too.
TEST_F(WalksWithChanges, PassOverWhatIsDeletedAfterADeletedRecord) {
  fill(6);
  std::vector<uint64_t> seen;
  for (const Record& record : table.records()) {
    seen.push_back(numberOf(record));
    if (numberOf(record) != 2) continue;
    table.remove(record);
    table.remove(Id{3});
    table.modify(Id{4}, span(Bytes(100, 'm')));
    table.remove(Id{5});
  }
  EXPECT_EQ(seen, (std::vector<uint64_t>{1, 2, 4, 6}));
}

TEST_F(WalksWithChanges, PassOverWhatIsDeletedAfterARecordThatMoved) {
  fill(6);
  std::vector<uint64_t> seen;
  for (const Record& record : table.records()) {
    seen.push_back(numberOf(record));
    if (numberOf(record) != 2) continue;
    table.modify(record, span(Bytes(100, 'm')));
    table.remove(Id{3});
  }
  EXPECT_EQ(seen, (std::vector<uint64_t>{1, 2, 4, 5, 6}));
}

// Two walks over one table, of which each sees what is deleted during the other.
TEST_F(WalksWithChanges, SeeWhatIsDeletedAtAnotherWalk) {
  fill(8);
  std::vector<uint64_t> seen;
  auto outer = table.records();
  for (const Record& record : outer) {
    seen.push_back(numberOf(record));
    if (numberOf(record) != 2) continue;
    for (const Record& each : table.records()) {
      if (numberOf(each) % 2 == 0) table.remove(each);
    }
  }
  EXPECT_EQ(seen, (std::vector<uint64_t>{1, 2, 3, 5, 7}));
}

// No change is reported to a walk that has ended or was destroyed.
TEST_F(WalksWithChanges, AreNotDisturbedAfterTheirEnd) {
  fill(3);
  auto walk = table.records();
  for (auto i = walk.begin(); i != walk.end(); ++i) continue;
  {
    auto second = table.records();
    second.begin();
  }
  table.remove(Id{2});
  std::vector<uint64_t> seen;
  for (const Record& record : walk) seen.push_back(numberOf(record));
  EXPECT_EQ(seen, (std::vector<uint64_t>{1, 3}));
}

TEST_F(WalksWithChanges, EraseThoseThatAPredicateChooses) {
  fill(1000);
  EXPECT_EQ(qvdb::erase_if(table, [&](const Record& r) { return numberOf(r) % 3 != 0; }), 667u);
  EXPECT_EQ(table.count(), 333u);
  for (const Record& record : table.records()) EXPECT_EQ(numberOf(record) % 3, 0u);
  const auto isNine = [](const Record& r) { return r.loaded()[0] == std::byte{8}; };
  EXPECT_EQ(qvdb::erase_if(table, isNine, Load::payloads), 2u);  // 9 and 777
  EXPECT_FALSE(table.contains(Id{9}));
}

}  // namespace
}  // namespace qvdbase::test
