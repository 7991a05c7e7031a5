// Batches: the same file as single appends would have made, and a sound table wherever they stop.
#include "QVDbase/record_batch.h"
#include "kit/layers.h"

#include <functional>
#include <optional>

#include "QVDbase/position.h"
#include "format/identifiers.h"
#include "kit/database_fixture.h"
#include "kit/recorded_calls.h"

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

  // What a batch was given, and how many records it took in.
  bool appendBatch(int16_t db, const std::vector<Planned>& records, uint32_t* taken) {
    SavedPosition position(db);
    FoundTable found;
    EXPECT_TRUE(findTable(db, table, &found));
    RecordBatch batch(db, found);
    if (beforehand) beforehand();
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
    if (meanwhile) meanwhile();
    complete = batch.finish() && complete;
    *taken = batch.taken();
    EXPECT_EQ(position.restore(1), 1);
    return complete;
  }

  static std::vector<Planned> mixedRecords(uint64_t firstID, int count) {
    std::vector<Planned> records;
    for (int i = 0; i < count; ++i) {
      const auto size = static_cast<size_t>(i % 5 == 0 ? 0 : (i * 7919) % 3000);
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

  // A batch after two records is refused in a file that was changed before.
  void expectNotBegun(const std::function<void(FileImage&)>& damage) {
    close(fresh("batch.qvd"));
    FileImage image;
    image.addTable("t", table);
    image.addRecord(0, 1, bytesOf("one"));
    image.addRecord(0, 2, bytesOf("two"));
    damage(image);
    writeFile(path("batch.qvd"), image.build());
    allowDamage("batch.qvd");
    expectRefused(open("batch.qvd"), [] {});
  }

  // A batch does not begin, takes no record, and leaves the file as it is.
  void expectRefused(int16_t db, const std::function<void()>& failing) {
    FoundTable found;
    ASSERT_TRUE(findTable(db, table, &found));
    const Bytes before = contents("batch.qvd");
    failing();
    RecordBatch batch(db, found);
    EXPECT_FALSE(batch.begin());
    BatchRecord record = {};
    record.dataLength = 1;
    const unsigned char payload = 'x';
    EXPECT_FALSE(batch.add(record, &payload));
    EXPECT_FALSE(batch.finish());
    host.heal();
    EXPECT_EQ(batch.taken(), 0u);
    EXPECT_TRUE(sameBytes(contents("batch.qvd"), before));
    close(db);
  }

  // A batch after two records while another program changes these bytes before it is finished:
  // nothing is taken in, and what is in the file's old part stays.
  void expectNotTakenIn(size_t offset, const Bytes& patch) {
    const int16_t db = fresh("batch.qvd");
    appendEach(db, mixedRecords(1, 2));
    const Bytes changed = contents("batch.qvd").with(offset, patch);
    allowDamage("batch.qvd");
    meanwhile = [&] { patchFile(path("batch.qvd"), offset, patch); };
    uint32_t taken = 7;
    EXPECT_FALSE(appendBatch(db, mixedRecords(100, 3), &taken)) << offset;
    meanwhile = nullptr;
    EXPECT_EQ(taken, 0u) << offset;
    EXPECT_TRUE(sameBytes(contents("batch.qvd").cut(changed.size()), changed)) << offset;
    close(db);
  }

  RecordedCalls host;
  uint64_t table = 0;
  std::function<void()> beforehand;  // runs before a batch begins
  std::function<void()> meanwhile;   // runs when its last record was added

 private:
  Bytes start_;
};

TEST_F(Batches, OfNoRecordsChangeNothing) {
  expectSameAsSingleAppends({}, {});
}

TEST_F(Batches, OfOneRecordIntoAnEmptyTable) {
  expectSameAsSingleAppends({}, {{1, Bytes(10, 'a'), 0}});
}

TEST_F(Batches, AfterRecordsThatAreThere) {
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
  for (uint32_t size = (256 << 10) - 58; size < (256 << 10) - 54; ++size) {
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

TEST_F(Batches, DoNotBeginAfterARecordThatHasASuccessor) {
  const int16_t db = fresh("batch.qvd");
  appendEach(db, mixedRecords(1, 2));
  close(db);
  Bytes bytes = contents("batch.qvd");
  const auto last = static_cast<size_t>(slot(0, "batch.qvd").lastRecordPos);
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
  for (size_t room = 0; room < 2'501'000; room += 86'413) {
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
    records.push_back({100 + i, Bytes(25'000, static_cast<uint8_t>(i)), 0});
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

TEST_F(Batches, DoNotBeginInATableWhoseSlotContradictsItself) {
  expectNotBegun([](FileImage& image) { image.slot(0).firstRecordPos = 0; });
  expectNotBegun([](FileImage& image) { image.slot(0).lastRecordPos = 0; });
  expectNotBegun([](FileImage& image) { image.slot(0).recordCount = 0; });
  expectNotBegun([](FileImage& image) {
    image.slot(0).recordCount = 0;
    image.slot(0).firstRecordPos = 0;
  });
}

TEST_F(Batches, DoNotBeginAfterWhatIsNoRecord) {
  for (const int64_t position : {int64_t{1}, int64_t{-1}, int64_t{1} << 40}) {
    expectNotBegun([=](FileImage& image) { image.slot(0).lastRecordPos = position; });
  }
}

TEST_F(Batches, DoNotBeginWithoutMemoryOrTheEndOfTheFile) {
  for (const Call call : {Call::allocate, Call::length}) {
    SCOPED_TRACE(nameOf(call));
    expectRefused(fresh("batch.qvd"), [&] { host.failFrom(call); });
  }
}

TEST_F(Batches, TakeNoMoreRecordsThanATableCounts) {
  close(fresh("batch.qvd"));
  FileImage image;
  image.addTable("t", table);
  image.addRecord(0, 1, bytesOf("one"));
  image.slot(0).recordCount = 0xFFFFFFFD;
  writeFile(path("batch.qvd"), image.build());
  allowDamage("batch.qvd");
  uint32_t taken = 0;
  EXPECT_FALSE(appendBatch(open("batch.qvd"), mixedRecords(100, 3), &taken));
  EXPECT_EQ(taken, 2u);
  EXPECT_EQ(slot(0, "batch.qvd").recordCount, 0xFFFFFFFF);
}

TEST_F(Batches, AreNotTakenIntoAChainThatHasChanged) {
  const size_t slotPos = 22;
  expectNotTakenIn(slotPos + 60, Bytes().le(4, 3));     // recordCount
  expectNotTakenIn(slotPos + 64, Bytes().le(4, 9));     // recordWriteCount
  expectNotTakenIn(slotPos + 72, Bytes().le(8, 4631));  // firstRecordPos
  expectNotTakenIn(slotPos + 88, Bytes().le(8, 4630));  // lastRecordPos
}

TEST_F(Batches, AreNotTakenIntoATableWhoseSlotIsGone) {
  expectNotTakenIn(22, Bytes{0});
}

TEST_F(Batches, AreNotTakenInAfterARecordThatIsNotTheLastAnyMore) {
  const int16_t db = fresh("batch.qvd");
  appendEach(db, mixedRecords(1, 2));
  const auto last = static_cast<size_t>(slot(0, "batch.qvd").lastRecordPos);
  close(db);
  std::filesystem::remove(path("batch.qvd"));
  expectNotTakenIn(last + 39, Bytes().be(8, 4630));
  std::filesystem::remove(path("batch.qvd"));
  expectNotTakenIn(last, Bytes{0});
}

TEST_F(Batches, WriteNothingWhenTheFileHasGrownMeanwhile) {
  const std::vector<Planned> ofEachKind[] = {mixedRecords(100, 3), {{100, Bytes(2 << 20, 'b'), 0}}};
  for (const std::vector<Planned>& records : ofEachKind) {
    const int16_t db = fresh("batch.qvd");
    FoundTable found;
    ASSERT_TRUE(findTable(db, table, &found));
    RecordBatch batch(db, found);
    ASSERT_TRUE(batch.begin());
    Bytes grown = contents("batch.qvd");
    patchFile(path("batch.qvd"), grown.size(), bytesOf("x"));
    grown.text("x");
    allowDamage("batch.qvd");
    for (const Planned& planned : records) {
      BatchRecord record = {};
      record.dataLength = static_cast<uint32_t>(planned.payload.size());
      // Small ones wait in memory.
      EXPECT_EQ(batch.add(record, planned.payload.data()), record.dataLength < 1 << 20);
    }
    EXPECT_FALSE(batch.finish());
    EXPECT_EQ(batch.taken(), 0u);
    EXPECT_TRUE(sameBytes(contents("batch.qvd"), grown));
    close(db);
  }
}

// A batch of which the second piece cannot be written looks at the last record of the first.
TEST_F(Batches, ThatAreCutOffEndAtARecordThatIsThereAndHasNoSuccessor) {
  constexpr int64_t kFirstBlock = 4630;
  constexpr int64_t kTenthBlock = kFirstBlock + 9 * (100'000 + 56);
  allowDamage("batch.qvd");
  const auto cutOff = [&](int64_t offset, const Bytes& patch) {
    const int16_t db = fresh("batch.qvd");
    FoundTable found;
    ASSERT_TRUE(findTable(db, table, &found));
    RecordBatch batch(db, found);
    ASSERT_TRUE(batch.begin());
    const Bytes payload(100'000, 'a');
    BatchRecord record = {};
    record.dataLength = 100'000;
    for (int i = 0; i < 11; ++i) ASSERT_TRUE(batch.add(record, payload.data()));
    ASSERT_EQ(fileSize("batch.qvd"), 4630u + 10 * 100'056);
    patchFile(path("batch.qvd"), static_cast<size_t>(offset), patch);
    host.failOnce(Call::write);
    EXPECT_FALSE(batch.finish());
    host.heal();
    EXPECT_EQ(batch.taken(), slot(0, "batch.qvd").recordCount);
    EXPECT_EQ(batch.table().slot.recordCount, batch.taken());
    close(db);
  };
  cutOff(kTenthBlock, Bytes{0});  // no record any more
  EXPECT_EQ(slot(0, "batch.qvd").recordCount, 0u);
  cutOff(kTenthBlock + 39, Bytes().be(8, 4630));  // the link that got there before the failure
  EXPECT_EQ(slot(0, "batch.qvd").recordCount, 10u);
  EXPECT_EQ(slot(0, "batch.qvd").lastRecordPos, kTenthBlock);
  EXPECT_EQ(contents("batch.qvd").beAt(static_cast<size_t>(kTenthBlock) + 39, 8), 0u);
}

// Each read and each write fails once, and from then on: what is taken in is a beginning of the
// batch, and the chain is sound.
TEST_F(Batches, WithARecordTooLargeForAPieceStopAtEachFailure) {
  const std::vector<Planned> records = {{100, Bytes(10, 'a'), 0},
                                        {101, Bytes((1 << 20) + 5, 'b'), (1 << 20) + 40},
                                        {102, Bytes(7, 'c'), 0}};
  allowDamage("batch.qvd");
  const auto failEach = [&](const std::function<void(int)>& failAt) {
    for (int step = 0;; ++step) {
      SCOPED_TRACE(step);
      const int16_t db = fresh("batch.qvd");
      appendEach(db, mixedRecords(1, 1));
      beforehand = [&] { failAt(step); };
      uint32_t taken = 0;
      const bool complete = appendBatch(db, records, &taken);
      host.heal();
      beforehand = nullptr;
      EXPECT_EQ(complete, taken == 3);
      EXPECT_NE(complete, host.failed());
      std::vector<uint64_t> expected = {1, 100, 101, 102};
      expected.resize(1 + taken);
      EXPECT_EQ(list(db, table), expected);
      close(db);
      std::filesystem::remove(path("batch.qvd"));
      if (!host.failed() || HasFailure()) return;
    }
  };
  failEach([&](int step) { host.failOnce(Call::write, step); });
  failEach([&](int step) { host.failFrom(Call::write, step); });
  failEach([&](int step) { host.failFrom(Call::read, step); });
}

// ---- a record in pieces ----

// A payload that is longer than what is kept in memory, and one that is not.
constexpr uint32_t kShort = 1000;
constexpr uint32_t kLong = 700'000;

class BatchesInPieces : public Batches {
 protected:
  void begin(size_t recordsBefore = 1) {
    db = fresh("batch.qvd");
    appendEach(db, mixedRecords(1, static_cast<int>(recordsBefore)));
    before = contents("batch.qvd");
    position.emplace(db);
    FoundTable found;
    ASSERT_TRUE(findTable(db, table, &found));
    batch.emplace(db, found);
    ASSERT_TRUE(batch->begin());
  }
  void end() {
    EXPECT_EQ(position->restore(1), 1);
    batch.reset();
    position.reset();
    close(db);
  }

  static BatchRecord named(uint64_t id, uint32_t length = 0, uint32_t reserve = 0) {
    BatchRecord record;
    internal_ConvertInt64_2UuID(id, record.recordID);
    record.createTime = kNow;
    record.modifyTime = kNow;
    record.dataLength = length;
    record.reserve = reserve;
    return record;
  }
  bool addWhole(uint64_t id, const Bytes& payload) {
    return batch->add(named(id, static_cast<uint32_t>(payload.size())), payload.data());
  }
  bool append(const Bytes& payload) {
    for (size_t at = 0; at < payload.size(); at += 10'000) {
      const size_t count = std::min<size_t>(10'000, payload.size() - at);
      if (!batch->appendPayload(payload.data() + at, static_cast<uint32_t>(count))) return false;
    }
    return true;
  }
  std::vector<uint64_t> finished() {
    EXPECT_TRUE(batch->finish());
    return list(db, table);
  }

  int16_t db = 0;
  Bytes before;
  std::optional<SavedPosition> position;
  std::optional<RecordBatch> batch;
};

TEST_F(BatchesInPieces, AreTheFileThatSingleAppendsMake) {
  for (const uint32_t length : {0u, kShort, kLong}) {
    for (const uint32_t reserve : {0u, length + 100}) {
      SCOPED_TRACE(length);
      Bytes payload(length);
      for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i % 251);
      const int16_t single = fresh("single.qvd");
      appendEach(single, mixedRecords(1, 1));
      appendEach(single, {{7, payload, reserve}, {8, bytesOf("next"), 0}});
      close(single);
      begin();
      EXPECT_TRUE(batch->openRecord(named(7, 999, reserve)));  // the length does not count
      EXPECT_TRUE(append(payload));
      EXPECT_TRUE(batch->closeRecord());
      EXPECT_TRUE(addWhole(8, bytesOf("next")));
      EXPECT_TRUE(batch->finish());
      end();
      EXPECT_TRUE(sameBytes(contents("batch.qvd"), contents("single.qvd")));
    }
  }
}

TEST_F(BatchesInPieces, RefuseTheRecordBeforeWhichAPieceCannotBeWritten) {
  constexpr size_t kPiece = 256 * 1024;
  constexpr size_t kLeft = 10;  // too few for a header
  const Bytes nearlyAll(kPiece - kLeft - format::kRecordBlockOverhead, 'x');
  allowDamage("batch.qvd");  // what the host took of the piece is no block
  begin();
  EXPECT_TRUE(addWhole(7, nearlyAll));
  host.fullAfter(100);
  EXPECT_FALSE(addWhole(8, bytesOf("y")));
  host.heal();
  end();
  std::filesystem::remove(path("batch.qvd"));

  begin();
  EXPECT_TRUE(addWhole(7, nearlyAll));
  host.fullAfter(100);
  EXPECT_FALSE(batch->openRecord(named(8)));
  host.heal();
  end();
}

TEST_F(BatchesInPieces, TakeNothingElseWhileTheyAreOpen) {
  begin();
  EXPECT_FALSE(append(bytesOf("of no record")));
  EXPECT_FALSE(batch->closeRecord());
  EXPECT_TRUE(batch->openRecord(named(7)));
  EXPECT_FALSE(batch->openRecord(named(8)));
  EXPECT_FALSE(addWhole(8, bytesOf("x")));
  EXPECT_FALSE(batch->writeOut());
  EXPECT_FALSE(batch->finish());
  EXPECT_TRUE(append(bytesOf("payload")));
  EXPECT_TRUE(batch->closeRecord());
  EXPECT_EQ(finished(), (std::vector<uint64_t>{1, 7}));
  end();
}

TEST_F(BatchesInPieces, GoOnWithoutARecordThatIsDropped) {
  for (const uint32_t length : {0u, kShort, kLong}) {
    SCOPED_TRACE(length);
    const int16_t single = fresh("single.qvd");
    appendEach(single, mixedRecords(1, 1));
    appendEach(single, {{6, bytesOf("first"), 0}, {8, bytesOf("next"), 0}});
    close(single);
    begin();
    EXPECT_TRUE(addWhole(6, bytesOf("first")));
    EXPECT_TRUE(batch->openRecord(named(7)));
    EXPECT_TRUE(append(Bytes(length, 'p')));
    EXPECT_TRUE(batch->dropRecord());
    EXPECT_TRUE(batch->dropRecord());  // none is open: no effect
    EXPECT_TRUE(addWhole(8, bytesOf("next")));
    EXPECT_EQ(finished(), (std::vector<uint64_t>{1, 6, 8}));
    end();
    EXPECT_TRUE(sameBytes(contents("batch.qvd"), contents("single.qvd")));
  }
}

// Where the file cannot be cut off, zeros are written over the record, and the batch goes on after
// them.
TEST_F(BatchesInPieces, CoverADroppedRecordThatCannotBeCutOff) {
  begin();
  allowDamage("batch.qvd");
  EXPECT_TRUE(batch->openRecord(named(7)));
  EXPECT_TRUE(append(Bytes(kLong, 'p')));
  const size_t written = fileSize("batch.qvd");
  const auto grown = [&] {
    Bytes bytes = before;
    bytes.resize(written, 0);
    return bytes;
  };
  host.failOnce(Call::truncate);
  EXPECT_TRUE(batch->dropRecord());
  host.heal();
  EXPECT_TRUE(sameBytes(contents("batch.qvd"), grown()));
  EXPECT_TRUE(addWhole(8, bytesOf("next")));
  EXPECT_EQ(finished(), (std::vector<uint64_t>{1, 8}));
  EXPECT_EQ(slot(0, "batch.qvd").lastRecordPos, static_cast<int64_t>(written));
  end();
}

TEST_F(BatchesInPieces, FailWhenADroppedRecordCannotBeTakenBack) {
  begin();
  allowDamage("batch.qvd");
  EXPECT_TRUE(batch->openRecord(named(7)));
  EXPECT_TRUE(append(Bytes(kLong, 'p')));
  host.failFrom(Call::truncate);
  host.failFrom(Call::write);
  EXPECT_FALSE(batch->dropRecord());
  host.heal();
  EXPECT_FALSE(addWhole(8, bytesOf("next")));
  EXPECT_FALSE(batch->openRecord(named(8)));
  EXPECT_FALSE(batch->finish());
  EXPECT_EQ(batch->taken(), 0u);
  batch->discard();
  EXPECT_TRUE(sameBytes(contents("batch.qvd"), before));
  end();
}

TEST_F(BatchesInPieces, ThatAreDiscardedLeaveTheFileAsItWas) {
  for (const uint32_t length : {0u, kShort, kLong}) {
    for (const bool isClosed : {false, true}) {
      SCOPED_TRACE(length);
      begin(length == kShort ? 0 : 2);
      EXPECT_TRUE(addWhole(6, Bytes(300'000, 'a')));
      EXPECT_TRUE(batch->openRecord(named(7)));
      EXPECT_TRUE(append(Bytes(length, 'p')));
      EXPECT_TRUE(!isClosed || batch->closeRecord());
      batch->discard();
      EXPECT_TRUE(sameBytes(contents("batch.qvd"), before));
      EXPECT_FALSE(addWhole(8, bytesOf("next")));
      EXPECT_FALSE(batch->openRecord(named(8)));
      EXPECT_FALSE(batch->finish());
      EXPECT_TRUE(sameBytes(contents("batch.qvd"), before));
      end();
    }
  }
}

// What others have appended meanwhile stays, and so does a batch that was taken in.
TEST_F(BatchesInPieces, ThatAreDiscardedTakeBackNothingElse) {
  begin();
  allowDamage("batch.qvd");
  EXPECT_TRUE(batch->openRecord(named(7)));
  EXPECT_TRUE(append(Bytes(kLong, 'p')));
  const size_t written = fileSize("batch.qvd");
  const auto grown = [&] {
    Bytes bytes = before;
    bytes.resize(written, 0);
    return bytes;
  };
  patchFile(path("batch.qvd"), written, bytesOf("of another"));
  batch->discard();
  EXPECT_TRUE(sameBytes(contents("batch.qvd"), grown().text("of another")));
  end();

  begin();
  EXPECT_TRUE(addWhole(8, bytesOf("taken in")));
  EXPECT_TRUE(batch->finish());
  const Bytes after = contents("batch.qvd");
  batch->discard();
  EXPECT_TRUE(sameBytes(contents("batch.qvd"), after));
  end();
}

}  // namespace
}  // namespace qvdbase::test
