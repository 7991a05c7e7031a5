// Adding many records at once through the C++ layer.
#include <iterator>
#include <stdexcept>

#include "qvdb/layer_fixture.h"
#include "support/recorded_calls.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::NewRecord;
using qvdb::Reason;

using LayerBulk = LayerTest;

TEST_F(LayerBulk, AppendsARangeOfByteVectors) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const std::vector<std::vector<std::byte>> payloads{
      {std::byte{1}}, {}, {std::byte{2}, std::byte{3}}};
  EXPECT_EQ(table.append_all(payloads), 3u);
  std::vector<Bytes> read;
  for (const qvdb::Record& record : table.records()) read.push_back(bytes(record.payload()));
  EXPECT_EQ(read, (std::vector<Bytes>{hex("01"), hex(""), hex("0203")}));
}

TEST_F(LayerBulk, AppendsWithGivenIdentifiersAndRoom) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const Bytes payload = bytesOf("abc");
  const std::vector<NewRecord> records{NewRecord(span(payload), 10, Id{5}),
                                       NewRecord(span(payload), 0, Id{6})};
  EXPECT_EQ(table.append_all(records), 2u);
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{5, 6}));
  EXPECT_EQ(table.find(Id{5})->info().capacity, 10u);
}

TEST_F(LayerBulk, ShowsNothingBeforeItIsFinished) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto bulk = table.appender();
  const Id id = bulk.add(span(bytesOf("a")));
  EXPECT_EQ(table.count(), 0u);
  EXPECT_EQ(bulk.taken(), 0u);
  EXPECT_EQ(bulk.finish(), 1u);
  EXPECT_EQ(bytes(table.get(id)), bytesOf("a"));
  expectError(Reason::bad_argument, [&] { bulk.add(span(bytesOf("b"))); });
}

TEST_F(LayerBulk, IsFinishedByItsEnd) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  { table.appender().add(span(bytesOf("a"))); }
  EXPECT_EQ(table.count(), 1u);
}

// Records 1 and 2, and a third that cannot be had.
struct ThrowingRange {
  struct iterator {
    using iterator_concept = std::input_iterator_tag;
    using value_type = NewRecord;
    using difference_type = std::ptrdiff_t;

    NewRecord operator*() const {
      if (number == 3) throw std::runtime_error("enough");
      return NewRecord(span(*payload), 0, Id{number});
    }
    iterator& operator++() {
      ++number;
      return *this;
    }
    void operator++(int) { ++number; }
    bool operator==(std::default_sentinel_t) const { return number > 3; }

    const Bytes* payload;
    uint64_t number;
  };

  iterator begin() const { return {&payload, 1}; }
  std::default_sentinel_t end() const { return {}; }

  Bytes payload;
};

TEST_F(LayerBulk, OfARangeThatThrowsKeepsWhatCameBefore) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  EXPECT_THROW(table.append_all(ThrowingRange{bytesOf("p")}), std::runtime_error);
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{1, 2}));
}

TEST_F(LayerBulk, NoticesThatSomebodyElseAppended) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto bulk = table.appender();
  bulk.add(span(bytesOf("lost")));
  const Id id = table.add(span(bytesOf("kept")));
  expectError(Reason::cannot_write, [&] { bulk.finish(); });
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{id.value}));
}

TEST_F(LayerBulk, LeavesTheFilePositionWhereItWas) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  seek(database.handle(), 77);
  auto bulk = table.appender();
  for (int i = 0; i < 30; ++i) bulk.add(span(Bytes(100'000, 'x')));
  EXPECT_EQ(position(database.handle()), 77);
  bulk.finish();
  EXPECT_EQ(position(database.handle()), 77);
}

TEST_F(LayerBulk, KeepsAnIndexRight) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const qvdb::RecordIndex index = table.index();
  auto bulk = table.appender();
  const Id id = bulk.add(span(bytesOf("a")));
  bulk.finish();
  EXPECT_EQ(bytes(table.get(id)), bytesOf("a"));
}

TEST_F(LayerBulk, RefusesReadOnlyDatabases) {
  createDatabase().add_table("t");
  auto database = openDatabase(qvdb::Mode::read_only);
  expectError(Reason::read_only, [&] { database.table("t").appender(); });
}

TEST_F(LayerBulk, SaysThatTheFileCannotBeWritten) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  allowDamage();
  RecordedCalls host;
  host.failFrom(Call::write, 1);
  const Bytes payload(100'000, 'x');
  const std::vector<NewRecord> records(30, NewRecord(span(payload)));
  expectError(Reason::cannot_write, [&] { table.append_all(records); });
  host.heal();
  EXPECT_EQ(table.count(), idsOf(table).size());
}

using LayerLoadedWalk = LayerTest;

TEST_F(LayerLoadedWalk, DeliversEveryPayloadWithItsRecord) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  std::vector<Bytes> payloads;
  for (std::size_t i = 0; i < 700; ++i) {
    payloads.push_back(Bytes(i % 7 == 0 ? 0 : i * 13 % 900, static_cast<uint8_t>(i)));
  }
  payloads.push_back(Bytes(400'000, 'L'));  // more than a window holds
  payloads.push_back(Bytes(5, 'e'));
  for (const Bytes& payload : payloads) table.add(span(payload), 3);
  std::vector<Bytes> loaded;
  for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
    loaded.push_back(bytes(record.loaded()));
  }
  EXPECT_EQ(loaded, payloads);
}

TEST_F(LayerLoadedWalk, LoadsNothingUnlessAsked) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  table.add(span(bytesOf("abc")));
  for (const qvdb::Record& record : table.records()) EXPECT_TRUE(record.loaded().empty());
}

TEST_F(LayerLoadedWalk, DeliversTheRecordsBeforeAPayloadThatIsCutOff) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  for (int i = 0; i < 5; ++i) table.add(span(Bytes(100, 'x')));
  database.close();
  writeFile(path(), contents().cut(fileSize() - 50));
  allowDamage();
  auto damaged = openDatabase(qvdb::Mode::read_only);
  auto cut = damaged.table("t");
  int delivered = 0;
  expectError(Reason::data_damaged, [&] {
    for (const qvdb::Record& record : cut.records(qvdb::Load::payloads)) {
      EXPECT_EQ(record.loaded().size(), 100u);
      ++delivered;
    }
  });
  EXPECT_EQ(delivered, 4);
}

TEST_F(LayerLoadedWalk, SeesWhatTheLayerChangesMeanwhile) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  std::vector<Id> ids;
  for (int i = 0; i < 4; ++i) ids.push_back(table.add(span(Bytes(10, 'a'))));
  std::vector<std::string> seen;
  for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
    seen.push_back(bytes(record.loaded()).str());
    if (record.id() == ids[0]) table.modify(ids[2], span(bytesOf("changed")));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"aaaaaaaaaa", "aaaaaaaaaa", "changed", "aaaaaaaaaa"}));
}

}  // namespace
}  // namespace qvdbase::test
