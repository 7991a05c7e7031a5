// Replacing payloads: in place while the new one fits the record's capacity, else in a new block
// that takes the old one's place in the chain.
#include "QVDbase/record_modify.h"
#include "kit/layers.h"

#include <qvdbase/qvdbase.h>

#include <cstring>

#include "kit/record_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

class RecordModify : public RecordTest {
 protected:
  static int modify(int16_t db, uint64_t record, const Bytes& payload, uint64_t table = kNotes) {
    return ModifyRecordData(db, table, payload.data(), static_cast<uint32_t>(payload.size()),
                            record, nullptr);
  }

  // The image after the record at `position` was overwritten by `payload`.
  void overwrite(int64_t position, const Bytes& payload) {
    RecordFields& record = image.record(position);
    record.modifyTime = static_cast<uint32_t>(kNow);
    record.dataLength = static_cast<uint32_t>(payload.size());
    record.room = record.room.with(0, payload);
  }

  // The block that takes the place of the one at `position`.
  RecordFields relocated(int64_t position, const Bytes& payload) {
    RecordFields record = image.record(position);
    record.modifyTime = static_cast<uint32_t>(kNow);
    record.dataLength = record.dataCapacity = static_cast<uint32_t>(payload.size());
    record.room = payload;
    return record;
  }

  const Bytes large = pattern(33);  // fits no record of threeRecords()
};

// ---- in place -----------------------------------------------------------------------------------

TEST_F(RecordModify, WritesOverThePayloadThatLeavesCapacity) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, bytesOf("another one")), 1);
  const auto at = static_cast<size_t>(b);
  EXPECT_TRUE(sameBytes(contents(), base.with(at + 27, hex("5F5E1000"))
                                        .with(at + 47, hex("0000000B"))
                                        .with(at + 55, bytesOf("another one"))));
}

TEST_F(RecordModify, KeepsTheCapacityOfARecordThatIsWrittenOver) {
  const int16_t db = start();
  const uint64_t id = addRecord(db, kNotes, pattern(10), 50);
  const size_t size = fileSize();
  ASSERT_EQ(modify(db, id, pattern(40)), 1);
  EXPECT_EQ(fileSize(), size);
  const RecordFields now = record(4630);
  EXPECT_EQ(now.dataCapacity, 50u);
  EXPECT_EQ(now.dataLength, 40u);
  EXPECT_EQ(now.data(), pattern(40));
}

TEST_F(RecordModify, RelocatesTheRecordThatOutgrowsItsCapacity) {
  const int16_t db = start();
  const uint64_t id = addRecord(db, kNotes, pattern(10), 50);
  const size_t size = fileSize();
  ASSERT_EQ(modify(db, id, pattern(60)), 1);
  EXPECT_EQ(fileSize(), size + 55 + 60 + 1);
  EXPECT_EQ(record(static_cast<int64_t>(size)).dataCapacity, 60u);
  EXPECT_EQ(payload(db, kNotes, id), pattern(60));
}

TEST_F(RecordModify, WritesOverWhenThePayloadJustFits) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, pattern(20)), 1);
  overwrite(b, pattern(20));
  expectFile();
  ASSERT_EQ(modify(db, kB, pattern(21)), 1);
  EXPECT_EQ(fileSize(), base.size() + 55 + 21 + 1);
}

TEST_F(RecordModify, LeavesTheTailOfALongerPayloadAfterTheNewOne) {
  const int16_t db = start();
  const uint64_t id = addRecord(db, kNotes, pattern(40));
  ASSERT_EQ(modify(db, id, bytesOf("short")), 1);
  const oneRecordInfoP1 now = info(db, kNotes, id);
  EXPECT_EQ(now.dataLength, 5u);
  EXPECT_EQ(now.dataCapacity, 40u);
  EXPECT_EQ(contents().at(4630 + 55, 41), pattern(40).with(0, bytesOf("short")).be(1, 'i'));
}

TEST_F(RecordModify, ComparesWithTheCapacityAndNotWithTheLength) {
  threeRecords();
  image.record(b).dataLength = 0xFFFFFFFF;
  expectDamage();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, pattern(21)), 1);
  EXPECT_EQ(fileSize(), base.size() + 55 + 21 + 1);
}

TEST_F(RecordModify, TakesTheCapacityAtItsWord) {
  threeRecords();
  image.record(c).dataCapacity = 0xFFFFFFFF;
  expectDamage();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kC, pattern(5)), 1);
  overwrite(c, pattern(5));
  expectFile();
}

TEST_F(RecordModify, LeavesThePositionAfterThePayloadItWroteOver) {
  threeRecords();
  const int16_t db = start();
  seek(db, 77);
  ASSERT_EQ(modify(db, kB, bytesOf("1234567")), 1);
  EXPECT_EQ(position(db), b + 55 + 7);
}

// ---- relocation ---------------------------------------------------------------------------------

TEST_F(RecordModify, WritesTheNewBlockByteForByte) {
  image.addRecord(notes, kA, bytesOf("old"),
                  {.reserve = 5, .createTime = 0x0A0B0C0D, .modifyTime = 0x0A0B0C0E});
  const int16_t db = start();
  ASSERT_EQ(modify(db, kA, bytesOf("longer")), 1);
  EXPECT_EQ(contents().from(4630 + 61), hex("87 0040"
                                            "1122334455667788 0264"
                                            "00000000000000A1 00A1"
                                            "0A0B0C0D 5F5E1000"
                                            "0000000000000000 0000000000000000"
                                            "00000006 00000006"
                                            "6C6F6E676572 69"));
}

TEST_F(RecordModify, MovesBothEndsOfAChainWithItsOnlyRecord) {
  const int64_t old = image.addRecord(notes, kA, bytesOf("old"));
  const int16_t db = start();
  ASSERT_EQ(modify(db, kA, large), 1);
  const int64_t moved = image.addDeadRecord(relocated(old, large));
  image.slot(notes).firstRecordPos = moved;
  image.slot(notes).lastRecordPos = moved;  // and not the last written one
  expectFile();
}

TEST_F(RecordModify, MovesTheFirstRecord) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kA, large), 1);
  const int64_t moved = image.addDeadRecord(relocated(a, large));
  image.slot(notes).firstRecordPos = moved;
  image.record(b).prevRecordPos = moved;
  expectFile();
}

TEST_F(RecordModify, ChangesOnlyTheLinksOfTheNeighboursForAMiddleRecord) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, large), 1);
  const int64_t moved = image.addDeadRecord(relocated(b, large));
  image.record(a).nextRecordPos = moved;
  image.record(c).prevRecordPos = moved;
  expectFile();
}

TEST_F(RecordModify, MovesTheLastRecord) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kC, large), 1);
  const int64_t moved = image.addDeadRecord(relocated(c, large));
  image.record(b).nextRecordPos = moved;
  image.slot(notes).lastRecordPos = moved;
  expectFile();
}

TEST_F(RecordModify, LeavesTheOldBlockAsItWas) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, large), 1);
  const auto at = static_cast<size_t>(b);
  EXPECT_EQ(contents().at(at, 76), base.at(at, 76));
}

TEST_F(RecordModify, KeepsOrderIdentifierAndCreateTime) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, large), 1);
  EXPECT_EQ(list(db, kNotes), (std::vector<uint64_t>{kA, kB, kC}));
  const oneRecordInfoP1 now = info(db, kNotes, kB);
  EXPECT_EQ(now.createTime, 21u);
  EXPECT_EQ(now.modifyTime, static_cast<uint32_t>(kNow));
  EXPECT_EQ(payload(db, kNotes, kB), large);
}

TEST_F(RecordModify, RelocatesTheSameRecordAgainAndAgain) {
  threeRecords();
  const int16_t db = start();
  for (const uint32_t size : {30u, 31u, 40000u, 40001u}) {
    ASSERT_EQ(modify(db, kB, pattern(size)), 1);
    EXPECT_EQ(payload(db, kNotes, kB), pattern(size));
  }
  EXPECT_EQ(list(db, kNotes), (std::vector<uint64_t>{kA, kB, kC}));
}

TEST_F(RecordModify, RestoresThePositionAfterARelocation) {
  threeRecords();
  const int16_t db = start();
  uint32_t size = 30;
  expectPositionKept(db, [&] { EXPECT_EQ(modify(db, kB, pattern(++size)), 1); });
}

TEST_F(RecordModify, MakesARecordWithoutPredecessorTheFirst) {
  threeRecords();
  image.record(b).prevRecordPos = 0;
  expectDamage();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, large), 1);
  const int64_t moved = image.addDeadRecord(relocated(b, large));
  image.slot(notes).firstRecordPos = moved;
  image.record(c).prevRecordPos = moved;
  expectFile();
}

TEST_F(RecordModify, KeepsTheRestOfTheSlot) {
  image.slot(notes).tableFlags1 = 0x1234;
  image.slot(notes).tableFlags2 = 0x5678;
  const int64_t old = image.addRecord(notes, kA, bytesOf("old"));
  image.setTableData(notes, bytesOf("about the notes"));
  const int16_t db = start();
  ASSERT_EQ(modify(db, kA, large), 1);
  const int64_t moved = image.addDeadRecord(relocated(old, large));
  image.slot(notes).firstRecordPos = image.slot(notes).lastRecordPos = moved;
  expectFile();
}

// ---- times --------------------------------------------------------------------------------------

TEST_F(RecordModify, ReadsTheClockOnce) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, bytesOf("x")), 1);
  EXPECT_EQ(host.count(Call::time), 1);
  ASSERT_EQ(modify(db, kB, large), 1);
  EXPECT_EQ(host.count(Call::time), 2);
}

TEST_F(RecordModify, StoresTheClockModulo2To32) {
  threeRecords();
  const int16_t db = start();
  host.setTime(0x3'0000'0007);
  ASSERT_EQ(modify(db, kB, bytesOf("x")), 1);
  EXPECT_EQ(info(db, kNotes, kB).modifyTime, 7u);
  host.setTime(0x3'0000'0008);
  ASSERT_EQ(modify(db, kB, large), 1);
  EXPECT_EQ(info(db, kNotes, kB).modifyTime, 8u);
}

// ---- arguments ----------------------------------------------------------------------------------

TEST_F(RecordModify, RefusesASizeOf0AndANullPayload) {
  threeRecords();
  const int16_t db = start();
  expectPositionKept(db, [&] {
    EXPECT_EQ(ModifyRecordData(db, kNotes, bytesOf("x").data(), 0, kB, nullptr), 0);
    EXPECT_EQ(ModifyRecordData(db, kNotes, nullptr, 5, kB, nullptr), 0);
    EXPECT_EQ(ModifyRecordData(db, kNotes, nullptr, 0, kB, nullptr), 0);
  });
  EXPECT_EQ(host.count(Call::read), 0);
  expectFile();
}

TEST_F(RecordModify, FailsForARecordOrATableThatIsNotThere) {
  threeRecords();
  const int16_t db = start();
  expectPositionKept(db, [&] {
    for (const Bytes& payload : {bytesOf("x"), large}) {
      EXPECT_EQ(modify(db, kNoRecord, payload), 0);
      EXPECT_EQ(modify(db, kB, payload, kNoTable), 0);
      EXPECT_EQ(modify(db, kB, payload, kOther), 0);
      EXPECT_EQ(modify(0, kB, payload), 0);
      EXPECT_EQ(modify(31000, kB, payload), 0);
    }
  });
  expectFile();
}

TEST_F(RecordModify, FailsOnAVersionOutsideTheRange) {
  threeRecords();
  image.header().version = 200;
  expectDamage(kDefaultFile, {"H2"});
  const int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(modify(db, kB, bytesOf("x")), 0); });
  expectFile();
}

TEST_F(RecordModify, FailsOnAHandleOpenedForReading) {
  threeRecords();
  const int16_t db = start(1);
  expectPositionKept(db, [&] {
    EXPECT_EQ(modify(db, kB, bytesOf("x")), 0);
    EXPECT_EQ(modify(db, kB, large), 0);
  });
  expectFile();
}

TEST_F(RecordModify, LeavesTheUnusedArgumentAlone) {
  threeRecords();
  const int16_t db = start();
  int unused = 5;
  EXPECT_EQ(ModifyRecordData(db, kNotes, bytesOf("x").data(), 1, kB, &unused), 1);
  EXPECT_EQ(unused, 5);
}

TEST_F(RecordModify, ChangesTheEarlierOfTwoRecordsWithOneIdentifier) {
  const int64_t first = image.addRecord(notes, kA, bytesOf("one"));
  image.addRecord(notes, kA, bytesOf("two"));
  const int16_t db = start();
  ASSERT_EQ(modify(db, kA, bytesOf("111")), 1);
  overwrite(first, bytesOf("111"));
  expectFile();
}

// ---- damaged neighbours -------------------------------------------------------------------------

TEST_F(RecordModify, LeavesTheNewBlockUnlinkedWhenThePredecessorIsNotSound) {
  threeRecords();
  RecordFields dead = image.record(a);
  dead.nextRecordPos = b;
  dead.blockMark = 134;
  const int64_t wrongMark = image.addDeadRecord(dead);
  dead.blockMark = 135;
  dead.headerSize = 0x4000;
  const int64_t wrongSize = image.addDeadRecord(dead);
  dead.headerSize = 64;
  dead.tableID = identifier(kOther);
  const int64_t ofAnotherTable = image.addDeadRecord(dead);
  std::vector<int64_t> positions = {wrongMark, wrongSize, ofAnotherTable,
                                    c};  // C does not lead to B
  positions.insert(positions.end(), std::begin(kHostilePositions), std::end(kHostilePositions));
  expectDamage();
  for (const int64_t prevRecordPos : positions) {
    SCOPED_TRACE(prevRecordPos);
    image.record(b).prevRecordPos = prevRecordPos;
    const int16_t db = start();
    seek(db, 77);
    EXPECT_EQ(modify(db, kB, large), 0);
    EXPECT_EQ(position(db), 77);
    expectOnlyAppended(relocated(b, large).encode());
    close(db);
  }
}

TEST_F(RecordModify, LeavesThePredecessorLinkedToTheNewBlockWhenTheSuccessorIsNotSound) {
  threeRecords();
  expectDamage();
  const RecordFields sound = image.record(c);
  const auto expectHalfLinked = [&](const char* damage) {
    SCOPED_TRACE(damage);
    const int16_t db = start();
    seek(db, 77);
    EXPECT_EQ(modify(db, kB, large), 0);
    EXPECT_EQ(position(db), 77);
    Bytes expected = base;
    expected.putBe(static_cast<size_t>(a) + 39, 8, base.size());
    EXPECT_TRUE(sameBytes(contents(), expected.add(relocated(b, large).encode())));
    close(db);
    image.record(c) = sound;
    image.record(b).nextRecordPos = c;
  };
  image.record(c).blockMark = 0;
  expectHalfLinked("mark");
  image.record(c).headerSize = 0;
  expectHalfLinked("header size");
  image.record(c).tableID = identifier(kOther);
  expectHalfLinked("another table's");
  image.record(c).prevRecordPos = a;
  expectHalfLinked("does not point back");
  for (const int64_t hostile : kHostilePositions) {
    image.record(b).nextRecordPos = hostile;
    expectHalfLinked(std::to_string(hostile).c_str());
  }
}

TEST_F(RecordModify, LeavesTheSlotPointingToTheNewBlockWhenTheSuccessorIsNotSound) {
  threeRecords();
  image.record(b).prevRecordPos = 12345;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(modify(db, kA, large), 0);
  image.slot(notes).firstRecordPos = image.addDeadRecord(relocated(a, large));
  expectFile();
}

TEST_F(RecordModify, WritesOverARecordWithoutLookingAtItsNeighbours) {
  threeRecords();
  image.record(b).prevRecordPos = -1;
  image.record(b).nextRecordPos = -1;
  expectDamage();
  const int16_t db = start();
  ASSERT_EQ(modify(db, kB, bytesOf("fits")), 1);
  overwrite(b, bytesOf("fits"));
  expectFile();
}

TEST_F(RecordModify, EndsInALoopUnderTheLargestCount) {
  threeRecords();
  image.record(c).nextRecordPos = a;
  image.slot(notes).recordCount = 0xFFFFFFFF;
  expectDamage();
  const int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(modify(db, kNoRecord, bytesOf("x")), 0); });
  expectFile();
}

// ---- the block writer from inside ---------------------------------------------------------------

class RecordModifyInside : public RecordModify {
 protected:
  void SetUp() override {
    const Bytes tableID = identifier(kNotes);
    std::copy(tableID.begin(), tableID.end(), slotInMemory.tableID);
    std::memset(&header, 0, sizeof header);
    std::memset(header.tableID, 0xEE, sizeof header.tableID);
    header.createTime = 1;
    header.modifyTime = 2;
    header.prevRecordPos = 3;
    header.nextRecordPos = 4;
    header.dataLength = 5;
    header.dataCapacity = 600;
    allowDamage();
  }

  tablePart1 slotInMemory{};
  recordPart1 header;
};

TEST_F(RecordModifyInside, WritesACompleteBlockFromTheHeader) {
  const int16_t db = start();
  int64_t newRecordPos = 0;
  ASSERT_EQ(internal_WriteOneRecordDataInEOF_Modify(db, &slotInMemory, &header,
                                                    bytesOf("abc").data(), 3, &newRecordPos),
            1);
  EXPECT_EQ(newRecordPos, 4630);
  EXPECT_EQ(contents().from(4630), hex("87 0040 1122334455667788 0264 00000000000000000000"
                                       "00000001 00000002 0000000000000003 0000000000000004"
                                       "00000003 00000003 616263 69"));
  EXPECT_EQ(header.blockMark, 135);
  EXPECT_EQ(header.headerSize, 64);
  EXPECT_EQ(header.dataLength, 3u);
  EXPECT_EQ(header.dataCapacity, 3u);
  EXPECT_EQ(header.endMarkValue, 'x');
}

TEST_F(RecordModifyInside, NeedsNoPlaceForThePosition) {
  const int16_t db = start();
  EXPECT_EQ(internal_WriteOneRecordDataInEOF_Modify(db, &slotInMemory, &header,
                                                    bytesOf("abc").data(), 3, nullptr),
            1);
}

TEST_F(RecordModifyInside, ReportsThePositionBeforeItWrites) {
  const int16_t db = start();
  host.failFrom(Call::write);
  int64_t newRecordPos = 0;
  EXPECT_EQ(internal_WriteOneRecordDataInEOF_Modify(db, &slotInMemory, &header,
                                                    bytesOf("abc").data(), 3, &newRecordPos),
            0);
  host.heal();
  EXPECT_EQ(newRecordPos, 4630);
  expectFile();
}

TEST_F(RecordModifyInside, FailsWhenTheEndOfTheFileCannotBeFound) {
  const int16_t db = start();
  host.failFrom(Call::length);
  int64_t newRecordPos = -7;
  EXPECT_EQ(internal_WriteOneRecordDataInEOF_Modify(db, &slotInMemory, &header,
                                                    bytesOf("abc").data(), 3, &newRecordPos),
            0);
  host.heal();
  EXPECT_EQ(newRecordPos, -7);
  expectFile();
}

// ---- order and failures -------------------------------------------------------------------------

TEST_F(RecordModify, WritesTimeLengthAndPayloadInThatOrder) {
  threeRecords();
  const auto log = ranges(writesOf([](int16_t db) { return modify(db, kB, bytesOf("fits")); }));
  const std::vector<Write> apart = {{b + 27, hex("5F5E1000"), kDefaultFile},
                                    {b + 47, hex("00000004"), kDefaultFile},
                                    {b + 55, bytesOf("fits"), kDefaultFile}};
  // Links and capacity lie between; gathered, they go out again as they were.
  const Bytes block = image.build().from(static_cast<size_t>(b));
  const Bytes whole =
      Bytes(hex("5F5E1000")).add(block.at(31, 16)).be(4, 4).add(block.at(51, 4)).text("fits");
  const std::vector<Write> together = {{b + 27, whole, kDefaultFile}};
  EXPECT_EQ(log, platform::gathersTransfers() ? together : apart);

  // A file that others may write to gets the three fields alone.
  const int16_t db = start(4);
  host.forget();
  EXPECT_EQ(modify(db, kB, bytesOf("fits")), 1);
  EXPECT_EQ(ranges(host.writes()), apart);
}

// Another process that has the file open with permission 4 appends a record while this one is
// modified: its link and its count are there afterwards.
TEST_F(RecordModify, KeepsALinkThatAnotherProcessWritesInTheMiddleOfIt) {
  threeRecords();
  const int16_t db = start(4);
  const int64_t d = image.addRecord(notes, 0xD4, bytesOf("theirs"));
  const FileImage theirs = image;
  bool isDone = false;
  host.observe([&](Call call) {
    if (call != Call::write || isDone) return;
    isDone = true;
    writeFile(path(), FileImage(theirs).build());
  });
  EXPECT_EQ(modify(db, kC, bytesOf("mine")), 1);
  host.observe(nullptr);
  EXPECT_TRUE(isDone);
  RecordFields& own = image.record(c);
  EXPECT_EQ(own.nextRecordPos, d);
  own.modifyTime = static_cast<uint32_t>(kNow);
  own.dataLength = 4;
  own.room = bytesOf("mine").add(own.room.from(4));
  expectFile();
}

TEST_F(RecordModify, WritesTheNewBlockThenTheLinkInThePredecessorThenTheOneInTheSuccessor) {
  threeRecords();
  const int64_t end = image.end();
  const Bytes link = Bytes().be(8, static_cast<uint64_t>(end));
  const auto log = ranges(writesOf([this](int16_t db) { return modify(db, kB, large); }));
  const std::vector<Write> expected = {{end, relocated(b, large).encode(), kDefaultFile},
                                       {a + 39, link, kDefaultFile},
                                       {c + 31, link, kDefaultFile}};
  EXPECT_EQ(log, expected);
}

TEST_F(RecordModify, WritesTheSlotInThePlaceOfAMissingNeighbour) {
  threeRecords();
  const int64_t end = image.end();
  const Bytes link = Bytes().be(8, static_cast<uint64_t>(end));
  const auto slotPos = static_cast<int64_t>(slotOffset(notes));
  const FileImage before = image;

  image.slot(notes).firstRecordPos = end;
  const Bytes firstMoved = image.slot(notes).encode();
  image = before;
  auto log = ranges(writesOf([this](int16_t db) { return modify(db, kA, large); }));
  EXPECT_EQ(log, (std::vector<Write>{{end, relocated(a, large).encode(), kDefaultFile},
                                     {slotPos, firstMoved, kDefaultFile},
                                     {b + 31, link, kDefaultFile}}));

  image.slot(notes).lastRecordPos = end;
  const Bytes lastMoved = image.slot(notes).encode();
  image = before;
  log = ranges(writesOf([this](int16_t db) { return modify(db, kC, large); }));
  EXPECT_EQ(log, (std::vector<Write>{{end, relocated(c, large).encode(), kDefaultFile},
                                     {b + 39, link, kDefaultFile},
                                     {slotPos, lastMoved, kDefaultFile}}));
}

TEST_F(RecordModify, StopsWritingOverAtTheFirstFailure) {
  threeRecords();
  expectStopsAtEachFailure([](int16_t db) { return modify(db, kB, bytesOf("it fits in")); });
}

TEST_F(RecordModify, StopsMovingAMiddleRecordAtTheFirstFailure) {
  threeRecords();
  expectStopsAtEachFailure([this](int16_t db) { return modify(db, kB, large); });
}

TEST_F(RecordModify, StopsMovingTheFirstRecordAtTheFirstFailure) {
  threeRecords();
  expectStopsAtEachFailure([this](int16_t db) { return modify(db, kA, large); });
}

TEST_F(RecordModify, StopsMovingTheLastRecordAtTheFirstFailure) {
  threeRecords();
  expectStopsAtEachFailure([this](int16_t db) { return modify(db, kC, large); });
}

TEST_F(RecordModify, StopsMovingTheOnlyRecordAtTheFirstFailure) {
  image.addRecord(notes, kA, bytesOf("old"));
  expectStopsAtEachFailure([this](int16_t db) { return modify(db, kA, large); });
}

TEST_F(RecordModify, WritesNothingWhenTheEndOfTheFileCannotBeFound) {
  threeRecords();
  const int16_t db = start();
  seek(db, 77);
  host.failFrom(Call::length);
  EXPECT_EQ(modify(db, kB, large), 0);
  host.heal();
  EXPECT_EQ(position(db), 77);
  expectFile();
}

TEST_F(RecordModify, WritesEachFieldOnItsOwn) {
  if (platform::gathersTransfers()) GTEST_SKIP();
  threeRecords();
  EXPECT_EQ(expectStopsAtEachWrite([](int16_t db) { return modify(db, kB, bytesOf("x")); }), 3);
  // Mark, header size, two identifiers, two times, two links, two lengths, payload, end mark; the
  // links in the neighbours.
  EXPECT_EQ(expectStopsAtEachWrite([this](int16_t db) { return modify(db, kB, large); }), 14);
}

TEST_F(RecordModify, WritesTheSlotTwiceForTheOnlyRecord) {
  if (platform::gathersTransfers()) GTEST_SKIP();
  image.addRecord(notes, kA, bytesOf("old"));
  const int64_t end = image.end();
  const auto slotPos = static_cast<int64_t>(slotOffset(notes));
  const FileImage before = image;
  image.slot(notes).firstRecordPos = end;
  const Bytes once = image.slot(notes).encode();
  image.slot(notes).lastRecordPos = end;
  const Bytes twice = image.slot(notes).encode();
  image = before;
  const auto log = ranges(writesOf([this](int16_t db) { return modify(db, kA, large); }));
  EXPECT_EQ(log, (std::vector<Write>{{end, relocated(4630, large).encode(), kDefaultFile},
                                     {slotPos, once, kDefaultFile},
                                     {slotPos, twice, kDefaultFile}}));
}

}  // namespace
}  // namespace qvdbase::test
