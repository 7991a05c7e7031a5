// How many system calls each operation makes, and in which order: what the cost of an operation is
// made of on any machine, so that it is tested without a clock.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb.hpp>

#include <string>
#include <vector>

#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

constexpr int kRecords = 400;
constexpr size_t kSize = 100;

// A table of records of one size, in file order.
class SystemCallsTest : public LayerTest {
 protected:
  void SetUp() override {
    LayerTest::SetUp();
    if (!platform::gathersTransfers()) GTEST_SKIP() << "each transfer is a system call of its own";
    database_.emplace(createDatabase());
    table_.emplace(database_->add_table("t"));
    qvdb::BulkAppender bulk = table_->appender();
    for (int i = 0; i < kRecords; ++i) ids_.push_back(bulk.add(qvdb::NewRecord(span(payload_))));
    bulk.finish();
  }

  int16_t db() const { return database_->handle(); }
  uint64_t table() const { return table_->id().value; }
  qvdb::Id first() const { return ids_.front(); }
  qvdb::Id middle() const { return ids_[kRecords / 2]; }
  const unsigned char* payload() const { return payload_.data(); }

  // The calls on files that the operation makes, after one "limit" for each time that it asked for
  // the limit on the length of files.
  template <typename Operation>
  static std::string callsOf(Operation operation) {
    RecordedCalls host;
    operation();
    std::string calls;
    for (int i = 0; i < host.count(Call::sizeLimit); ++i) calls += "limit ";
    for (const Event& event : host.events()) {
      if (event.call == Call::allocate || event.call == Call::release) continue;
      if (event.call == Call::time) continue;
      calls += std::string(nameOf(event.call)) + " ";
    }
    if (!calls.empty()) calls.pop_back();
    return calls;
  }

  const Bytes payload_ = Bytes(kSize, 'p');
  const Bytes larger_ = Bytes(kSize + kSize / 2, 'l');
  std::optional<qvdb::Database> database_;
  std::optional<qvdb::Table> table_;
  std::vector<qvdb::Id> ids_;
};

// ---- the C interface ----

TEST_F(SystemCallsTest, AnAppendReadsSlotAndLastHeaderAndWritesBlockLinkAndSlot) {
  uint64_t id = 0;
  EXPECT_EQ(callsOf([&] { AddRecordData(db(), table(), payload(), kSize, 0, &id); }),
            "limit read length write read write write");
  EXPECT_NE(id, 0u);
}

TEST_F(SystemCallsTest, AnAppendToAnEmptyTableHasNoLinkToWrite) {
  const uint64_t empty = AddTable(db(), "empty");
  uint64_t id = 0;
  EXPECT_EQ(callsOf([&] { AddRecordData(db(), empty, payload(), kSize, 0, &id); }),
            "limit read length write write");
}

TEST_F(SystemCallsTest, CountsAndNamesAreOneRead) {
  uint32_t count = 0;
  EXPECT_EQ(callsOf([&] { GetNumberOfRecords(db(), table(), &count); }), "read");
  EXPECT_EQ(callsOf([&] { FindTableByName(db(), "t"); }), "read");
  int32_t tables = 0;
  EXPECT_EQ(callsOf([&] { GetNumberOfTable(db(), &tables); }), "");
}

TEST_F(SystemCallsTest, TheFirstRecordIsFoundByTwoReads) {
  oneRecordInfoP1 info;
  EXPECT_EQ(callsOf([&] { GetOneRecordInfo(db(), table(), first().value, &info, nullptr); }),
            "read read");
}

// 400 blocks of 156 bytes are 62,400: the slot, and pieces of 1, 2, 4, 8, 16 and 32 KiB.
TEST_F(SystemCallsTest, AWalkReadsPiecesThatDoubleInSize) {
  oneRecordInfoP1 info;
  EXPECT_EQ(callsOf([&] { GetOneRecordInfo(db(), table(), 1, &info, nullptr); }),
            "read read read read read read read");
  std::vector<uint64_t> list(kRecords);
  uint32_t count = 0;
  EXPECT_EQ(callsOf([&] { GetRecordUuIDList(db(), table(), list.data(), &count); }),
            "read read read read read read read");
  EXPECT_EQ(count, static_cast<uint32_t>(kRecords));
}

TEST_F(SystemCallsTest, AnUpdateInPlaceIsOneWrite) {
  EXPECT_EQ(
      callsOf([&] { ModifyRecordData(db(), table(), payload(), kSize, first().value, nullptr); }),
      "limit read read write");
  EXPECT_EQ(callsOf([&] { ModifyOneRecordInfo_LMTime(db(), table(), first().value); }),
            "limit read read write");
}

// ---- the C++ layer: each operation that writes asks once whether readers are there ----

TEST_F(SystemCallsTest, AnAppendOfTheLayerIsThatOfTheCInterfaceAfterOneQuestion) {
  EXPECT_EQ(callsOf([&] { table_->add(span(payload_)); }),
            "limit findLock read length write read write write");
  const qvdb::RecordIndex index = table_->index();
  EXPECT_EQ(callsOf([&] { table_->add(span(payload_)); }),
            "limit findLock read length write read write write");
}

TEST_F(SystemCallsTest, ALookupByIndexIsOneReadWithThePayload) {
  const qvdb::RecordIndex index = table_->index();
  std::vector<std::byte> buffer(kSize);
  EXPECT_EQ(callsOf([&] { table_->get(middle(), buffer); }), "read");
  EXPECT_EQ(callsOf([&] { table_->get(middle()); }), "read");
  EXPECT_EQ(callsOf([&] { table_->find(middle()); }), "read");
}

TEST_F(SystemCallsTest, ThatARecordIsAbsentByIndexIsOneRead) {
  const qvdb::RecordIndex index = table_->index();
  EXPECT_EQ(callsOf([&] { table_->find(qvdb::Id{1}); }), "read");
}

TEST_F(SystemCallsTest, AnUpdateByIndexIsOneQuestionOneReadAndOneWrite) {
  const qvdb::RecordIndex index = table_->index();
  EXPECT_EQ(callsOf([&] { table_->modify(middle(), span(payload_)); }),
            "limit findLock read write");
  EXPECT_EQ(callsOf([&] { table_->touch(middle()); }), "limit findLock read write");
}

// The record with its neighbours, the slot; the block, the links of predecessor and successor.
TEST_F(SystemCallsTest, AGrowingUpdateByIndexIsTwoReadsAndThreeWrites) {
  const qvdb::RecordIndex index = table_->index();
  EXPECT_EQ(callsOf([&] { table_->modify(middle(), span(larger_)); }),
            "limit findLock read read length write write write");
}

// The record with its neighbours, the slot; both links, the slot.
TEST_F(SystemCallsTest, ADeletionByIndexIsTwoReadsAndThreeWrites) {
  const qvdb::RecordIndex index = table_->index();
  EXPECT_EQ(callsOf([&] { table_->remove(middle()); }),
            "limit findLock read read write write write");
}

// Blocks in pieces of 256 KiB; 4,000 of them are 624,000 bytes, so there are three pieces. Each is
// one write after the file's length is asked; the second and the third are linked to the one
// before. Then the link of the last record and the slot. Before all this are read, once for the
// batch, the slot, the last record, and the one before it, which must lead to it. A batch would
// otherwise be linked to a record whose deletion was cut off, and lost with it.
TEST_F(SystemCallsTest, ABatchIsAWriteForEachPiece) {
  EXPECT_EQ(callsOf([&] {
              qvdb::BulkAppender bulk = table_->appender();
              for (int i = 0; i < 4000; ++i) bulk.add(qvdb::NewRecord(span(payload_)));
              bulk.finish();
            }),
            "limit limit limit limit "
            "read read read length "
            "length write length write write "
            "findLock length write write "
            "read read write write");
}

TEST_F(SystemCallsTest, OpeningAndReadingTheFirstRecordDoesNotDependOnTheirNumber) {
  const auto openAndRead = [&] {
    const qvdb::Database database = openDatabase();
    const qvdb::Table table = database.table("t");
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) {
      EXPECT_EQ(record.loaded().size(), kSize);
      break;
    }
  };
  database_->close();
  const std::string few = callsOf(openAndRead);
  {
    qvdb::Database database = openDatabase();
    qvdb::BulkAppender bulk = database.table("t").appender();
    for (int i = 0; i < 10 * kRecords; ++i) bulk.add(qvdb::NewRecord(span(payload_)));
    bulk.finish();
  }
  EXPECT_EQ(callsOf(openAndRead), few);
  // Behind the walk to the file: the header, the pending word of transactions, the slot twice, the
  // first records.
  EXPECT_NE(few.find("lock statusAt close read length read read read read close"),
            std::string::npos)
      << few;
}

}  // namespace
}  // namespace qvdbase::test
