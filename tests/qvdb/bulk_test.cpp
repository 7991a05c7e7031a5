// Adding many records at once through the C++ layer.
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

TEST_F(LayerBulk, OfARangeThatThrowsKeepsWhatCameBefore) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const std::vector<int> numbers{1, 2, 3};
  const Bytes payload = bytesOf("p");
  auto range = numbers | std::views::transform([&](int i) {
                 if (i == 3) throw std::runtime_error("enough");
                 return NewRecord(span(payload), 0, Id{static_cast<uint64_t>(i)});
               });
  EXPECT_THROW(table.append_all(range), std::runtime_error);
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
  std::vector<Bytes> payloads(30, Bytes(100'000, 'x'));
  expectError(Reason::cannot_write, [&] {
    table.append_all(payloads |
                     std::views::transform([](const Bytes& b) { return NewRecord(span(b)); }));
  });
  host.heal();
  EXPECT_EQ(table.count(), idsOf(table).size());
}

}  // namespace
}  // namespace qvdbase::test
