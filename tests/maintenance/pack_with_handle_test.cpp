// The pack that reports its file numbers: every point in which it differs from the other one.
#include "kit/maintenance_fixture.h"

namespace qvdbase::test {
namespace {

constexpr uint16_t kUnwritten = 0x7777;

class PackWithHandle : public MaintenanceTest {
 protected:
  PackWithHandle() {
    allowDamage(kSource);
    allowDamage(kTarget);
  }

  int pack() {
    srcRef = kUnwritten;
    dstRef = kUnwritten;
    status = 4711;
    log.entries.clear();
    return PackOneDB2New_WithHandle(wide(kSource), wide(kTarget), 7, ProgressLog::function, &srcRef,
                                    &dstRef, &status);
  }

  // A slot as it lies in memory: fields aligned to their size but at most to 4 bytes, 128 bytes in
  // all, little-endian, and zeros up to the slot size.
  static Bytes rawSlot(const SlotFields& slot, size_t size = 144) {
    Bytes raw;
    Bytes name = slot.tableName;
    name.resize(32);
    raw.le(1, slot.slotMark).zeros(1).le(2, 50).le(2, slot.tableVersion).add(slot.tableID);
    raw.add(name).le(2, slot.tableFlags1).le(2, slot.tableFlags2).le(2, 40).zeros(2);
    raw.le(4, slot.recordCount).le(4, slot.recordWriteCount);
    raw.le(8, bits(slot.firstRecordPos)).le(8, bits(slot.lastWrittenRecordPos));
    raw.le(8, bits(slot.lastRecordPos)).le(2, 40).zeros(2);
    raw.le(4, slot.dataBlockCount).le(4, slot.dataWriteCount);
    raw.le(8, bits(slot.firstDataPos)).le(8, bits(slot.lastWrittenDataPos));
    raw.le(8, bits(slot.lastDataPos)).le(1, slot.slotEndMark);
    raw.resize(size);
    return raw;
  }

  static SlotFields emptied(SlotFields slot) {
    slot.recordCount = slot.recordWriteCount = 0;
    slot.firstRecordPos = slot.lastWrittenRecordPos = slot.lastRecordPos = 0;
    return slot;
  }

  // The header and the directory of images that this pack makes of the source.
  static Bytes rawCopy(FileImage& source) {
    Bytes expected = source.header().encode();
    for (size_t i = 0; i < kSlots; ++i) expected.add(rawSlot(emptied(source.slot(i))));
    return expected;
  }

  // A file with one table that passes: the byte at the place of the end mark is 'y', because the
  // table's last written data position is 0x79 << 32; and the bytes at the places of the
  // structure's counts and positions, partly filler of the slot, are zeros.
  static Bytes passingFile(uint64_t lastWrittenDataPos = uint64_t{0x79} << 32) {
    FileImage image;
    image.addTable("t", 0x101);
    Bytes file = image.build();
    file.putLe(kHeaderBytes + 120, 8, lastWrittenDataPos);
    file.putLe(kHeaderBytes + 56, 4, 0);  // recordCount in memory
    file.putLe(kHeaderBytes + 64, 8, 0);  // firstRecordPos in memory
    return file;
  }

  ProgressLog log;
  uint16_t srcRef = kUnwritten;
  uint16_t dstRef = kUnwritten;
  int status = 0;

 private:
  static uint64_t bits(int64_t value) { return static_cast<uint64_t>(value); }
};

// ---- the directory in its raw form ----

TEST_F(PackWithHandle, MakesHeaderAndRawSlotImagesOfADatabaseWithoutTables) {
  FileImage source;
  source.header().version = 150;
  source.slot(3).tableName = bytesOf("a name of thirty-two characters!");
  source.slot(3).recordCount = 9;
  source.slot(3).tableFlags2 = 0x4321;
  source.slot(3).dataWriteCount = 3;
  source.slot(3).firstDataPos = 0x0102030405060708;
  source.slot(3).lastDataPos = -2;
  source.slot(3).slotEndMark = 0x5A;
  putSource(source);
  EXPECT_EQ(pack(), 1);
  EXPECT_TRUE(sameBytes(contents(kTarget), rawCopy(source)));
  EXPECT_TRUE(sameBytes(contents(kSource), source.build()));
}

TEST_F(PackWithHandle, FailsOnTheFirstTableOfAnyOrdinaryDatabaseAsRequired) {
  LivelyDatabase lively;
  putSource(lively.image);
  EXPECT_EQ(pack(), 0);
  expectTargetEmptied();
  EXPECT_EQ(log.percents(), std::vector<int>{1});
  EXPECT_TRUE(sameBytes(contents(kSource), lively.image.build()));
}

TEST_F(PackWithHandle, WritesRawImagesOfTheSlotSizeAndReadsNothingAfterTheStructure) {
  for (const uint16_t slotSize :
       std::vector<uint16_t>{0, 1, 100, 127, 128, 129, 143, 144, 145, 300}) {
    SCOPED_TRACE(slotSize);
    HeaderFields header;
    header.slotSize = slotSize;
    header.slotCount = 2;
    SlotFields used;
    used.tableID = identifier(0x101);
    Bytes source = header.encode();
    Bytes expected = header.encode();
    for (int i = 0; i < 2; ++i) {
      Bytes image = used.encode();
      image.resize(slotSize, 0xEE);
      source.add(image);
      // What the source does not have of a slot counts as zeros.
      SlotFields known = used;
      if (slotSize < 144) {
        image.resize(144);
        known = decodeSlot(header.encode().add(image), 0);
      }
      expected.add(rawSlot(emptied(known), std::max<size_t>(slotSize, 128)).cut(slotSize));
    }
    putSource(source);
    EXPECT_EQ(pack(), 1);
    EXPECT_TRUE(sameBytes(contents(kTarget), expected));
  }
}

// ---- success with a table ----

TEST_F(PackWithHandle, PassesATableWhoseDataPositionHasTheEndMarkInItsBits32To39) {
  putSource(passingFile());
  EXPECT_EQ(pack(), 1);
  SlotFields slot;
  slot.tableID = identifier(0x101);
  slot.tableName = bytesOf("t");
  slot.lastWrittenDataPos = int64_t{0x79} << 32;
  FileImage expected;
  expected.header().tableCount = 1;
  expected.slot(0) = slot;
  EXPECT_TRUE(sameBytes(contents(kTarget), rawCopy(expected)));
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 100}));  // no 99
  EXPECT_EQ(status, 0);
}

TEST_F(PackWithHandle, PassesThatTableInASparseFileThatReallyIsThatLong) {
  Bytes file = passingFile((uint64_t{0x79} << 32) + 12);
  putSource(file);
  std::error_code refused;
  std::filesystem::resize_file(path(kSource), (uint64_t{0x79} << 32) + 4096, refused);
  if (refused) GTEST_SKIP() << "no files of that length here";
  EXPECT_EQ(pack(), 1);
  EXPECT_EQ(fileSize(kTarget), kDirectoryEnd);
  std::filesystem::remove(path(kSource));  // no call should have to read it
}

TEST_F(PackWithHandle, RefusesTheTableWhenThatByteIsAnother) {
  putSource(passingFile(uint64_t{0x78} << 32));
  EXPECT_EQ(pack(), 0);
  expectTargetEmptied();
}

TEST_F(PackWithHandle, TakesEachFieldFromItsPlaceInMemory) {
  // recordCount 3 and a first position, at the places of the structure: the walk starts there, and
  // fails for want of a record.
  Bytes file = passingFile();
  file.putLe(kHeaderBytes + 56, 4, 3);
  file.putLe(kHeaderBytes + 64, 8, 5000);
  putSource(file);
  EXPECT_EQ(pack(), 0);
  // A first position alone does not make it walk.
  file.putLe(kHeaderBytes + 56, 4, 0);
  putSource(file);
  EXPECT_EQ(pack(), 1);
}

TEST_F(PackWithHandle, CannotAppendARecordBecauseTheCopiedSlotIsNoSlot) {
  Bytes file = passingFile();
  RecordFields record;
  record.tableID = identifier(0x101);
  record.recordID = identifier(0xA1);
  file.putLe(kHeaderBytes + 56, 4, 1);
  file.putLe(kHeaderBytes + 64, 8, file.size());
  file.add(record.encode());
  putSource(file);
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(dstRef, 0);  // the payload was in memory
  expectTargetEmptied();
}

// ---- table data ----

class PackWithHandleAndTableData : public PackWithHandle {
 protected:
  // A table with data where the structure in memory finds its first position: at the place of the
  // two counts.
  static Bytes fileWithData() {
    Bytes file = passingFile();
    TableDataFields block;
    block.tableID = identifier(0x101);
    block.room = bytesOf("hello");
    block.dataLength = block.dataCapacity = 5;
    file.putLe(kHeaderBytes + 100, 8, file.size());
    return file.add(block.encode());
  }
};

TEST_F(PackWithHandleAndTableData, FailsWhenTheSlotIsRewrittenWithSuccessOnPurpose) {
  putSource(fileWithData());
  EXPECT_EQ(pack(), 0);
  EXPECT_NE(dstRef, 0);  // no buffer was held any more
  expectTargetEmptied();
}

TEST_F(PackWithHandleAndTableData, GoesOnWhenTheRewriteOfTheSlotFailsOnPurpose) {
  putSource(fileWithData());
  RecordedCalls host;
  int successes = 0;
  for (int step = 0;; ++step) {
    host.failOnce(Call::write, step);
    const int result = pack();
    host.heal();
    if (!host.failed()) break;
    if (result == 0) continue;
    ++successes;
    // The block is there; the slot is the raw image that the directory pass wrote.
    EXPECT_EQ(fileSize(kTarget), kDirectoryEnd + 27);
    EXPECT_EQ(contents(kTarget).at(kHeaderBytes + 124, 1), bytesOf("y"));
  }
  EXPECT_EQ(successes, 1);
}

// ---- status and file numbers ----

TEST_F(PackWithHandle, SetsTheStatusBeforeItLooksAtAnything) {
  EXPECT_EQ(pack(), 0);  // no source
  EXPECT_EQ(status, 100);
  EXPECT_EQ(srcRef, kUnwritten);
  EXPECT_EQ(dstRef, kUnwritten);
  status = 0;
  EXPECT_EQ(PackOneDB2New_WithHandle(nullptr, wide(kTarget), 0, nullptr, &srcRef, &dstRef, &status),
            0);
  EXPECT_EQ(status, 100);
  status = 0;
  EXPECT_EQ(PackOneDB2New_WithHandle(wide(kSource), nullptr, 0, nullptr, &srcRef, &dstRef, &status),
            0);
  EXPECT_EQ(status, 100);
  EXPECT_FALSE(targetExists());
}

TEST_F(PackWithHandle, ReportsBothNumbersAndStatusZeroDuringTheProgressCalls) {
  putSource(passingFile());
  log.during = [this](size_t index) {
    if (index != 0) return;
    EXPECT_EQ(status, 0);
    EXPECT_NE(srcRef, dstRef);
    EXPECT_NE(position(static_cast<int16_t>(srcRef)), -1);
    EXPECT_NE(position(static_cast<int16_t>(dstRef)), -1);
  };
  EXPECT_EQ(pack(), 1);
  EXPECT_EQ(srcRef, 0);
  EXPECT_EQ(dstRef, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(PackWithHandle, SetsTheSourceNumberToZeroWheneverItClosesTheSource) {
  putSource(bytesOf("no database, but a file that can be opened"));
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(srcRef, 0);
  EXPECT_EQ(dstRef, kUnwritten);
  EXPECT_EQ(status, 100);
}

TEST_F(PackWithHandle, HasStatus100WhenTheTargetCannotBeMade) {
  putSource(passingFile());
  std::filesystem::create_directory(path(kTarget));
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(status, 100);
  EXPECT_EQ(srcRef, 0);
  EXPECT_EQ(dstRef, kUnwritten);
}

TEST_F(PackWithHandle, LeavesTheTargetNumberAfterAFailureWithoutABuffer) {
  putSource(passingFile());
  log.stopAt = 0;
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(srcRef, 0);
  EXPECT_NE(dstRef, 0);
  EXPECT_NE(dstRef, kUnwritten);
  EXPECT_EQ(status, 0);
  expectTargetEmptied();
}

TEST_F(PackWithHandle, SetsTheTargetNumberToZeroAfterAFailureWithTheHeaderInMemory) {
  putSource(passingFile());
  RecordedCalls host;
  for (size_t room = 0; room < kDirectoryEnd; ++room) {
    host.fullAfter(room);
    EXPECT_EQ(pack(), 0);
    host.heal();
    // Only while the header is written is a buffer held: the slots come one by one.
    EXPECT_EQ(dstRef == 0, room < kHeaderBytes) << room;
  }
}

TEST_F(PackWithHandle, SetsTheTargetNumberToZeroWhenAPayloadIsLongerThanTheFile) {
  Bytes file = passingFile();
  RecordFields record;
  record.tableID = identifier(0x101);
  record.recordID = identifier(0xA1);
  record.dataLength = 0xFFFFFFF0;
  file.putLe(kHeaderBytes + 56, 4, 1);
  file.putLe(kHeaderBytes + 64, 8, file.size());
  file.add(record.encode());
  putSource(file);
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(dstRef, 0);
}

TEST_F(PackWithHandle, KeepsTheTargetOfAFailedPackWhenTheStatusIs100AtThatMoment) {
  putSource(passingFile());
  log.stopAt = 0;
  log.during = [this](size_t) { status = 100; };
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(fileSize(kTarget), kDirectoryEnd);
}

TEST_F(PackWithHandle, EmptiesTheFinishedTargetWhenTheCallWith100ReturnsZero) {
  putSource(passingFile());
  log.stopAt = 1;
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 100}));
  EXPECT_EQ(srcRef, 0);
  EXPECT_EQ(dstRef, 0);
  EXPECT_EQ(status, 0);
  expectTargetEmptied();
}

TEST_F(PackWithHandle, NeverTouchesTheVersion) {
  Bytes file = passingFile();
  file.putBe(4, 2, 177);
  putSource(file);
  std::vector<int> versions;
  log.during = [&](size_t) { versions.push_back(header(kTarget).version); };
  EXPECT_EQ(pack(), 1);
  EXPECT_EQ(versions, (std::vector<int>{177, 177}));
}

TEST_F(PackWithHandle, PassesUserDataAndANullThirdArgument) {
  putSource(FileImage());
  ASSERT_EQ(pack(), 1);
  const std::vector<ProgressLog::Entry> expected = {{7, 1, nullptr}, {7, 100, nullptr}};
  EXPECT_EQ(log.entries, expected);
}

}  // namespace
}  // namespace qvdbase::test
