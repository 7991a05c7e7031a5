// Finding, listing and counting records, and touching their time of last modification.
#include "QVDbase/record_find.h"
#include "kit/layers.h"

#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <cstring>

#include "kit/record_fixture.h"

namespace qvdbase::test {
namespace {

constexpr uint32_t kMost = 0xFFFFFFFF;

class RecordFind : public RecordTest {
 protected:
  static int find(int16_t db, uint64_t record, oneRecordInfoP1* info = nullptr) {
    oneRecordInfoP1 unused{};
    return GetOneRecordInfo(db, kNotes, record, info != nullptr ? info : &unused, nullptr);
  }

  // Makes the chain of "notes" a loop: `tail` records, then `round` records that go round for ever.
  // The identifiers are 1, 2, ... in the order of the chain.
  void loop(int tail, int round, uint32_t recordCount) {
    std::vector<int64_t> positions;
    for (int i = 1; i <= tail + round; ++i) {
      positions.push_back(image.addRecord(notes, static_cast<uint64_t>(i), {}));
    }
    image.record(positions.back()).nextRecordPos = positions[static_cast<size_t>(tail)];
    image.slot(notes).recordCount = recordCount;
    expectDamage();
  }
};

// ---- a record's information ---------------------------------------------------------------------

TEST_F(RecordFind, ReportsEveryFieldOfARecord) {
  threeRecords();
  const int16_t db = start();
  oneRecordInfoP1 info;
  std::memset(&info, 0xEE, sizeof info);
  ASSERT_EQ(find(db, kB, &info), 1);
  EXPECT_EQ(info.tableID, kNotes);
  EXPECT_EQ(info.recordID, kB);
  EXPECT_EQ(info.createTime, 21u);
  EXPECT_EQ(info.modifyTime, 22u);
  EXPECT_EQ(info.dataLength, 6u);
  EXPECT_EQ(info.dataCapacity, 20u);
  EXPECT_EQ(info.recordPos, b);
  EXPECT_EQ(info.dataPos, b + 55);
}

TEST_F(RecordFind, LaysTheInformationOutIn48Bytes) {
  threeRecords();
  const int16_t db = start();
  oneRecordInfoP1 info{};
  ASSERT_EQ(find(db, kB, &info), 1);
  static_assert(sizeof info == 48);
  unsigned char bytes[48];
  std::memcpy(bytes, &info, sizeof bytes);
  uint32_t length = 0;
  int64_t dataPos = 0;
  std::memcpy(&length, bytes + 24, sizeof length);
  std::memcpy(&dataPos, bytes + 40, sizeof dataPos);
  EXPECT_EQ(length, 6u);
  EXPECT_EQ(dataPos, b + 55);
}

TEST_F(RecordFind, ReportsLengthAndCapacityOfAStoredRecord) {
  const int16_t db = start();
  const uint64_t id = addRecord(db, kNotes, pattern(10), 50);
  const oneRecordInfoP1 reported = info(db, kNotes, id);
  EXPECT_EQ(reported.dataLength, 10u);
  EXPECT_EQ(reported.dataCapacity, 50u);
  EXPECT_EQ(reported.recordPos, 4630);
  EXPECT_EQ(reported.dataPos, 4685);
  EXPECT_EQ(reported.createTime, static_cast<uint32_t>(kNow));
}

TEST_F(RecordFind, FindsTheFirstTheMiddleAndTheLastRecord) {
  threeRecords();
  const int16_t db = start();
  EXPECT_EQ(info(db, kNotes, kA).recordPos, a);
  EXPECT_EQ(info(db, kNotes, kB).recordPos, b);
  EXPECT_EQ(info(db, kNotes, kC).recordPos, c);
}

TEST_F(RecordFind, FindsTheEarlierOfTwoRecordsWithOneIdentifier) {
  const int64_t first = image.addRecord(notes, kA, bytesOf("one"));
  const int64_t second = image.addRecord(notes, kB, bytesOf("two"));
  image.addRecord(notes, kB, bytesOf("three"));
  const int16_t db = start();
  EXPECT_EQ(info(db, kNotes, kA).recordPos, first);
  EXPECT_EQ(info(db, kNotes, kB).recordPos, second);
}

TEST_F(RecordFind, ComparesTheEightIdentityBytesAndNotTheirSum) {
  threeRecords();
  image.record(b).recordID = hex("00000000000000B2 FFFF");
  expectDamage(kDefaultFile, {"R4"});
  const int16_t db = start();
  EXPECT_EQ(info(db, kNotes, kB).recordPos, b);
}

TEST_F(RecordFind, LooksInTheOneTableOnly) {
  threeRecords();
  image.addRecord(other, kNoRecord, bytesOf("elsewhere"));
  const int16_t db = start();
  EXPECT_EQ(find(db, kNoRecord), 0);
  EXPECT_EQ(info(db, kOther, kNoRecord).tableID, kOther);
}

TEST_F(RecordFind, ReportsLengthsThatNoFileHolds) {
  threeRecords();
  image.record(b).dataLength = kMost;
  image.record(b).dataCapacity = kMost - 1;
  expectDamage();
  const int16_t db = start();
  const oneRecordInfoP1 reported = info(db, kNotes, kB);
  EXPECT_EQ(reported.dataLength, kMost);
  EXPECT_EQ(reported.dataCapacity, kMost - 1);
  EXPECT_EQ(info(db, kNotes, kC).recordPos, c);
}

TEST_F(RecordFind, RefusesANullInformation) {
  threeRecords();
  const int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(GetOneRecordInfo(db, kNotes, kA, nullptr, nullptr), 0); });
  EXPECT_EQ(host.count(Call::read), 0);
}

TEST_F(RecordFind, LeavesTheUnusedArgumentAlone) {
  threeRecords();
  const int16_t db = start();
  oneRecordInfoP1 reported{};
  int unused = 5;
  EXPECT_EQ(GetOneRecordInfo(db, kNotes, kA, &reported, &unused), 1);
  EXPECT_EQ(unused, 5);
}

TEST_F(RecordFind, FailsInATableWithoutRecords) {
  const int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(find(db, kA), 0); });
}

TEST_F(RecordFind, FailsForARecordOrATableThatIsNotThere) {
  threeRecords();
  const int16_t db = start();
  oneRecordInfoP1 reported{};
  expectPositionKept(db, [&] {
    EXPECT_EQ(find(db, kNoRecord), 0);
    EXPECT_EQ(GetOneRecordInfo(db, kNoTable, kA, &reported, nullptr), 0);
    EXPECT_EQ(GetOneRecordInfo(db, kOther, kA, &reported, nullptr), 0);
  });
  EXPECT_EQ(find(0, kA), 0);
  EXPECT_EQ(find(31000, kA), 0);
}

TEST_F(RecordFind, RestoresThePositionWhenARecordIsFound) {
  threeRecords();
  const int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(find(db, kC), 1); });
}

TEST_F(RecordFind, ReadsWithoutWriting) {
  threeRecords();
  const int16_t db = start(1);
  uint32_t count = 0;
  uint64_t ids[3];
  EXPECT_EQ(find(db, kC), 1);
  EXPECT_EQ(GetRecordUuIDList(db, kNotes, ids, &count), 1);
  EXPECT_EQ(GetNumberOfRecords(db, kNotes, &count), 1);
  EXPECT_TRUE(host.writes().empty());
  expectFile();
}

// ---- damaged chains -----------------------------------------------------------------------------

TEST_F(RecordFind, StopsAtADamagedRecordAndFindsTheOnesBefore) {
  threeRecords();
  expectDamage();
  const RecordFields sound = image.record(b);
  const auto expectStop = [&](const char* damage) {
    SCOPED_TRACE(damage);
    const int16_t db = start();
    EXPECT_EQ(find(db, kA), 1);
    expectPositionKept(db, [&] {
      EXPECT_EQ(find(db, kB), 0);
      EXPECT_EQ(find(db, kC), 0);
    });
    close(db);
    image.record(b) = sound;
  };
  image.record(b).blockMark = 136;
  expectStop("mark");
  image.record(b).headerSize = 64 << 8;
  expectStop("header size");
  image.record(b).tableID = identifier(kOther);
  expectStop("another table's");
  image.record(b).tableID = hex("1122334455667788 0364");
  expectStop("sum of the table's identifier");
}

TEST_F(RecordFind, ExpectsTheTableBytesOfTheSlotWhateverTheirSum) {
  image.slot(notes).tableID = hex("1122334455667788 0001");
  image.addRecord(notes, kA, {});
  expectDamage(kDefaultFile, {"D3"});
  const int16_t db = start();
  EXPECT_EQ(find(db, kA), 1);
  EXPECT_EQ(numberOfRecords(db, kNotes), 1u);
}

TEST_F(RecordFind, FailsWhereTheChainEndsBeforeItsCount) {
  image.addRecord(notes, kA, bytesOf("one"));
  image.addRecord(notes, kB, bytesOf("two"));
  image.slot(notes).recordCount = 3;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(find(db, kA), 1);
  // The second record has no successor while one more is expected: not even it is found.
  EXPECT_EQ(find(db, kB), 0);
  EXPECT_EQ(find(db, kNoRecord), 0);
}

TEST_F(RecordFind, LooksAtNoMoreRecordsThanTheSlotCounts) {
  threeRecords();
  image.slot(notes).recordCount = 2;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(find(db, kA), 1);
  EXPECT_EQ(find(db, kB), 1);
  EXPECT_EQ(find(db, kC), 0);
}

TEST_F(RecordFind, FindsNothingUnderACountOf0) {
  threeRecords();
  image.slot(notes).recordCount = 0;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(find(db, kA), 0);
}

TEST_F(RecordFind, FindsTheLastCountedRecordWhateverItsSuccessor) {
  threeRecords();
  image.record(c).nextRecordPos = -3;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(find(db, kC), 1);
  expectPositionKept(db, [&] { EXPECT_EQ(find(db, kNoRecord), 0); });
}

TEST_F(RecordFind, FailsAtPositionsWhereNoBlockCanLie) {
  threeRecords();
  expectDamage();
  for (const int64_t hostile : kHostilePositions) {
    SCOPED_TRACE(hostile);
    image.slot(notes).firstRecordPos = hostile;
    int16_t db = start();
    expectPositionKept(db, [&] { EXPECT_EQ(find(db, kA), 0); });
    close(db);

    image.slot(notes).firstRecordPos = a;
    image.record(a).nextRecordPos = hostile;
    db = start();
    EXPECT_EQ(find(db, kA), 1);
    expectPositionKept(db, [&] { EXPECT_EQ(find(db, kB), 0); });
    close(db);
    image.record(a).nextRecordPos = b;
  }
}

TEST_F(RecordFind, FailsWhenTheFileEndsInsideAHeader) {
  threeRecords();
  allowDamage();
  const Bytes whole = image.build();
  for (size_t kept = 0; kept < 55; ++kept) {
    const int16_t db = put(whole.cut(static_cast<size_t>(c) + kept));
    EXPECT_EQ(find(db, kC), 0) << kept;
    EXPECT_EQ(find(db, kB), 1) << kept;
    close(db);
  }
  const int16_t db = put(whole.cut(static_cast<size_t>(c) + 55));
  EXPECT_EQ(find(db, kC), 1);
}

TEST_F(RecordFind, EndsInALoopUnderTheLargestCount) {
  const int shapes[][2] = {{0, 1}, {0, 2}, {1, 1}, {3, 5}, {7, 1}, {2, 8}};
  for (const auto& [tail, round] : shapes) {
    SCOPED_TRACE(std::to_string(tail) + " and " + std::to_string(round));
    image = FileImage();
    image.addTable("notes", kNotes);
    loop(tail, round, kMost);
    const int16_t db = start();
    for (int i = 1; i <= tail + round; ++i) {
      EXPECT_EQ(find(db, static_cast<uint64_t>(i)), 1);
    }
    expectPositionKept(db, [&] { EXPECT_EQ(find(db, kNoRecord), 0); });
    close(db);
  }
}

TEST_F(RecordFind, FindsRecordsOfALoopUnderASmallCount) {
  loop(1, 2, 3);
  const int16_t db = start();
  EXPECT_EQ(find(db, 3), 1);
  EXPECT_EQ(find(db, 4), 0);
}

TEST_F(RecordFind, FailsWhenTheDirectoryCannotBeRead) {
  threeRecords();
  allowDamage();
  const Bytes whole = image.build();
  for (const size_t kept : {0u, 5u, 21u, 22u, 22u + 143u}) {
    const int16_t db = put(whole.cut(kept));
    expectPositionKept(db, [&] {
      EXPECT_EQ(find(db, kA), 0);
      uint32_t count = 5;
      EXPECT_EQ(GetNumberOfRecords(db, kNotes, &count), 0);
      EXPECT_EQ(count, 0u);
    });
    close(db);
  }
}

TEST_F(RecordFind, FailsAtEachFailingRead) {
  threeRecords();
  expectStopsAtEachRead([](int16_t db) { return find(db, kC); });
  expectGoesOnAfterEachShortTransfer([](int16_t db) { return find(db, kC); });
}

// ---- the header reader and the walk, from inside ------------------------------------------------

TEST_F(RecordFind, ReadsAHeaderFieldByField) {
  threeRecords();
  const int16_t db = start();
  recordPart1 header;
  std::memset(&header, 0xEE, sizeof header);
  seek(db, b);
  ASSERT_EQ(internal_GetOneRecordDataInfo(db, identifier(kNotes).data(), &header), 1);
  EXPECT_EQ(position(db), b + 55);
  EXPECT_EQ(header.blockMark, 135);
  EXPECT_EQ(header.headerSize, 64);
  EXPECT_EQ(Bytes(header.tableID, header.tableID + 10), identifier(kNotes));
  EXPECT_EQ(Bytes(header.recordID, header.recordID + 10), identifier(kB));
  EXPECT_EQ(header.createTime, 21u);
  EXPECT_EQ(header.modifyTime, 22u);
  EXPECT_EQ(header.prevRecordPos, a);
  EXPECT_EQ(header.nextRecordPos, c);
  EXPECT_EQ(header.dataLength, 6u);
  EXPECT_EQ(header.dataCapacity, 20u);
  EXPECT_EQ(header.endMarkValue, 'x');
}

TEST_F(RecordFind, ReadsNeitherPayloadNorEndMarkWithAHeader) {
  threeRecords();
  image.record(c).blockEndMark = 0;
  expectDamage(kDefaultFile, {"R13"});
  const int16_t db = start();
  EXPECT_EQ(find(db, kC), 1);
}

TEST_F(RecordFind, RejectsAHeaderThatDiffersInAnyByteOfItsTable) {
  threeRecords();
  const int16_t db = start();
  recordPart1 header;
  for (size_t i = 0; i < 10; ++i) {
    Bytes wanted = identifier(kNotes);
    wanted[i] ^= 0x80;
    seek(db, b);
    EXPECT_EQ(internal_GetOneRecordDataInfo(db, wanted.data(), &header), 0) << i;
  }
  seek(db, b);
  EXPECT_EQ(internal_GetOneRecordDataInfo(db, identifier(kNotes).data(), nullptr), 0);
}

TEST_F(RecordFind, ReturnsHeaderAndPositionOfTheRecordFound) {
  threeRecords();
  const int16_t db = start();
  tablePart1 owner{};
  owner.recordCount = 3;
  owner.firstRecordPos = a;
  const Bytes id = identifier(kNotes);
  std::copy(id.begin(), id.end(), owner.tableID);
  recordPart1 header{};
  int64_t recordPos = 0;
  ASSERT_EQ(internal_FindOneRecord(db, &owner, kC, &header, &recordPos, nullptr), 1);
  EXPECT_EQ(recordPos, c);
  EXPECT_EQ(header.createTime, 31u);
  EXPECT_EQ(header.prevRecordPos, b);
}

// ---- the time of last modification --------------------------------------------------------------

class RecordTouch : public RecordTest {
 protected:
  static int touch(int16_t db, uint64_t record = kB, uint64_t table = kNotes) {
    return ModifyOneRecordInfo_LMTime(db, table, record);
  }
};

TEST_F(RecordTouch, ChangesTheFourBytesOfTheTimeOnly) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(touch(db), 1);
  EXPECT_TRUE(sameBytes(contents(), base.with(static_cast<size_t>(b) + 27, hex("5F5E1000"))));
}

TEST_F(RecordTouch, StoresTheClockModulo2To32) {
  threeRecords();
  const int16_t db = start();
  host.setTime(0x7'0000'0009);
  ASSERT_EQ(touch(db), 1);
  EXPECT_EQ(record(b).modifyTime, 9u);
  host.setTime(-1);
  ASSERT_EQ(touch(db), 1);
  EXPECT_EQ(record(b).modifyTime, kMost);
}

TEST_F(RecordTouch, RestoresThePosition) {
  threeRecords();
  const int16_t db = start();
  expectPositionKept(db, [&] {
    EXPECT_EQ(touch(db), 1);
    EXPECT_EQ(touch(db, kNoRecord), 0);
    EXPECT_EQ(touch(db, kB, kNoTable), 0);
  });
}

TEST_F(RecordTouch, ChangesNothingForWhatIsNotThere) {
  threeRecords();
  const int16_t db = start();
  EXPECT_EQ(touch(db, kNoRecord), 0);
  EXPECT_EQ(touch(db, kB, kNoTable), 0);
  EXPECT_EQ(touch(db, kB, kOther), 0);
  EXPECT_EQ(touch(0), 0);
  EXPECT_EQ(touch(31000), 0);
  expectFile();
}

TEST_F(RecordTouch, LeavesThePositionWhereItIsWhenHeaderOrDirectoryCannotBeRead) {
  struct Case {
    const char* what;
    size_t offset;
    Bytes patch;
    int64_t position;  // where the reading ends
  };
  const Case cases[] = {{"signature", 0, bytesOf("XV"), 4}, {"version", 4, hex("0063"), 16}};
  threeRecords();
  allowDamage();
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    const int16_t db = put(image.build().with(each.offset, each.patch));
    seek(db, 77);
    EXPECT_EQ(touch(db), 0);
    EXPECT_EQ(position(db), each.position);
    close(db);
  }
  const int16_t db = put(image.build().cut(19));
  seek(db, 77);
  EXPECT_EQ(touch(db), 0);
  EXPECT_EQ(position(db), 19);
}

TEST_F(RecordTouch, RestoresThePositionWhenASlotIsDamaged) {
  threeRecords();
  image.slot(notes).slotMark = 0;
  expectDamage();
  const int16_t db = start();
  expectPositionKept(db, [&] { EXPECT_EQ(touch(db), 0); });
  expectFile();
}

TEST_F(RecordTouch, ChangesNothingOnAHandleOpenedForReading) {
  threeRecords();
  const int16_t db = start(1);
  expectPositionKept(db, [&] { EXPECT_EQ(touch(db), 0); });
  expectFile();
}

TEST_F(RecordTouch, TouchesTheEarlierOfTwoRecordsWithOneIdentifier) {
  const int64_t first = image.addRecord(notes, kA, {});
  const int64_t second = image.addRecord(notes, kA, {});
  const int16_t db = start();
  ASSERT_EQ(touch(db, kA), 1);
  EXPECT_EQ(record(first).modifyTime, static_cast<uint32_t>(kNow));
  EXPECT_EQ(record(second).modifyTime, 1000u);
}

TEST_F(RecordTouch, EndsInALoopUnderTheLargestCount) {
  threeRecords();
  image.record(c).nextRecordPos = a;
  image.slot(notes).recordCount = kMost;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(touch(db, kNoRecord), 0);
  expectFile();
  EXPECT_EQ(touch(db, kC), 1);
}

TEST_F(RecordTouch, ChecksTheBlockBeforeItWrites) {
  threeRecords();
  expectDamage();
  const RecordFields sound = image.record(b);
  const auto expectRefused = [&](const char* damage) {
    SCOPED_TRACE(damage);
    const int16_t db = start();
    EXPECT_EQ(internal_ModifyOneRecordDataInfo_LMTime(db, identifier(kNotes).data(), b), 0);
    expectFile();
    close(db);
    image.record(b) = sound;
  };
  image.record(b).blockMark = 134;
  expectRefused("mark");
  image.record(b).headerSize = 63;
  expectRefused("header size");
  image.record(b).tableID = identifier(kOther);
  expectRefused("another table's");
}

TEST_F(RecordTouch, WritesNothingAtPositionsWhereNoBlockCanLie) {
  threeRecords();
  const int16_t db = start();
  for (const int64_t hostile : kHostilePositions) {
    EXPECT_EQ(internal_ModifyOneRecordDataInfo_LMTime(db, identifier(kNotes).data(), hostile), 0);
  }
  expectFile();
}

TEST_F(RecordTouch, NeedsTheFileToReachUpToTheTime) {
  threeRecords();
  allowDamage();
  const auto touchCutAt = [&](size_t kept) {
    const int16_t db = put(image.build().cut(static_cast<size_t>(c) + kept));
    const int result = internal_ModifyOneRecordDataInfo_LMTime(db, identifier(kNotes).data(), c);
    close(db);
    return result;
  };
  for (size_t kept = 0; kept < 27; ++kept) {
    EXPECT_EQ(touchCutAt(kept), 0) << kept;
    EXPECT_EQ(fileSize(), static_cast<size_t>(c) + kept);
  }
  EXPECT_EQ(touchCutAt(27), 1);
  EXPECT_EQ(contents().from(static_cast<size_t>(c) + 27), hex("5F5E1000"));
}

TEST_F(RecordTouch, StopsAtEachFailingWrite) {
  threeRecords();
  const Operation operation = [](int16_t db) { return touch(db); };
  expectStopsAtEachByte(operation);
  expectStopsAtEachWrite(operation);
  expectGoesOnAfterEachShortTransfer(operation);
}

TEST_F(RecordTouch, ReadsTheClockOnce) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(touch(db), 1);
  EXPECT_EQ(host.count(Call::time), 1);
}

// ---- the list -----------------------------------------------------------------------------------

class RecordList : public RecordFind {
 protected:
  struct Listing {
    int result = -1;
    uint32_t count = 7;
    std::vector<uint64_t> ids;  // as many as counted
  };
  static constexpr uint64_t kUnwritten = 0xEEEEEEEEEEEEEEEE;

  Listing listOf(int16_t db, size_t room = 10, uint64_t table = kNotes) {
    Listing listing;
    buffer.assign(room, kUnwritten);
    seek(db, 77);
    listing.result = GetRecordUuIDList(db, table, buffer.data(), &listing.count);
    EXPECT_EQ(position(db), 77);
    listing.ids.assign(buffer.data(), buffer.data() + listing.count);
    return listing;
  }

  std::vector<uint64_t> buffer;
};

using Ids = std::vector<uint64_t>;

TEST_F(RecordList, ListsInTheOrderOfTheChain) {
  threeRecords();
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 1);
  EXPECT_EQ(listing.ids, (Ids{kA, kB, kC}));
  EXPECT_EQ(buffer[3], kUnwritten);
}

TEST_F(RecordList, FollowsTheLinksAndNotTheOrderInTheFile) {
  threeRecords();
  image.record(a).nextRecordPos = c;
  image.record(c).prevRecordPos = a;
  image.record(c).nextRecordPos = b;
  image.record(b).prevRecordPos = c;
  image.record(b).nextRecordPos = 0;
  image.slot(notes).lastRecordPos = b;
  const int16_t db = start();
  EXPECT_EQ(listOf(db).ids, (Ids{kA, kC, kB}));
}

TEST_F(RecordList, LeavesOutADeletedRecord) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(DeleteOneRecord(db, kNotes, kB, nullptr), 1);
  EXPECT_EQ(listOf(db).ids, (Ids{kA, kC}));
}

TEST_F(RecordList, IsEmptyForATableWithoutRecords) {
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 1);
  EXPECT_EQ(listing.count, 0u);
  EXPECT_EQ(buffer[0], kUnwritten);
}

TEST_F(RecordList, IsEmptyUnderACountOf0WhereverTheChainBegins) {
  image.slot(notes).firstRecordPos = -1;
  expectDamage();
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 1);
  EXPECT_EQ(listing.count, 0u);
}

TEST_F(RecordList, RefusesNullPointers) {
  threeRecords();
  const int16_t db = start();
  uint32_t count = 7;
  uint64_t ids[3] = {kUnwritten};
  expectPositionKept(db, [&] {
    EXPECT_EQ(GetRecordUuIDList(db, kNotes, nullptr, &count), 0);
    EXPECT_EQ(GetRecordUuIDList(db, kNotes, ids, nullptr), 0);
  });
  EXPECT_EQ(count, 7u);
  EXPECT_EQ(ids[0], kUnwritten);
}

TEST_F(RecordList, CountsNothingForATableThatIsNotThere) {
  threeRecords();
  const int16_t db = start();
  const Listing listing = listOf(db, 10, kNoTable);
  EXPECT_EQ(listing.result, 0);
  EXPECT_EQ(listing.count, 0u);
}

TEST_F(RecordList, CountsNothingWhenTheDirectoryCannotBeRead) {
  threeRecords();
  image.header().version = 200;
  expectDamage(kDefaultFile, {"H2"});
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 0);
  EXPECT_EQ(listing.count, 0u);
}

TEST_F(RecordList, CountsTheRecordsOfAChainThatEndsEarly) {
  image.addRecord(notes, kA, bytesOf("one"));
  image.addRecord(notes, kB, bytesOf("two"));
  expectDamage();
  for (const uint32_t recordCount : {3u, kMost}) {
    image.slot(notes).recordCount = recordCount;
    const int16_t db = start();
    const Listing listing = listOf(db);
    EXPECT_EQ(listing.result, 0);
    EXPECT_EQ(listing.ids, (Ids{kA, kB}));
    close(db);
  }
}

TEST_F(RecordList, GoesOnIntoAPayloadThatLooksLikeAHeaderWhereTheChainEndsEarly) {
  RecordFields disguised;
  disguised.tableID = identifier(kNotes);
  disguised.recordID = identifier(0x5EED);
  image.addRecord(notes, kA, disguised.encode());
  image.slot(notes).recordCount = 2;
  expectDamage();
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 1);
  EXPECT_EQ(listing.ids, (Ids{kA, 0x5EED}));
}

TEST_F(RecordList, ListsNoMoreThanTheSlotCounts) {
  threeRecords();
  image.slot(notes).recordCount = 2;
  expectDamage();
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 1);
  EXPECT_EQ(listing.ids, (Ids{kA, kB}));
  EXPECT_EQ(buffer[2], kUnwritten);
}

TEST_F(RecordList, StopsAtADamagedRecord) {
  threeRecords();
  image.record(b).blockMark = 0;
  expectDamage();
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 0);
  EXPECT_EQ(listing.ids, (Ids{kA}));
}

TEST_F(RecordList, CountsNoRecordWhoseSuccessorCannotBeReached) {
  threeRecords();
  image.record(b).nextRecordPos = -1;
  expectDamage();
  int16_t db = start();
  Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 0);
  EXPECT_EQ(listing.ids, (Ids{kA}));
  EXPECT_EQ(buffer[1], kB);  // stored, and not counted
  close(db);

  // The same at the last record of the count, though nothing would be read there.
  image.record(b).nextRecordPos = c;
  image.record(c).nextRecordPos = std::numeric_limits<int64_t>::min();
  db = start();
  listing = listOf(db);
  EXPECT_EQ(listing.result, 0);
  EXPECT_EQ(listing.ids, (Ids{kA, kB}));
}

TEST_F(RecordList, DoesNotMindWhereTheLastCountedRecordLeads) {
  threeRecords();
  image.record(c).nextRecordPos = std::numeric_limits<int64_t>::max();
  expectDamage();
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 1);
  EXPECT_EQ(listing.ids, (Ids{kA, kB, kC}));
}

TEST_F(RecordList, FailsAtFirstPositionsWhereNoBlockCanLie) {
  threeRecords();
  expectDamage();
  for (const int64_t hostile : kHostilePositions) {
    image.slot(notes).firstRecordPos = hostile;
    const int16_t db = start();
    const Listing listing = listOf(db);
    EXPECT_EQ(listing.result, 0) << hostile;
    EXPECT_EQ(listing.count, 0u) << hostile;
    close(db);
  }
}

TEST_F(RecordList, ListsALoopAsOftenAsTheSlotCounts) {
  const int shapes[][2] = {{0, 1}, {0, 2}, {1, 1}, {3, 5}, {7, 1}, {2, 8}, {11, 3}};
  for (const auto& [tail, round] : shapes) {
    for (const uint32_t recordCount : {1u, 5u, 17u, 100u}) {
      SCOPED_TRACE(std::to_string(tail) + " and " + std::to_string(round));
      image = FileImage();
      image.addTable("notes", kNotes);
      loop(tail, round, recordCount);
      allowDamage();  // a count that ends within the tail looks like a short one
      const int16_t db = start();
      const Listing listing = listOf(db, recordCount);
      Ids expected;
      for (int i = 0; i < static_cast<int>(recordCount); ++i) {
        const int place = i < tail ? i : tail + (i - tail) % round;
        expected.push_back(static_cast<uint64_t>(place + 1));
      }
      EXPECT_EQ(listing.result, 1);
      EXPECT_EQ(listing.ids, expected);
      close(db);
    }
  }
}

TEST_F(RecordList, ListsALoopUnderALargeCountWithoutReadingItAgainAndAgain) {
  constexpr uint32_t kMany = 5'000'000;
  loop(2, 3, kMany);
  const int16_t db = start();
  const Listing listing = listOf(db, kMany);
  EXPECT_EQ(listing.result, 1);
  ASSERT_EQ(listing.count, kMany);
  for (uint32_t i = 2; i < kMany; ++i) {
    ASSERT_EQ(listing.ids[i], 3u + (i - 2) % 3) << i;
  }
  EXPECT_LT(host.count(Call::read), 1000);
}

TEST_F(RecordList, ListsALoopThatLeadsThroughAPayload) {
  // A record without successor whose payload looks like a header that leads back to the record.
  RecordFields disguised;
  disguised.tableID = identifier(kNotes);
  disguised.recordID = identifier(0x5EED);
  disguised.nextRecordPos = 4630;
  image.addRecord(notes, kA, disguised.encode());
  image.slot(notes).recordCount = 7;
  expectDamage();
  const int16_t db = start();
  const Listing listing = listOf(db);
  EXPECT_EQ(listing.result, 1);
  EXPECT_EQ(listing.ids, (Ids{kA, 0x5EED, kA, 0x5EED, kA, 0x5EED, kA}));
}

TEST_F(RecordList, FailsAtEachFailingRead) {
  threeRecords();
  const Operation operation = [](int16_t db) {
    uint64_t ids[3];
    uint32_t count = 0;
    return GetRecordUuIDList(db, kNotes, ids, &count);
  };
  expectStopsAtEachRead(operation);
  expectGoesOnAfterEachShortTransfer(operation);
}

// ---- the number ---------------------------------------------------------------------------------

TEST_F(RecordFind, CountsTheRecordsOfATable) {
  const int16_t db = start();
  EXPECT_EQ(numberOfRecords(db, kNotes), 0u);
  addRecord(db, kNotes, {});
  const uint64_t second = addRecord(db, kNotes, {});
  EXPECT_EQ(numberOfRecords(db, kNotes), 2u);
  ASSERT_EQ(DeleteOneRecord(db, kNotes, second, nullptr), 1);
  EXPECT_EQ(numberOfRecords(db, kNotes), 1u);
  EXPECT_EQ(numberOfRecords(db, kOther), 0u);
}

TEST_F(RecordFind, ReportsTheNumberInTheSlotWithoutVisitingTheRecords) {
  threeRecords();
  image.slot(notes).recordCount = kMost;
  image.record(a).blockMark = 0;
  expectDamage();
  const int16_t db = start();
  EXPECT_EQ(numberOfRecords(db, kNotes), kMost);
}

TEST_F(RecordFind, SetsTheNumberTo0BeforeItLooks) {
  threeRecords();
  const int16_t db = start();
  expectPositionKept(db, [&] {
    uint32_t count = 9;
    EXPECT_EQ(GetNumberOfRecords(db, kNoTable, &count), 0);
    EXPECT_EQ(count, 0u);
    count = 9;
    EXPECT_EQ(GetNumberOfRecords(31000, kNotes, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(GetNumberOfRecords(db, kNotes, &count), 1);
    EXPECT_EQ(count, 3u);
  });
}

TEST_F(RecordFind, ReportsNoNumberWhenTheSlotsCannotBeRead) {
  threeRecords();
  const Operation operation = [](int16_t db) {
    uint32_t count = 9;
    const int result = GetNumberOfRecords(db, kNotes, &count);
    EXPECT_EQ(count, result == 1 ? 3u : 0u);
    return result;
  };
  expectStopsAtEachRead(operation);
}

}  // namespace
}  // namespace qvdbase::test
