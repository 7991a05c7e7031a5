// Batches: the same file as single appends would have made, and a sound table wherever they stop.
#include "QVDbase/record_batch.h"

#include "QVDbase/position.h"
#include "format/identifiers.h"
#include "support/database_fixture.h"
#include "support/recorded_calls.h"

namespace qvdbase::test {
namespace {

struct Planned {
  uint64_t id;
  Bytes payload;
  uint32_t reserve;
};

constexpr uint32_t kNow = 1'700'000'000;

class Batches : public DatabaseTest {
 protected:
  Batches() { host.setTime(kNow); }

  // A database with one table, the same bytes each time.
  int16_t fresh(const std::string& name) {
    writeFile(path(name), start_);
    return open(name);
  }

  void SetUp() override {
    const int16_t db = create("start.qvd");
    table = addTable(db, "t");
    close(db);
    start_ = contents("start.qvd");
  }

  void appendEach(int16_t db, const std::vector<Planned>& records) {
    for (const Planned& record : records)
      assignRecord(db, table, record.id, record.payload, record.reserve);
  }

  // What a batch was told, and how many records it took in.
  bool appendBatch(int16_t db, const std::vector<Planned>& records, uint32_t* taken) {
    SavedPosition position(db);
    FoundTable found;
    EXPECT_TRUE(findTable(db, table, &found));
    RecordBatch batch(db, found);
    bool complete = batch.begin();
    for (const Planned& planned : records) {
      BatchRecord record;
      internal_ConvertInt64_2UuID(planned.id, record.recordID);
      record.createTime = kNow;
      record.modifyTime = kNow;
      record.dataLength = static_cast<uint32_t>(planned.payload.size());
      record.reserve = planned.reserve;
      complete = complete && batch.add(record, planned.payload.data());
    }
    complete = batch.finish() && complete;
    *taken = batch.taken();
    EXPECT_EQ(position.restore(1), 1);
    return complete;
  }

  static std::vector<Planned> mixedRecords(uint64_t firstID, int count) {
    std::vector<Planned> records;
    for (int i = 0; i < count; ++i) {
      const auto size = static_cast<std::size_t>(i % 5 == 0 ? 0 : (i * 7919) % 3000);
      const auto reserve = static_cast<uint32_t>(i % 3 == 0 ? size + 100 : 0);
      records.push_back(
          {firstID + static_cast<uint64_t>(i), Bytes(size, static_cast<uint8_t>(i)), reserve});
    }
    return records;
  }

  void expectSameAsSingleAppends(const std::vector<Planned>& before,
                                 const std::vector<Planned>& records) {
    const int16_t one = fresh("single.qvd");
    appendEach(one, before);
    appendEach(one, records);
    const int16_t two = fresh("batch.qvd");
    appendEach(two, before);
    uint32_t taken = 0;
    EXPECT_TRUE(appendBatch(two, records, &taken));
    EXPECT_EQ(taken, records.size());
    EXPECT_TRUE(sameBytes(contents("batch.qvd"), contents("single.qvd")));
    close(one);
    close(two);
  }

  RecordedCalls host;
  uint64_t table = 0;

 private:
  Bytes start_;
};

TEST_F(Batches, OfNoRecordsChangeNothing) {
  expectSameAsSingleAppends({}, {});
}

TEST_F(Batches, OfOneRecordIntoAnEmptyTable) {
  expectSameAsSingleAppends({}, {{1, Bytes(10, 'a'), 0}});
}

TEST_F(Batches, BehindRecordsThatAreThere) {
  expectSameAsSingleAppends(mixedRecords(1, 3), mixedRecords(100, 20));
}

TEST_F(Batches, OfSeveralPieces) {
  expectSameAsSingleAppends(mixedRecords(1, 1), mixedRecords(100, 3000));
}

TEST_F(Batches, WithRecordsTooLargeForAPiece) {
  expectSameAsSingleAppends({}, {{1, Bytes(10, 'a'), 0},
                                 {2, Bytes(3 << 20, 'b'), 0},
                                 {3, Bytes(2 << 20, 'c'), 3 << 20},
                                 {4, Bytes(5, 'd'), 0}});
}

TEST_F(Batches, AtThePiecesBorder) {
  for (uint32_t size = (1 << 20) - 58; size < (1 << 20) - 54; ++size) {
    expectSameAsSingleAppends({}, {{1, Bytes(size, 'a'), 0}, {2, Bytes(3, 'b'), 0}});
  }
}

TEST_F(Batches, WriteTheSlotOnceAndLast) {
  const int16_t db = fresh("batch.qvd");
  appendEach(db, mixedRecords(1, 1));
  const SlotFields before = slot(0, "batch.qvd");
  host.forget();
  uint32_t taken = 0;
  EXPECT_TRUE(appendBatch(db, mixedRecords(100, 50), &taken));
  const auto log = ranges(host.writes());
  ASSERT_EQ(log.size(), 3u);  // the blocks, the link of the old last record, the slot
  EXPECT_EQ(log[1].position, before.lastRecordPos + 39);
  EXPECT_EQ(log[2].position, 22);
  EXPECT_EQ(log[2].bytes.size(), 144u);
}

TEST_F(Batches, DoNotBeginBehindARecordThatHasASuccessor) {
  const int16_t db = fresh("batch.qvd");
  appendEach(db, mixedRecords(1, 2));
  close(db);
  Bytes bytes = contents("batch.qvd");
  const auto last = static_cast<std::size_t>(slot(0, "batch.qvd").lastRecordPos);
  bytes[last + 46] = 1;
  writeFile(path("batch.qvd"), bytes);
  allowDamage("batch.qvd");
  const int16_t damaged = open("batch.qvd");
  uint32_t taken = 0;
  expectUnchanged([&] { EXPECT_FALSE(appendBatch(damaged, mixedRecords(100, 2), &taken)); },
                  "batch.qvd");
  EXPECT_EQ(taken, 0u);
}

// The host takes no more bytes after so many: links and counts agree, and the table can be appended
// to again.
TEST_F(Batches, ThatCannotBeWrittenOutLeaveASoundTable) {
  std::vector<Planned> records;
  for (uint64_t i = 0; i < 25; ++i)
    records.push_back({100 + i, Bytes(100'000, static_cast<uint8_t>(i)), 0});
  allowDamage("batch.qvd");  // the torn piece at the end is no block
  std::set<uint32_t> takenCounts;
  for (std::size_t room = 0; room < 2'501'000; room += 86'413) {
    const int16_t db = fresh("batch.qvd");
    appendEach(db, mixedRecords(1, 1));
    host.fullAfter(room);
    uint32_t taken = 0;
    EXPECT_FALSE(appendBatch(db, records, &taken)) << room;
    host.heal();
    takenCounts.insert(taken);
    EXPECT_EQ(numberOfRecords(db, table), 1 + taken);
    const std::vector<uint64_t> ids = list(db, table);
    ASSERT_EQ(ids.size(), 1 + taken);
    for (uint32_t i = 0; i < taken; ++i) EXPECT_EQ(ids[1 + i], 100u + i);
    addRecord(db, table, Bytes(3, 'z'));
    close(db);
    std::filesystem::remove(path("batch.qvd"));
  }
  // No byte more can be written, not even over others: nothing is taken in.
  EXPECT_EQ(takenCounts, std::set<uint32_t>{0});
}

TEST_F(Batches, OfWhichOnePieceIsRefusedKeepThoseBefore) {
  std::vector<Planned> records;
  for (uint64_t i = 0; i < 25; ++i)
    records.push_back({100 + i, Bytes(100'000, static_cast<uint8_t>(i)), 0});
  allowDamage("batch.qvd");
  std::set<uint32_t> takenCounts;
  for (int step = 0;; ++step) {
    const int16_t db = fresh("batch.qvd");
    appendEach(db, mixedRecords(1, 1));
    host.failOnce(Call::write, step);
    uint32_t taken = 0;
    const bool complete = appendBatch(db, records, &taken);
    host.heal();
    if (!host.failed() && complete) break;
    takenCounts.insert(taken);
    const std::vector<uint64_t> ids = list(db, table);
    ASSERT_EQ(ids.size(), 1 + taken) << step;
    close(db);
    std::filesystem::remove(path("batch.qvd"));
  }
  EXPECT_EQ(takenCounts, (std::set<uint32_t>{0, 10, 20}));
}

}  // namespace
}  // namespace qvdbase::test
