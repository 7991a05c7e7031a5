// Spare bytes after payloads: never used, or full of older data that can still be read.
#include <gtest/gtest.h>

#include "recovery/check/base_files.h"

namespace qvdbase::test {
namespace {

struct Shortened {
  FileImage image;
  size_t table = image.addTable("notes", 0x11);

  Checked check() const { return checkBytes(image.build()); }

  // A payload whose last bytes are what an older, longer one has left.
  int64_t add(uint64_t id, const Bytes& room, uint32_t length) {
    const int64_t at = image.addRecord(table, id, room);
    image.record(at).dataLength = length;
    return at;
  }
};

TEST(CheckOfSpace, CallsCapacityThatHoldsFillNeverUsed) {
  Shortened file;
  file.image.addRecord(file.table, 0xA1, bytesOf("text"), {.reserve = 10'000});
  file.image.setTableData(file.table, bytesOf("data"), 100);
  const Checked checked = file.check();
  EXPECT_EQ(checked.report.space.reserve, 9996u + 96);
  EXPECT_EQ(checked.report.space.stale, 0u);
  ASSERT_EQ(checked.findings.size(), 1u) << checked.text();
  EXPECT_EQ(checked.first("S7").message,
            "10092 bytes of spare capacity in blocks were never used.");
}

Bytes innerDatabase() {
  FileImage image;
  image.addRecord(image.addTable("inner", 0x4411), 0x901, bytesOf("within"));
  return image.build();
}

// What is reported of blocks in payloads, where the first stored database is the payload of
// `record`.
std::string storedIn(const std::string& blocks, int64_t record) {
  return blocks +
         " inside the payloads of others: a database is stored there, the first one from offset " +
         std::to_string(record + 55) + ".";
}

TEST(CheckOfSpace, ReportsWhereAStoredDatabaseBegins) {
  const Bytes inner = innerDatabase();
  FileImage outer;
  const size_t table = outer.addTable("outer", 0x11);
  outer.addRecord(table, 0xA1, bytesOf("before"));
  const int64_t at = outer.addRecord(table, 0xA2, inner);
  EXPECT_EQ(checkBytes(outer.build()).findings.size(), 0u);
  const Checked checked = checkBytes(outer.build(), {.deep = true, .now = kNow});
  ASSERT_EQ(checked.findings.size(), 1u) << checked.text();
  EXPECT_EQ(checked.first("S6").message, storedIn("1 block", at));
}

// A deleted record stays one whole block, also when a live record holds the same database.
TEST(CheckOfSpace, TakesStoredDatabasesInDeletedAndLiveRecordsForPayloads) {
  const Bytes inner = innerDatabase();
  FileImage outer;
  const size_t table = outer.addTable("outer", 0x11);
  const int64_t dead = outer.addRecord(table, 0xA1, inner);
  const int64_t live = outer.addRecord(table, 0xA2, inner);
  outer.record(live).prevRecordPos = 0;
  outer.slot(table).firstRecordPos = live;
  outer.slot(table).recordCount = 1;
  const Checked checked = checkBytes(outer.build(), {.deep = true, .now = kNow});
  EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << checked.text();
  EXPECT_EQ(checked.report.space.deleted, inner.size() + 56);
  EXPECT_EQ(checked.first("S6").message, storedIn("2 blocks", dead));
}

// The same of a copy of the database itself: its blocks are neither deleted nor lost records.
TEST(CheckOfSpace, TakesACopyOfTheDatabaseItselfInADeletedRecordForAPayload) {
  FileImage earlier;
  const size_t then = earlier.addTable("notes", 0x11);
  earlier.addRecord(then, 0xD1, bytesOf("left behind by a pack"));
  const int64_t kept = earlier.addRecord(then, 0xA1, bytesOf("kept"));
  earlier.record(kept).prevRecordPos = 0;
  earlier.slot(then).firstRecordPos = kept;
  earlier.slot(then).recordCount = 1;
  Shortened file;
  const int64_t a = file.image.addRecord(file.table, 0xA1, bytesOf("kept"));
  const int64_t copy = file.image.addRecord(file.table, 0xA2, earlier.build());
  file.image.record(a).nextRecordPos = 0;
  file.image.slot(file.table).lastRecordPos = a;
  file.image.slot(file.table).recordCount = 1;
  const Checked checked = file.check();
  EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << checked.text();
  EXPECT_EQ(checked.report.space.deleted, earlier.build().size() + 56);
  EXPECT_EQ(checked.first("S6").message, storedIn("2 blocks", copy));
}

TEST(CheckOfSpace, ReportsAStoredDatabaseWithoutBlocks) {
  Shortened file;
  const int64_t at = file.image.addRecord(file.table, 0xA1, FileImage().build());
  EXPECT_EQ(file.check().findings.size(), 0u);
  const Checked checked = checkBytes(file.image.build(), {.deep = true, .now = kNow});
  ASSERT_EQ(checked.findings.size(), 1u) << checked.text();
  EXPECT_EQ(checked.first("S6").offset, at + 55);
  EXPECT_EQ(checked.first("S6").message, storedIn("1 header without a block", at));
}

// A pack takes along what the chains lead to. That is not all that one may want back.
TEST(CheckOfSpace, ReportsWhatAPackWouldLeaveOut) {
  Shortened file;
  const int64_t a = file.image.addRecord(file.table, 0xA1, bytesOf("kept"));
  file.image.addRecord(file.table, 0xA2, bytesOf("deleted"));  // 63 bytes
  file.image.record(a).nextRecordPos = 0;
  file.image.slot(file.table).lastRecordPos = a;
  file.image.slot(file.table).recordCount = 1;
  EXPECT_EQ(file.check().first("S7").message,
            "Packing would free 63 bytes of " + std::to_string(file.image.end()) + ".");
  RecordFields orphan;
  orphan.tableID = identifier(0x22);
  orphan.recordID = identifier(0xB1);
  file.image.addDeadRecord(orphan);  // 56 bytes
  EXPECT_EQ(file.check().first("S7").message, "Packing would free 119 bytes of " +
                                                  std::to_string(file.image.end()) +
                                                  "; 56 of them hold what was lost, not deleted.");
}

// Spare capacity survives a compaction, so the advice must not promise it back.
TEST(CheckOfSpace, SaysThatCompactKeepsSpareCapacity) {
  EXPECT_NE(qvdb::finding_code("S7").advice.find("keeps the spare capacity"), std::string::npos);
}

TEST(CheckOfSpace, ReportsOlderDataAfterPayloads) {
  Shortened file;
  const int64_t first = file.add(0xA1, bytesOf("secret").zeros(20), 2);
  file.add(0xA2, Bytes().zeros(9000).text("x").zeros(3), 1);
  const Checked checked = file.check();
  EXPECT_EQ(checked.report.space.stale, 4u + 9000);
  EXPECT_EQ(checked.report.space.reserve, 24u + 9003);
  EXPECT_EQ(checked.report.state, qvdb::CheckState::sound);
  std::string message;
  for (const qvdb::Finding& each : checked.findings) {
    if (each.offset == first + 55 + 2) message = each.message;
  }
  EXPECT_EQ(message, "9004 bytes of older data can still be read after the payloads of 2 blocks.");
}

// The end mark directly after data that was written over older data is none of it.
TEST(CheckOfSpace, ReportsOlderTableDataAfterItsEndMark) {
  Shortened file;
  const int64_t at = file.image.setTableData(file.table, bytesOf("datai"), 40);
  file.image.tableData(at).dataLength = 4;
  EXPECT_EQ(file.check().report.space.stale, 0u);
  Bytes& room = file.image.tableData(at).room;
  room[5] = 'o';
  room[6] = 'l';
  EXPECT_EQ(file.check().report.space.stale, 2u);
}

TEST(CheckOfSpace, LooksForOlderDataOnlyAfterWhatIsInUse) {
  Shortened file;
  file.add(0xA1, bytesOf("secret"), 2);
  RecordFields dead;
  dead.tableID = identifier(0x11);
  dead.recordID = identifier(0xDD);
  dead.room = bytesOf("deleted secret");
  dead.dataLength = 3;
  dead.dataCapacity = 14;
  file.image.addDeadRecord(dead);
  EXPECT_EQ(file.check().report.space.stale, 4u);
}

}  // namespace
}  // namespace qvdbase::test
