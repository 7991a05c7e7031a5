// Adding many records at once through the C++ layer.
#include <iterator>
#include <stdexcept>

#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
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

TEST_F(LayerBulk, AppendsWithGivenIdentifiersAndCapacity) {
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

// A deletion that was cut off has left the last record without the one before it. Records linked
// to it would not be reached from the beginning of the chain.
TEST_F(LayerBulk, IsNotBegunWhereTheLastDeletionWasCutOff) {
  FileImage image;
  image.addTable("t", 0x1101);
  std::vector<int64_t> records;
  for (uint64_t i = 0; i < 4; ++i) records.push_back(image.addRecord(0, 0xA0 + i, bytesOf("text")));
  image.record(records[2]).nextRecordPos = 0;
  expectDamage();
  auto database = openImage(image);
  auto table = database.table("t");
  expectUnchanged([&] {
    const std::string why = expectError(Reason::chain_damaged, [&] { table.appender(); });
    EXPECT_NE(why.find("the record before the last one leads somewhere else"), std::string::npos);
    expectError(Reason::chain_damaged, [&] { table.writer(); });
    expectError(Reason::chain_damaged, [&] {
      table.append_all(std::vector<std::string>{"a", "b"});
    });
  });
}

// What the database holds before the batch begins, to be found again byte for byte after it.
class DiscardedBatches : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    database = createDatabase();
    table = database.add_table("t");
    table->add(span(bytesOf("before")));
    database.add_table("other").add(span(bytesOf("elsewhere")));
  }

  // 700 records in three pieces, of which two are in the file.
  static void fill(qvdb::BulkAppender& bulk) {
    for (int i = 0; i < 700; ++i) bulk.add(span(Bytes(1000, 'x')));
  }

  // Neither a check nor a salvage finds anything but the two records.
  void expectNothingToSalvage() {
    database.close();
    EXPECT_EQ(qvdb::check(path()).state, qvdb::CheckState::sound);
    qvdb::SalvageOptions everything;
    everything.deleted = true;
    everything.versions = true;
    everything.orphans = true;
    EXPECT_EQ(qvdb::salvage(path(), path("saved.qvd"), {}, everything).records_written, 2u);
  }

  qvdb::Database database;
  std::optional<qvdb::Table> table;
};

TEST_F(DiscardedBatches, LeaveTheFileAsItWas) {
  expectUnchanged([&] {
    auto bulk = table->appender();
    fill(bulk);
    EXPECT_GT(fileSize(), 500'000u);
  });
  EXPECT_EQ(table->count(), 1u);
  expectNothingToSalvage();
}

TEST_F(DiscardedBatches, AreThoseThatAnExceptionLeaves) {
  expectUnchanged([&] {
    EXPECT_THROW(
        {
          auto bulk = table->appender();
          fill(bulk);
          throw std::runtime_error("enough");
        },
        std::runtime_error);
  });
}

TEST_F(DiscardedBatches, AreThoseWhoseDatabaseIsClosed) {
  const Bytes before = contents();
  auto bulk = table->appender();
  fill(bulk);
  database.close();
  EXPECT_TRUE(sameBytes(contents(), before));
  expectError(Reason::not_open, [&] { bulk.finish(); });
}

TEST_F(DiscardedBatches, AreThoseWhoseAppenderIsAssignedTo) {
  const Bytes before = contents();
  auto elsewhere = Database::create(path("elsewhere.qvd"));
  auto bulk = table->appender();
  fill(bulk);
  bulk = elsewhere.add_table("t").appender();
  EXPECT_TRUE(sameBytes(contents(), before));
  table->add(span(bytesOf("again")));
}

// A record that was added by a C function stays. The zeros over the batch belong to no block.
TEST_F(DiscardedBatches, AreOverwrittenWhenSomethingElseWasAppended) {
  expectDamage(kDefaultFile, {"S5"});
  const size_t before = fileSize();
  {
    auto bulk = table->appender();
    fill(bulk);
    const size_t end = fileSize();
    addRecord(database.handle(), table->id().value, bytesOf("past the layer"));
    EXPECT_GT(fileSize(), end);
  }
  EXPECT_EQ(table->count(), 2u);
  database.close();
  const Bytes file = contents();
  const size_t kept = fileSize() - (14 + 56);
  EXPECT_EQ(file.at(before, kept - before), Bytes(kept - before));
  EXPECT_EQ(qvdb::salvage(path(), path("saved.qvd")).records_written, 3u);
}

TEST_F(DiscardedBatches, AreOverwrittenWhereOtherProcessesMayWrite) {
  expectDamage(kDefaultFile, {"S5"});
  database.close();
  const Bytes before = contents();
  {
    auto shared = openDatabase(qvdb::Mode::shared);
    auto notes = shared.table("t");
    auto bulk = notes.appender();
    fill(bulk);
  }
  const Bytes after = contents();
  EXPECT_EQ(after.at(0, before.size()), before);
  EXPECT_EQ(after.at(before.size(), after.size() - before.size()),
            Bytes(after.size() - before.size()));
}

TEST_F(DiscardedBatches, AreThoseThatCannotBeWritten) {
  for (const size_t space : {100'000u, 300'000u, 650'000u}) {
    expectUnchanged([&] {
      RecordedCalls host;
      host.fullAfter(space);
      auto bulk = table->appender();
      expectError(Reason::disk_full, [&] {
        fill(bulk);
        bulk.finish();
      });
      EXPECT_EQ(bulk.taken(), 0u);
      expectError(Reason::bad_argument, [&] { bulk.add(span(bytesOf("more"))); });
      expectError(Reason::bad_argument, [&] { bulk.finish(); });
    });
  }
  table->add(span(bytesOf("after")));
}

// Records 1 and 2, and a third that throws.
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

TEST_F(LayerBulk, OfARangeThatThrowsKeepsNothing) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  expectUnchanged(
      [&] { EXPECT_THROW(table.append_all(ThrowingRange{bytesOf("p")}), std::runtime_error); });
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{}));
}

// What would disturb an open batch is refused before anything is written, and the batch continues.
TEST_F(LayerBulk, RefusesCallsThatWouldDisturbIt) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto other = database.add_table("other");
  const Id id = table.add(span(bytesOf("abc")));
  const Id elsewhere = other.add(span(bytesOf("abc")), 10);
  const Bytes larger(100, 'l');
  const auto refused = [&](auto operation) { expectError(Reason::appender_open, operation); };
  auto bulk = table.appender();
  bulk.add(span(bytesOf("first")));
  expectUnchanged([&] {
    for (qvdb::Table* each : {&table, &other}) {
      refused([&] { each->add(span(bytesOf("x"))); });
      refused([&] { each->add_with_id(Id{7}, span(bytesOf("x"))); });
      refused([&] { each->set_data(span(bytesOf("x"))); });
      refused([&] { each->appender(); });
      refused([&] { each->writer(); });
      refused([&] { each->append_all(std::vector<Bytes>{bytesOf("x")}); });
    }
    refused([&] { table.modify(id, span(larger)); });
    refused([&] { table.modify(*table.find(id), span(larger)); });
    refused([&] { other.modify(elsewhere, span(larger)); });
    refused([&] { table.remove(id); });
    refused([&] { table.remove(*table.find(id)); });
    const qvdb::RecordIndex index = table.index();
    refused([&] { table.modify(id, span(larger)); });
    refused([&] { table.remove(id); });
  });
  EXPECT_TRUE(table.modify(id, span(bytesOf("xyz"))));
  EXPECT_TRUE(table.touch(id));
  EXPECT_TRUE(other.modify(elsewhere, span(bytesOf("in place"))));
  EXPECT_TRUE(other.remove(elsewhere));
  database.add_table("third");
  bulk.add(span(bytesOf("second")));
  EXPECT_EQ(bulk.finish(), 2u);
  EXPECT_EQ(table.count(), 3u);
  table.add(span(larger));
  EXPECT_TRUE(table.remove(id));
}

TEST_F(LayerBulk, NoticesWhatWasAppendedPastTheLayer) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto bulk = table.appender();
  bulk.add(span(bytesOf("lost")));
  const uint64_t id = addRecord(database.handle(), table.id().value, bytesOf("kept"));
  const std::string message = expectError(Reason::cannot_write, [&] { bulk.finish(); });
  EXPECT_NE(message.find("by other means"), std::string::npos) << message;
  EXPECT_EQ(idsOf(table), (std::vector<uint64_t>{id}));
}

TEST_F(LayerBulk, RefusesIdentifierZero) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  auto bulk = table.appender();
  expectError(Reason::bad_argument, [&] { bulk.add(NewRecord(span(bytesOf("a")), 0, Id{0})); });
  bulk.add(span(bytesOf("b")));
  EXPECT_EQ(bulk.finish(), 1u);
  expectUnchanged([&] {
    expectError(Reason::bad_argument, [&] { table.add_with_id(Id{0}, span(bytesOf("a"))); });
    expectError(Reason::bad_argument, [&] { table.writer(0, Id{0}); });
  });
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
  for (size_t i = 0; i < 700; ++i) {
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
