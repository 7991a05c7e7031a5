// Adding records: the block at the end of the file, the link in the old last record, the slot.
#include "QVDbase/record_append.h"
#include "kit/layers.h"

#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <fstream>

#include "kit/record_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kNew = 0x0102030405060708;  // the sum of its bytes is 0x24

class RecordAppend : public RecordTest {
 protected:
  // Under the identifier kNew, to the table "notes".
  static int assign(int16_t db, const Bytes& payload, uint32_t reserve = 0,
                    uint64_t table = kNotes) {
    return AddRecordData_AssignRecordID(db, table, payload.empty() ? nullptr : payload.data(),
                                        static_cast<uint32_t>(payload.size()), reserve, &kNew);
  }

  // The block that assign() has to write.
  static Bytes newBlock(const Bytes& payload, int64_t prevRecordPos, uint32_t reserve = 0) {
    RecordFields block;
    block.tableID = identifier(kNotes);
    block.recordID = identifier(kNew);
    block.createTime = block.modifyTime = static_cast<uint32_t>(kNow);
    block.prevRecordPos = prevRecordPos;
    block.dataLength = static_cast<uint32_t>(payload.size());
    block.dataCapacity = std::max(block.dataLength, reserve);
    block.room = payload;
    block.room.zeros(block.dataCapacity - payload.size());
    return block.encode();
  }

  // The part of a block that is in the file when the slot turns out to contradict itself: mark,
  // header size, both identifiers and both times.
  static Bytes blockStart() { return newBlock({}, 0).cut(31); }

  // The image after assign(payload, reserve).
  void takeIn(const Bytes& payload, uint32_t reserve = 0) {
    image.addRecord(notes, kNew, payload,
                    {.reserve = reserve,
                     .createTime = static_cast<uint32_t>(kNow),
                     .modifyTime = static_cast<uint32_t>(kNow)});
  }
};

// ---- the block ----------------------------------------------------------------------------------

TEST_F(RecordAppend, WritesTheBlockByteForByte) {
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("abc"), 5), 1);
  const Bytes file = contents();
  ASSERT_EQ(file.size(), 4630u + 55 + 5 + 1);
  EXPECT_EQ(file.from(4630), hex("87"                     // blockMark
                                 "0040"                   // headerSize
                                 "1122334455667788 0264"  // tableID
                                 "0102030405060708 0024"  // recordID
                                 "5F5E1000 5F5E1000"      // createTime, modifyTime
                                 "0000000000000000"       // prevRecordPos
                                 "0000000000000000"       // nextRecordPos
                                 "00000003 00000005"      // dataLength, dataCapacity
                                 "616263 0000 69"));      // data, fill, blockEndMark
}

TEST_F(RecordAppend, CountsTheFirstRecordOfATableInItsSlot) {
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("abc")), 1);
  // recordCount and recordWriteCount, a gap, then first, last written and last: 4630 is 0x1216.
  EXPECT_EQ(contents().at(22 + 60, 36), hex("01000000 01000000 CCCCCCCC 1612000000000000"
                                            "1612000000000000 1612000000000000"));
}

TEST_F(RecordAppend, ChangesNothingButTheSlotAndTheEndOfTheFile) {
  image.slot(notes).tableFlags1 = 0x1234;
  image.slot(notes).tableFlags2 = 0x5678;
  image.slot(notes).tableVersion = 103;
  image.setTableData(notes, bytesOf("about the notes"), 30);
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("abc")), 1);
  takeIn(bytesOf("abc"));
  expectFile();
}

TEST_F(RecordAppend, LinksASecondRecordAfterTheFirst) {
  const int64_t first = image.addRecord(notes, kA, bytesOf("first"));
  const int16_t db = start();
  const int64_t second = image.end();
  ASSERT_EQ(assign(db, bytesOf("abc")), 1);
  const Bytes file = contents();
  EXPECT_EQ(file.beAt(static_cast<size_t>(first) + 39, 8), second);
  EXPECT_EQ(file.beAt(static_cast<size_t>(second) + 31, 8), first);
  EXPECT_EQ(file.beAt(static_cast<size_t>(second) + 39, 8), 0u);
  const SlotFields owner = slot(notes);
  EXPECT_EQ(owner.firstRecordPos, first);
  EXPECT_EQ(owner.lastRecordPos, second);
  EXPECT_EQ(owner.lastWrittenRecordPos, second);
  EXPECT_EQ(owner.recordCount, 2u);
  EXPECT_EQ(owner.recordWriteCount, 2u);
}

TEST_F(RecordAppend, TouchesNoOtherRecordThanTheOldLast) {
  threeRecords();
  image.addRecord(other, kA, bytesOf("of another table"));
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("fourth")), 1);
  takeIn(bytesOf("fourth"));
  expectFile();
}

TEST_F(RecordAppend, AppendsAfterTheLastRecordWhateverWasWrittenLast) {
  threeRecords();
  image.slot(notes).lastWrittenRecordPos = a;
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("fourth")), 1);
  takeIn(bytesOf("fourth"));
  expectFile();
}

TEST_F(RecordAppend, WritesTheBlockAtTheEndOfTheFileWhateverIsThere) {
  image.addRaw(hex("00 11 22"));
  allowDamage();
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("abc")), 1);
  takeIn(bytesOf("abc"));
  EXPECT_EQ(slot(notes).firstRecordPos, 4633);
  expectFile();
}

TEST_F(RecordAppend, CarriesTheIdentifierBytesOfTheSlotWhateverTheirSum) {
  image.slot(notes).tableID = hex("1122334455667788 FFFF");
  expectDamage(kDefaultFile, {"D3"});
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("abc")), 1);
  EXPECT_EQ(contents().at(4633, 10), hex("1122334455667788 FFFF"));
}

TEST_F(RecordAppend, WritesTheSizeConstantsOfTheSlotWhateverItHeld) {
  image.slot(notes).infoSize = 1;
  image.slot(notes).recordsInfoSize = 2;
  image.slot(notes).dataInfoSize = 3;
  const int16_t db = start();
  ASSERT_EQ(assign(db, bytesOf("abc")), 1);
  const SlotFields owner = slot(notes);
  EXPECT_EQ(owner.infoSize, 50);
  EXPECT_EQ(owner.recordsInfoSize, 40);
  EXPECT_EQ(owner.dataInfoSize, 40);
}

TEST_F(RecordAppend, StoresPositionsBeyond4GiBInFull) {
  threeRecords();
  allowDamage();  // as far as the checks at the end go, which would read it all
  base = image.build();
  writeFile(path(), base);
  constexpr int64_t kFar = 0x1'4000'0000;
  std::filesystem::resize_file(path(), kFar);
  const int16_t db = open();
  ASSERT_EQ(assign(db, bytesOf("far")), 1);
  ASSERT_EQ(AddRecordData_AssignRecordID(db, kNotes, nullptr, 0, 0, &kB), 1);
  std::ifstream in(path(), std::ios::binary);
  const auto bytesAt = [&](int64_t position, size_t count) {
    Bytes bytes(count);
    in.seekg(position);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
    return bytes;
  };
  EXPECT_EQ(bytesAt(c + 39, 8), hex("0000000140000000"));
  EXPECT_EQ(bytesAt(kFar + 31, 16), hex("000000000000129F 000000014000003B"));
  EXPECT_EQ(bytesAt(kFar + 59 + 31, 16), hex("0000000140000000 0000000000000000"));
  EXPECT_EQ(bytesAt(22 + 72, 24), hex("1612000000000000 3B00004001000000 3B00004001000000"));
}

// ---- capacity -----------------------------------------------------------------------------------

TEST_F(RecordAppend, ReservesNoMoreThanThePayloadWithoutAReserve) {
  const int16_t db = start();
  ASSERT_EQ(assign(db, pattern(10), 0), 1);
  EXPECT_EQ(fileSize(), 4630u + 55 + 10 + 1);
  takeIn(pattern(10));
  expectFile();
}

TEST_F(RecordAppend, ReservesThePayloadsSizeWhenThatIsLarger) {
  for (const uint32_t reserve : {1u, 9u, 10u}) {
    const int16_t db = start();
    ASSERT_EQ(assign(db, pattern(10), reserve), 1);
    EXPECT_TRUE(sameBytes(contents().from(4630), newBlock(pattern(10), 0)));
    close(db);
  }
}

TEST_F(RecordAppend, FillsTheReserveAfterThePayloadWithZeros) {
  const int16_t db = start();
  ASSERT_EQ(assign(db, pattern(10), 50), 1);
  EXPECT_EQ(fileSize(), 4630u + 55 + 50 + 1);
  EXPECT_EQ(contents().at(4630 + 55 + 10, 41), Bytes(40).be(1, 'i'));
  takeIn(pattern(10), 50);
  expectFile();
}

TEST_F(RecordAppend, FillsReservesOfSeveralChunks) {
  const int16_t db = start();
  for (const uint32_t fill : {32767u, 32768u, 32769u, 98304u, 100000u}) {
    ASSERT_EQ(assign(db, pattern(3), 3 + fill), 1);
    takeIn(pattern(3), 3 + fill);
    expectFile();
  }
}

TEST_F(RecordAppend, StoresARecordOfNoBytesInABlockOf56) {
  const int16_t db = start();
  ASSERT_EQ(assign(db, {}), 1);
  EXPECT_EQ(fileSize(), 4630u + 56);
  EXPECT_EQ(contents().at(4630 + 47, 9), hex("00000000 00000000 69"));
}

TEST_F(RecordAppend, StoresARecordOfNoBytesWithCapacity) {
  const int16_t db = start();
  ASSERT_EQ(assign(db, {}, 4), 1);
  EXPECT_EQ(contents().from(4630 + 47), hex("00000000 00000004 00000000 69"));
}

// ---- identifiers --------------------------------------------------------------------------------

TEST_F(RecordAppend, ReturnsTheIdentifierThatItStored) {
  const int16_t db = start();
  uint64_t id = 0;
  ASSERT_EQ(AddRecordData(db, kNotes, nullptr, 0, 0, &id), 1);
  EXPECT_NE(id, 0u);
  EXPECT_EQ(contents().at(4630 + 13, 10), identifier(id));
  // The low half of a new identifier is the time and the microsecond counter added up.
  EXPECT_EQ(id & 0xFFFFFFFF, static_cast<uint64_t>(kNow) + 123456);
}

TEST_F(RecordAppend, GivesEachRecordAnIdentifierOfItsOwn) {
  const int16_t db = start();
  EXPECT_NE(addRecord(db, kNotes, {}), addRecord(db, kNotes, {}));
}

TEST_F(RecordAppend, StoresTheAssignedIdentifierWithItsSum) {
  const int16_t db = start();
  for (const uint64_t id : {uint64_t{0}, ~uint64_t{0}}) {
    uint64_t assigned = id;
    ASSERT_EQ(AddRecordData_AssignRecordID(db, kNotes, nullptr, 0, 0, &assigned), 1);
    EXPECT_EQ(assigned, id);
  }
  EXPECT_EQ(contents().at(4630 + 13, 10), hex("0000000000000000 0000"));
  EXPECT_EQ(contents().at(4686 + 13, 10), hex("FFFFFFFFFFFFFFFF 07F8"));
}

TEST_F(RecordAppend, AcceptsAnIdentifierThatTheTableHasAlready) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(AddRecordData_AssignRecordID(db, kNotes, bytesOf("x").data(), 1, 0, &kB), 1);
  EXPECT_EQ(list(db, kNotes), (std::vector<uint64_t>{kA, kB, kC, kB}));
  EXPECT_EQ(payload(db, kNotes, kB), bytesOf("second"));
}

// ---- times --------------------------------------------------------------------------------------

TEST_F(RecordAppend, ReadsTheClockOnceForBothTimes) {
  const int16_t db = start();
  host.observe([&](Call call) {
    if (call == Call::time) host.advanceTime(1);
  });
  ASSERT_EQ(assign(db, {}), 1);
  EXPECT_EQ(contents().at(4630 + 23, 8), hex("5F5E1001 5F5E1001"));
}

TEST_F(RecordAppend, StoresTheClockModulo2To32) {
  const int16_t db = start();
  host.setTime(0x1'0000'0005);
  ASSERT_EQ(assign(db, {}), 1);
  EXPECT_EQ(contents().at(4630 + 23, 8), hex("00000005 00000005"));
  host.setTime(-2);
  ASSERT_EQ(assign(db, {}), 1);
  EXPECT_EQ(contents().at(4686 + 23, 8), hex("FFFFFFFE FFFFFFFE"));
}

// ---- arguments ----------------------------------------------------------------------------------

TEST_F(RecordAppend, RefusesANullIdentifier) {
  const int16_t db = start();
  expectPositionKept(db, [&] {
    EXPECT_EQ(AddRecordData(db, kNotes, bytesOf("x").data(), 1, 0, nullptr), 0);
    EXPECT_EQ(AddRecordData_AssignRecordID(db, kNotes, bytesOf("x").data(), 1, 0, nullptr), 0);
  });
  EXPECT_EQ(host.count(Call::read), 0);
  expectFile();
}

TEST_F(RecordAppend, RefusesANullPayloadWithASize) {
  const int16_t db = start();
  expectPositionKept(db, [&] {
    uint64_t id = 5;
    EXPECT_EQ(AddRecordData(db, kNotes, nullptr, 1, 0, &id), 0);
    EXPECT_EQ(AddRecordData_AssignRecordID(db, kNotes, nullptr, 1, 0, &id), 0);
    EXPECT_EQ(id, 5u);
  });
  expectFile();
}

TEST_F(RecordAppend, FailsForATableThatIsNotThere) {
  const int16_t db = start();
  expectPositionKept(db, [&] {
    uint64_t id = 5;
    EXPECT_EQ(assign(db, bytesOf("x"), 0, kNoTable), 0);
    EXPECT_EQ(AddRecordData(db, kNoTable, bytesOf("x").data(), 1, 0, &id), 0);
    EXPECT_EQ(id, 5u);
  });
  expectFile();
}

TEST_F(RecordAppend, FailsAfterADamagedSlot) {
  image.slot(notes).slotEndMark = 'x';
  expectDamage(kDefaultFile, {"D1"});
  const int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(assign(db, bytesOf("x"), 0, kOther), 0); });
  expectFile();
}

TEST_F(RecordAppend, FailsOnAVersionOutsideTheRange) {
  for (const int version : {99, 200}) {
    image.header().version = static_cast<uint16_t>(version);
    expectDamage(kDefaultFile, {"H2"});
    const int16_t db = start();
    expectPositionKept(db, [&] { EXPECT_EQ(assign(db, bytesOf("x")), 0); });
    expectFile();
    close(db);
  }
}

TEST_F(RecordAppend, FailsOnAHandleOpenedForReading) {
  threeRecords();
  const int16_t db = start(1);
  expectPositionKept(db, [&] { EXPECT_EQ(assign(db, bytesOf("x")), 0); });
  expectFile();
}

TEST_F(RecordAppend, FailsOnAHandleThatIsNotOpen) {
  for (const int handle : {0, -1, 32000}) {
    const auto db = static_cast<int16_t>(handle);
    uint64_t id = 5;
    EXPECT_EQ(assign(db, bytesOf("x")), 0);
    EXPECT_EQ(AddRecordData(db, kNotes, bytesOf("x").data(), 1, 0, &id), 0);
    EXPECT_EQ(id, 5u);
  }
}

TEST_F(RecordAppend, RestoresThePosition) {
  const int16_t db = start();
  expectPositionKept(db, [&] {
    EXPECT_EQ(assign(db, bytesOf("x")), 1);
    uint64_t id = 0;
    EXPECT_EQ(AddRecordData(db, kNotes, bytesOf("x").data(), 1, 7, &id), 1);
  });
}

// ---- slots and chains that contradict themselves ------------------------------------------------

TEST_F(RecordAppend, WritesNothingWhenFirstPositionAndCountDisagree) {
  threeRecords();
  image.slot(notes).recordCount = 0;
  expectDamage();
  int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(assign(db, bytesOf("x")), 0); });
  expectFile();
  close(db);

  image.slot(notes).recordCount = 3;
  image.slot(notes).firstRecordPos = 0;
  db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(assign(db, bytesOf("x")), 0); });
  expectFile();
}

TEST_F(RecordAppend, FailsEveryTimeWhenACountedTableHasNoLastRecord) {
  threeRecords();
  image.slot(notes).recordCount = 2;
  image.slot(notes).lastRecordPos = 0;
  expectDamage();
  const int16_t db = start();
  seek(db, 77);
  EXPECT_EQ(assign(db, bytesOf("x")), 0);
  // It shows when the block's links are to be written: the bytes up to there stay.
  expectOnlyAppended(blockStart());
  EXPECT_EQ(assign(db, bytesOf("x")), 0);
  expectOnlyAppended(blockStart().add(blockStart()));
  EXPECT_EQ(position(db), 77);
}

TEST_F(RecordAppend, FailsWhenAnEmptyTableHasALastRecord) {
  image.slot(notes).lastRecordPos = 4630;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(assign(db, bytesOf("x")), 0);
  expectOnlyAppended(blockStart());
}

TEST_F(RecordAppend, LeavesTheNewBlockUnlinkedWhenTheLastRecordIsDamaged) {
  threeRecords();
  expectDamage();
  const RecordFields sound = image.record(c);
  const auto expectUnlinked = [&](const char* damage) {
    SCOPED_TRACE(damage);
    const int16_t db = start();
    seek(db, 77);
    EXPECT_EQ(assign(db, bytesOf("x"), 3), 0);
    EXPECT_EQ(position(db), 77);
    expectOnlyAppended(newBlock(bytesOf("x"), c, 3));
    close(db);
    image.record(c) = sound;
  };
  image.record(c).blockMark = 134;
  expectUnlinked("mark");
  image.record(c).headerSize = 65;
  expectUnlinked("header size");
  image.record(c).tableID = identifier(kOther);
  expectUnlinked("another table's");
  image.record(c).tableID = hex("1122334455667788 0265");
  expectUnlinked("sum of the table's identifier");
  image.record(c).nextRecordPos = a;
  expectUnlinked("has a successor");
  image.record(c).nextRecordPos = -1;
  expectUnlinked("has an impossible successor");
}

TEST_F(RecordAppend, LeavesTheNewBlockUnlinkedWhenTheLastPositionIsHostile) {
  threeRecords();
  expectDamage();
  for (const int64_t hostile : kHostilePositions) {
    SCOPED_TRACE(hostile);
    image.slot(notes).lastRecordPos = hostile;
    const int16_t db = start();
    EXPECT_EQ(assign(db, bytesOf("x")), 0);
    expectOnlyAppended(newBlock(bytesOf("x"), hostile));
    close(db);
  }
}

TEST_F(RecordAppend, LooksAtTheLastRecordOnlyAndNotAtTheChainBefore) {
  threeRecords();
  image.record(a).blockMark = 0;
  image.record(b).nextRecordPos = -5;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(assign(db, bytesOf("x")), 1);
  takeIn(bytesOf("x"));
  expectFile();
}

// ---- the internal routines ----------------------------------------------------------------------

class RecordAppendInside : public RecordAppend {
 protected:
  void SetUp() override {
    threeRecords();
    slotInMemory.slotMark = 151;
    slotInMemory.slotEndMark = 'y';
    const Bytes id = identifier(kNotes);
    std::copy(id.begin(), id.end(), slotInMemory.tableID);
    slotInMemory.recordCount = slotInMemory.recordWriteCount = 3;
    slotInMemory.firstRecordPos = a;
    slotInMemory.lastRecordPos = c;
    slotInMemory.firstDataPos = 0x123456;
    slotInMemory.tableFlags1 = 7;
  }

  int append(int16_t db, unsigned char* recordID, uint16_t useGivenID) {
    return internal_WriteOneRecordDataInEOF(db, &slotInMemory, slotInMemory.tableID, recordID,
                                            slotPos, 144, bytesOf("x").data(), 1, 0, &newRecordPos,
                                            useGivenID);
  }

  tablePart1 slotInMemory{};
  const int64_t slotPos = static_cast<int64_t>(slotOffset(notes));
  int64_t newRecordPos = -7;
};

TEST_F(RecordAppendInside, WritesTheCallersSlotAndNotTheOneInTheFile) {
  allowDamage();
  const int16_t db = start();
  ASSERT_EQ(append(db, nullptr, 0), 1);
  const SlotFields owner = slot(notes);
  EXPECT_EQ(owner.firstDataPos, 0x123456);
  EXPECT_EQ(owner.tableFlags1, 7);
  EXPECT_EQ(owner.name(), "");
}

TEST_F(RecordAppendInside, ReturnsTheUpdatedSlotAndThePosition) {
  allowDamage();
  const int16_t db = start();
  ASSERT_EQ(append(db, nullptr, 0), 1);
  EXPECT_EQ(newRecordPos, image.end());
  EXPECT_EQ(int64_t{slotInMemory.lastRecordPos}, newRecordPos);
  EXPECT_EQ(int64_t{slotInMemory.lastWrittenRecordPos}, newRecordPos);
  EXPECT_EQ(int64_t{slotInMemory.firstRecordPos}, a);
  EXPECT_EQ(slotInMemory.recordCount, 4u);
  EXPECT_EQ(slotInMemory.recordWriteCount, 4u);
  EXPECT_EQ(int64_t{slotInMemory.firstDataPos}, 0x123456);
}

TEST_F(RecordAppendInside, LinksTheBlockButCountsItNotWhenTheSlotHasLostAMark) {
  allowDamage();
  const SlotFields sound = image.slot(notes);
  for (const bool endMark : {false, true}) {
    image.slot(notes) = sound;
    (endMark ? image.slot(notes).slotEndMark : image.slot(notes).slotMark) = 1;
    const int16_t db = start();
    unsigned char recordID[10] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(append(db, recordID, 1), 0);
    Bytes expected = base;
    expected.putBe(static_cast<size_t>(c) + 39, 8, base.size());
    expected = expected.add(newBlock(bytesOf("x"), c).with(13, Bytes(10)));
    EXPECT_TRUE(sameBytes(contents(), expected));
    EXPECT_EQ(newRecordPos, -7);
    EXPECT_EQ(slotInMemory.recordCount, 3u);
    close(db);
  }
}

TEST_F(RecordAppendInside, FailsWhenAnEmptyTableHasAFirstRecord) {
  allowDamage();
  slotInMemory.recordCount = 0;
  slotInMemory.lastRecordPos = 0;
  const int16_t db = start();
  EXPECT_EQ(append(db, nullptr, 0), 0);
  EXPECT_EQ(fileSize(), base.size() + blockStart().size());
}

TEST_F(RecordAppendInside, LeavesTheCallersSlotAloneWhenItCannotBeWritten) {
  allowDamage();
  const int16_t db = start();
  // The block, the link in the old last record, and not a byte of the slot.
  host.fullAfter(57 + 8);
  EXPECT_EQ(append(db, nullptr, 0), 0);
  EXPECT_EQ(slotInMemory.recordCount, 3u);
  EXPECT_EQ(int64_t{slotInMemory.lastRecordPos}, c);
  EXPECT_EQ(newRecordPos, -7);
}

TEST_F(RecordAppendInside, CopiesTheGeneratedIdentifierToTheCaller) {
  allowDamage();
  const int16_t db = start();
  unsigned char recordID[10] = {};
  ASSERT_EQ(append(db, recordID, 0), 1);
  const Bytes handedOut(recordID, recordID + 10);
  EXPECT_NE(handedOut, Bytes(10));
  EXPECT_EQ(contents().at(static_cast<size_t>(newRecordPos) + 13, 10), handedOut);
}

TEST_F(RecordAppendInside, WritesAGivenIdentifierByteForByte) {
  allowDamage();
  const int16_t db = start();
  Bytes given = hex("0102030405060708 FFFF");  // whatever its sum
  ASSERT_EQ(append(db, given.data(), 1), 1);
  EXPECT_EQ(given, hex("0102030405060708 FFFF"));
  EXPECT_EQ(contents().at(static_cast<size_t>(newRecordPos) + 13, 10), given);
}

TEST_F(RecordAppendInside, RefusesANullIdentifierBuffer) {
  const int16_t db = start();
  EXPECT_EQ(internal_AddOneRecordData(db, &slotInMemory, slotInMemory.tableID, slotPos, 144,
                                      bytesOf("x").data(), 1, 0, nullptr, 0),
            0);
  expectFile();
}

// ---- order and failures -------------------------------------------------------------------------

TEST_F(RecordAppend, WritesTheBlockThenTheLinkThenTheSlot) {
  threeRecords();
  const int64_t end = image.end();
  const auto log = ranges(writesOf([](int16_t db) { return assign(db, bytesOf("x"), 3); }));
  takeIn(bytesOf("x"), 3);
  const std::vector<Write> expected = {
      {end, newBlock(bytesOf("x"), c, 3), kDefaultFile},
      {c + 39, Bytes().be(8, static_cast<uint64_t>(end)), kDefaultFile},
      {static_cast<int64_t>(slotOffset(notes)), image.slot(notes).encode(), kDefaultFile}};
  EXPECT_EQ(log, expected);
}

TEST_F(RecordAppend, WritesTheBlockThenTheSlotOfAnEmptyTable) {
  const auto log = ranges(writesOf([](int16_t db) { return assign(db, bytesOf("x")); }));
  takeIn(bytesOf("x"));
  const std::vector<Write> expected = {
      {4630, newBlock(bytesOf("x"), 0), kDefaultFile},
      {static_cast<int64_t>(slotOffset(notes)), image.slot(notes).encode(), kDefaultFile}};
  EXPECT_EQ(log, expected);
}

TEST_F(RecordAppend, StopsAtTheFirstFailureInAnEmptyTable) {
  expectStopsAtEachFailure([](int16_t db) { return assign(db, bytesOf("payload"), 9); });
}

TEST_F(RecordAppend, StopsAtTheFirstFailureAfterOtherRecords) {
  threeRecords();
  expectStopsAtEachFailure([](int16_t db) { return assign(db, bytesOf("payload"), 9); });
}

TEST_F(RecordAppend, StopsAtTheFirstFailureWithAGeneratedIdentifier) {
  threeRecords();
  expectStopsAtEachFailure([](int16_t db) {
    uint64_t id = 5;
    const int result = AddRecordData(db, kNotes, nullptr, 0, 0, &id);
    EXPECT_EQ(id == 5, result == 0);
    return result;
  });
}

TEST_F(RecordAppend, WritesEachFieldOnItsOwn) {
  if (platform::gathersTransfers()) GTEST_SKIP();
  threeRecords();
  // Mark, header size, two identifiers, two times, two links, two lengths, the payload, the fill,
  // the end mark; the link in the old last record; the slot.
  EXPECT_EQ(expectStopsAtEachWrite([](int16_t db) { return assign(db, bytesOf("p"), 9); }), 15);
}

TEST_F(RecordAppend, WritesNothingWhenTheEndOfTheFileCannotBeFound) {
  threeRecords();
  const int16_t db = start();
  seek(db, 77);
  host.failFrom(Call::length);
  EXPECT_EQ(assign(db, bytesOf("x")), 0);
  host.heal();
  EXPECT_EQ(position(db), 77);
  expectFile();
}

TEST_F(RecordAppend, StopsBeforeTheFillWhenItsBufferCannotBeObtained) {
  threeRecords();
  expectDamage();
  const int16_t db = start();
  ASSERT_EQ(numberOfRecords(db, kNotes), 3u);  // the directory is in the cache now
  seek(db, 77);
  host.failFrom(Call::allocate);
  EXPECT_EQ(assign(db, bytesOf("x"), 3), 0);
  host.heal();
  EXPECT_EQ(position(db), 77);
  expectOnlyAppended(newBlock(bytesOf("x"), c, 3).cut(56));
}

TEST_F(RecordAppend, NeedsNoBufferForTheFillWithoutAFill) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(numberOfRecords(db, kNotes), 3u);
  host.failFrom(Call::allocate);
  EXPECT_EQ(assign(db, bytesOf("abc"), 3), 1);
  host.heal();
  takeIn(bytesOf("abc"));
  expectFile();
}

TEST_F(RecordAppend, AppendsAgainAfterAFailure) {
  threeRecords();
  allowDamage();
  const int16_t db = start();
  host.fullAfter(20);
  EXPECT_EQ(assign(db, bytesOf("x")), 0);
  host.heal();
  EXPECT_EQ(assign(db, bytesOf("x")), 1);
  image.addRaw(newBlock(bytesOf("x"), c).cut(20));
  takeIn(bytesOf("x"));
  expectFile();
}

}  // namespace
}  // namespace qvdbase::test
