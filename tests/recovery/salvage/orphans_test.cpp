// Whole blocks of tables that the directory does not have. No operation removes a table, so they
// are what is left of one that the directory has lost; unless they are pieces of a payload.
#include <qvdbase/qvdbase.h>

#include "recovery/check/base_files.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

Bytes withTable(Bytes bytes, const char* name) {
  TempFolder folder;
  writeFile(folder / "a.qvd", bytes);
  const int16_t db = OpenDBaseW(folder.wide("a.qvd"), 3);
  EXPECT_NE(AddTable(db, name), 0u);
  CloseDBase(db);
  return readFile(folder / "a.qvd");
}

// One flipped bit in the number of tables hides a table, and the next table takes its slot.
TEST(Orphans, AreDamageAndAreSalvagedWhenAnotherTableTookTheirSlot) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  Contents all;
  for (uint64_t i = 0; i < 10; ++i) {
    image.addRecord(table, 0xA1 + i, pattern(20 + i));
    all.emplace_back(0xA1 + i, pattern(20 + i));
  }
  image.setTableData(table, bytesOf("what it is about"));
  const Bytes bytes = withTable(image.build().with(16, hex("0000")), "another");
  const Checked checked = checkBytes(bytes);
  EXPECT_EQ(checked.report.state, qvdb::CheckState::damaged) << checked.text();
  EXPECT_EQ(checked.codes(qvdb::Severity::error), std::set<std::string>{"S8"});
  EXPECT_EQ(checked.first("S8").table_id.value, 0x11u);
  EXPECT_EQ(checked.first("S8").offset, 4630);
  const Salvaged saved = salvaged(bytes);
  ASSERT_NE(tableNamed(saved.database, "another"), nullptr);
  const ReadTable* found = tableNamed(saved.database, "table-0000000000000011");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(contentsOf(*found), all);
  EXPECT_NE(found->slot.firstDataPos, 0);
}

// What lies in the space that a torn block claims may be its payload: a database that was about to
// be stored.
TEST(Orphans, AreNoneInsideATornBlock) {
  FileImage stored;
  stored.addRecord(stored.addTable("stored", 0x4411), 0x901, pattern(30));
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.addRecord(table, 0xA1, bytesOf("first"));
  RecordFields torn;
  torn.tableID = identifier(0x11);
  torn.recordID = identifier(0xA2);
  torn.createTime = torn.modifyTime = 1000;
  // Its first bytes are lost, so that it does not show itself as a database.
  torn.room = stored.build().with(0, Bytes().zeros(22)).add(pattern(500));
  torn.dataLength = torn.dataCapacity = static_cast<uint32_t>(torn.room.size());
  const Bytes whole = torn.encode();
  const Bytes bytes = Bytes(image.build()).add(whole.cut(whole.size() - 100));
  const Checked checked = checkBytes(bytes);
  EXPECT_EQ(checked.codes(qvdb::Severity::error), std::set<std::string>()) << checked.text();
  EXPECT_TRUE(checked.has("S4")) << checked.text();
  EXPECT_EQ(salvaged(bytes).database.tables.size(), 1u);
  EXPECT_EQ(salvaged(bytes, {.orphans = true}).database.tables.size(), 2u);
}

// Inside of whole blocks they are stored databases, whatever became of the block.
TEST(Orphans, AreNoneInsideWholeBlocks) {
  FileImage stored;
  stored.addRecord(stored.addTable("stored", 0x4411), 0x901, pattern(30));
  for (const bool isDeleted : {false, true}) {
    FileImage image;
    const size_t table = image.addTable("notes", 0x11);
    const int64_t a = image.addRecord(table, 0xA1, bytesOf("first"));
    const int64_t b = image.addRecord(table, 0xA2, stored.build());
    if (isDeleted) {
      image.record(a).nextRecordPos = 0;
      image.slot(table).recordCount = 1;
      image.slot(table).lastRecordPos = image.slot(table).lastWrittenRecordPos = a;
    }
    const Checked checked = checkBytes(image.build());
    EXPECT_EQ(checked.report.state, qvdb::CheckState::sound) << b << checked.text();
    EXPECT_EQ(salvaged(image.build()).database.tables.size(), 1u);
  }
}

}  // namespace
}  // namespace qvdbase::test
