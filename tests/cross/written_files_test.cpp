// The files that are compared between machines, against what they must be by the format.
#include "cross/written_files.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "kit/file_image.h"
#include "kit/file_reader.h"
#include "kit/temp_folder.h"

namespace qvdbase::test {
namespace {

// An identifier made when the counter has gone on by `step`: four bytes of the generator, which
// was started with 1, and seconds + low half + high half of the counter.
uint64_t madeIdentifier(unsigned step) {
  std::srand(1);
  uint64_t number = 0;
  for (int i = 0; i < 4; ++i) {
    const int r = std::rand();
    number = number << 8 | ((static_cast<unsigned>(r) + static_cast<unsigned>(r / 255)) & 0xFF);
  }
  return number << 32 | (0x87654321u + 0xA0000001u + step + 5u);
}

Bytes categoryPayload() {
  return Bytes()
      .be(8, 0xC1)
      .text("K")
      .zeros(63)
      .add(hex("01020304 00000000000000D1 00000001 1122334455667788"))
      .add(hex("00000001 A1B2C3D4E5F60718 00000002"))
      .text("ab");
}

RecordOptions written(uint32_t reserve = 0) {
  return {.reserve = reserve, .createTime = kWrittenAt, .modifyTime = kWrittenAt};
}

FileImage expectedRecords() {
  FileImage image;
  image.header().databaseID = identifier(madeIdentifier(0));
  const size_t categories = image.addTable("QVrz_Category", madeIdentifier(1));
  const size_t records = image.addTable("QVrz_Record", madeIdentifier(2));
  image.addRecord(categories, 0xC1, categoryPayload(), written());
  image.addRecord(records, 0xA1B2C3D4E5F60718, bytesOf("first"), written());
  const auto b =
      image.addRecord(records, 0x8000000000000002, bytesOf("written over"), written(300));
  image.record(b).room = bytesOf("written over").zeros(288);
  const auto c = image.addRecord(records, 0xFFFFFFFFFFFFFF03, pattern(1000), written());
  const auto d = image.addRecord(records, 0x04, {}, written());
  // The third record moved after the fourth, which was deleted then.
  RecordFields moved = image.record(c);
  moved.room = pattern(1500, 2);
  moved.dataLength = moved.dataCapacity = 1500;
  moved.nextRecordPos = 0;
  const auto e = image.addDeadRecord(moved);
  image.record(b).nextRecordPos = e;
  image.record(d).prevRecordPos = e;
  image.setTableData(records, bytesOf("table data"), 20);
  SlotFields& slot = image.slot(records);
  slot.recordCount = 3;
  slot.lastWrittenRecordPos = slot.lastRecordPos = e;  // so the deletion of the fourth leaves it
  return image;
}

// A packed file. The second table has records, so its slot kept the table-data positions of the
// source, which lead nowhere here.
ReadDatabase readPacked(const std::filesystem::path& path) {
  Bytes file = readFile(path);
  for (const size_t field : {112u, 120u, 128u}) file.putLe(slotOffset(1) + field, 8, 0);
  return readDatabase(file);
}

TEST(FilesOfEveryMachine, AreWhatTheFormatSays) {
  TempFolder folder;
  writeFiles(folder.path());
  EXPECT_TRUE(sameBytes(readFile(folder / "records.qvd"), expectedRecords().build()));
}

TEST(FilesOfEveryMachine, KeepTheirContentsInAPack) {
  TempFolder folder;
  writeFiles(folder.path());
  const ReadDatabase packed = readPacked(folder / "packed.qvd");
  ASSERT_EQ(packed.tables.size(), 2u);
  const ReadTable& records = packed.tables[1];
  ASSERT_EQ(records.records.size(), 3u);
  EXPECT_EQ(records.records[0].id, 0xA1B2C3D4E5F60718u);
  EXPECT_EQ(records.records[1].fields.data(), bytesOf("written over"));
  EXPECT_EQ(records.records[2].fields.data(), pattern(1500, 2));
}

TEST(FilesOfEveryMachine, CarryNewIdentifiersInTheirCategoriesAfterRenumbering) {
  TempFolder folder;
  writeFiles(folder.path());
  const ReadDatabase renumbered = readPacked(folder / "renumbered.qvd");
  ASSERT_EQ(renumbered.tables.size(), 2u);
  ASSERT_EQ(renumbered.tables[0].records.size(), 1u);
  const Bytes payload = renumbered.tables[0].records[0].fields.data();
  ASSERT_EQ(payload.size(), categoryPayload().size());
  EXPECT_NE(payload.beAt(100, 8), 0xA1B2C3D4E5F60718u);
  EXPECT_EQ(payload.beAt(100, 8), renumbered.tables[1].records[0].id);
  EXPECT_EQ(payload.cut(100), categoryPayload().cut(100));
}

}  // namespace
}  // namespace qvdbase::test
