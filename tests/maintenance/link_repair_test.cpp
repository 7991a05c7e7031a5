// Link repair: which chains are rewritten, and how; what is reported to the caller.
#include "maintenance/link_repair.h"
#include "kit/layers.h"

#include <cerrno>

#include "kit/maintenance_fixture.h"
#include "kit/replaced_calls.h"

namespace qvdbase::test {
namespace {

constexpr int kNothing = 0;
constexpr int kFailure = 1;
constexpr int kRewritten = 2;
constexpr int kStopped = 10;

class LinkRepair : public MaintenanceTest {
 protected:
  LinkRepair() { allowDamage(kSource); }

  // A table "t" with records A to D of 5 bytes each.
  void fourRecords() {
    const size_t table = image.addTable("t", 0x101);
    for (size_t i = 0; i < 4; ++i) at[i] = image.addRecord(table, 0xA0 + i, pattern(5));
  }

  int repair() {
    result = 4711;
    log.entries.clear();
    return FixOneDBLinkErrorW(wide(kSource), ProgressLog::function, 7, this, &result);
  }

  // Repairs `image`; the file must become `expected`, with version 100.
  void expectRepaired(int expectedResult) {
    expected.header().version = 100;
    putSource(image);
    EXPECT_EQ(repair(), 1);
    EXPECT_EQ(result, expectedResult);
    EXPECT_TRUE(sameBytes(contents(kSource), expected.build()));
  }

  // What the table then holds, and that it is a sound chain.
  void expectChain(const std::vector<int64_t>& positions, size_t table = 0) {
    const SlotFields slot = this->slot(table, kSource);
    ASSERT_EQ(slot.recordCount, positions.size());
    EXPECT_EQ(slot.firstRecordPos, positions.front());
    EXPECT_EQ(slot.lastRecordPos, positions.back());
    for (size_t i = 0; i < positions.size(); ++i) {
      const RecordFields fields = record(positions[i], kSource);
      EXPECT_EQ(fields.prevRecordPos, i == 0 ? 0 : positions[i - 1]);
      EXPECT_EQ(fields.nextRecordPos, i + 1 == positions.size() ? 0 : positions[i + 1]);
    }
  }

  void repairTo(int expectedResult, const std::vector<int64_t>& positions) {
    putSource(image);
    EXPECT_EQ(repair(), 1);
    EXPECT_EQ(result, expectedResult);
    expectChain(positions);
  }

  void expectFailure() {
    putSource(image);
    EXPECT_EQ(repair(), 1) << "the file could be opened";
    EXPECT_EQ(result, kFailure);
    EXPECT_TRUE(sameBytes(contents(kSource), image.build()));
  }

  ProgressLog log;
  FileImage image;
  FileImage expected;
  int64_t at[4] = {};
  int result = 0;
};

// ---- sound files ----

TEST_F(LinkRepair, LeavesASoundDatabaseAsItIsButForTheVersion) {
  LivelyDatabase lively;
  image = lively.image;  // version 123
  expected = image;
  expectRepaired(kNothing);
}

TEST_F(LinkRepair, TakesADatabaseWithoutTablesForSound) {
  expected = image;
  expectRepaired(kNothing);
  EXPECT_EQ(log.repairPercents(), (std::vector<int>{1, 99, 100}));
}

TEST_F(LinkRepair, WritesNothingButTheVersionToASoundFile) {
  fourRecords();
  putSource(image);
  RecordedCalls host;
  EXPECT_EQ(repair(), 1);
  const std::vector<Write> expectedWrites = {{4, hex("0064"), kSource}};
  EXPECT_EQ(host.writes(), expectedWrites);
}

TEST_F(LinkRepair, TakesAChainForCompleteWhateverItsLastLinksHold) {
  fourRecords();
  image.record(at[3]).nextRecordPos = -1;
  image.record(at[0]).prevRecordPos = 77;
  expected = image;
  expectRepaired(kNothing);
}

TEST_F(LinkRepair, SkipsATableThatCountsNoRecordsEvenWhenItsFirstPositionIsSet) {
  fourRecords();
  image.slot(0).recordCount = 0;
  expected = image;
  expectRepaired(kNothing);
}

TEST_F(LinkRepair, SkipsATableWithoutAFirstPositionEvenWhenItCountsRecords) {
  fourRecords();
  image.slot(0).firstRecordPos = 0;
  expected = image;
  expectRepaired(kNothing);
}

// ---- broken chains ----

TEST_F(LinkRepair, RelinksAChainWhoseLinkWasClearedEarlyFromWhatTheForwardWalkReached) {
  fourRecords();
  expected = image;
  image.record(at[1]).nextRecordPos = 0;
  expected.record(at[1]).nextRecordPos = 0;
  expected.slot(0).recordCount = 2;
  expected.slot(0).lastRecordPos = at[1];
  expectRepaired(kRewritten);
  expectChain({at[0], at[1]});
}

TEST_F(LinkRepair, KeepsOutOfTheChainOnPurposeWhatWasReachedOnlyBackwards) {
  // All four can be reached from the end, and two from the start: two stay.
  fourRecords();
  image.record(at[1]).nextRecordPos = 0;
  repairTo(kRewritten, {at[0], at[1]});
}

TEST_F(LinkRepair, RepairsTheBackLinksOfAChainThatIsWholeForwards) {
  fourRecords();
  expected = image;
  image.record(at[2]).prevRecordPos = 0;
  expectRepaired(kRewritten);
}

TEST_F(LinkRepair, CutsALoopWithoutTakingARecordTwice) {
  fourRecords();
  image.record(at[2]).nextRecordPos = at[1];
  repairTo(kRewritten, {at[0], at[1], at[2]});
  image.record(at[2]).nextRecordPos = at[2];
  repairTo(kRewritten, {at[0], at[1], at[2]});
}

TEST_F(LinkRepair, EndsALoopWhateverTheSlotCounts) {
  fourRecords();
  image.record(at[3]).nextRecordPos = at[0];
  image.record(at[0]).prevRecordPos = at[3];
  image.slot(0).recordCount = 0xFFFFFFFF;
  repairTo(kRewritten, {at[0], at[1], at[2], at[3]});
}

TEST_F(LinkRepair, LowersACountThatIsTooHigh) {
  fourRecords();
  expected = image;
  image.slot(0).recordCount = 5;
  expectRepaired(kRewritten);
}

TEST_F(LinkRepair, KeepsACountThatIsTooLowWhenBothWalksRunThroughIt) {
  // Either walk meets two records: sound as far as it counts.
  fourRecords();
  image.slot(0).recordCount = 2;
  expected = image;
  expectRepaired(kNothing);
}

TEST_F(LinkRepair, EndsTheForwardWalkAtARecordThatCannotBeRead) {
  fourRecords();
  image.record(at[2]).blockMark = 0;
  repairTo(kRewritten, {at[0], at[1]});
}

TEST_F(LinkRepair, EndsTheForwardWalkAtARecordOfAnotherTable) {
  fourRecords();
  image.record(at[1]).tableID = identifier(0x999);
  repairTo(kRewritten, {at[0]});
}

TEST_F(LinkRepair, EndsTheForwardWalkAtALinkThatCannotBeFollowed) {
  for (const int64_t link : {int64_t{-1}, INT64_MIN, INT64_MAX, int64_t{1}}) {
    image = FileImage();
    fourRecords();
    image.record(at[1]).nextRecordPos = link;
    repairTo(kRewritten, {at[0], at[1]});
  }
}

TEST_F(LinkRepair, RelinksAChainWhoseLastPositionLeadsNowhere) {
  fourRecords();
  expected = image;
  for (const int64_t last : {int64_t{-1}, int64_t{0}, INT64_MAX, int64_t{1}}) {
    image.slot(0).lastRecordPos = last;
    expectRepaired(kRewritten);
  }
}

TEST_F(LinkRepair, RelinksAChainWhoseBackwardWalkEndsEarlyInALoop) {
  fourRecords();
  expected = image;
  image.record(at[1]).prevRecordPos = at[3];
  expectRepaired(kRewritten);
}

TEST_F(LinkRepair, FailsWhenNeitherWalkReachesARecord) {
  fourRecords();
  image.slot(0).firstRecordPos = 5;
  image.slot(0).lastRecordPos = 6;
  expectFailure();
  image.slot(0).firstRecordPos = -5;
  image.slot(0).lastRecordPos = -6;
  expectFailure();
}

TEST_F(LinkRepair, LeavesAChainAloneOnPurposeWhoseFirstRecordCannotBeReachedForwards) {
  // The list that is written back is made of the forward walk's records, and there are none.
  fourRecords();
  image.slot(0).firstRecordPos = -5;
  expected = image;
  expectRepaired(kNothing);
}

TEST_F(LinkRepair, PassesOverIndexesThatTheForwardListDoesNotHave) {
  // One record forwards, four backwards.
  fourRecords();
  image.record(at[0]).nextRecordPos = 0;
  repairTo(kRewritten, {at[0]});
}

TEST_F(LinkRepair, RepairsEachTableByItself) {
  const size_t one = image.addTable("one", 0x101);
  const size_t two = image.addTable("two", 0x202);
  const size_t three = image.addTable("three", 0x303);
  int64_t records[3][3];
  for (size_t i = 0; i < 3; ++i) {
    for (const size_t table : {one, two, three}) {
      records[table][i] = image.addRecord(table, 0xA0 + i, bytesOf("x"));
    }
  }
  expected = image;
  image.record(records[0][2]).prevRecordPos = 0;
  image.record(records[2][2]).prevRecordPos = 0;
  expectRepaired(kRewritten);
}

TEST_F(LinkRepair, ChangesNoPayloadNorTimesNorLastWrittenPosition) {
  LivelyDatabase lively;
  image = lively.image;
  image.slot(0).lastWrittenRecordPos = lively.a;
  expected = image;
  image.record(lively.b).prevRecordPos = 0;
  expectRepaired(kRewritten);
}

TEST_F(LinkRepair, LeavesTheSlotUnwrittenWhenOnlyLinksWereWrong) {
  fourRecords();
  image.record(at[2]).prevRecordPos = 0;
  putSource(image);
  RecordedCalls host;
  ASSERT_EQ(repair(), 1);
  for (const Write& write : host.writes()) {
    EXPECT_TRUE(write.position == 4 || write.position >= static_cast<int64_t>(kDirectoryEnd));
  }
}

TEST_F(LinkRepair, SharesTheFileWithAWriter) {
  fourRecords();
  image.record(at[2]).prevRecordPos = 0;
  putSource(image);
  const int16_t writer = OpenDBaseW(wide(kSource), 3);
  EXPECT_EQ(repair(), 1);
  EXPECT_EQ(result, kRewritten);
  CloseDBase(writer);
}

// ---- damage that fails the repair ----

TEST_F(LinkRepair, FailsOnASlotInUseWithoutItsMarks) {
  fourRecords();
  image.slot(0).slotMark = 0;
  expectFailure();
  image.slot(0).slotMark = 151;
  image.slot(0).slotEndMark = 0;
  expectFailure();
}

TEST_F(LinkRepair, FailsOnATableDataBlockThatIsDamaged) {
  image.addTable("t", 0x101);
  const int64_t data = image.setTableData(0, bytesOf("data"), 9);
  const TableDataFields sound = image.tableData(data);
  image.tableData(data).blockMark = 135;
  expectFailure();
  image.tableData(data) = sound;
  image.tableData(data).headerSize = 64;
  expectFailure();
  image.tableData(data) = sound;
  image.tableData(data).tableID = identifier(0x102);
  expectFailure();
  image.tableData(data) = sound;
  image.tableData(data).blockEndMark = 0;
  expectFailure();
  image.tableData(data) = sound;
  image.tableData(data).dataCapacity = 0xFFFFFFFF;
  expectFailure();
  image.tableData(data) = sound;
  image.slot(0).firstDataPos = -1;
  expectFailure();
}

TEST_F(LinkRepair, FailsOnAFileThatIsNoDatabaseAndLeavesItsBytes) {
  const Bytes notes = bytesOf("this is a text");
  putSource(notes);
  EXPECT_EQ(repair(), 1);
  EXPECT_EQ(result, kFailure);
  EXPECT_EQ(contents(kSource), notes);
  EXPECT_TRUE(log.entries.empty());
}

TEST_F(LinkRepair, FailsOnAVersionOutsideTheRange) {
  image.header().version = 200;
  expectFailure();
}

TEST_F(LinkRepair, LeavesWhatItHasWrittenBeforeAFailure) {
  fourRecords();
  image.addTable("broken", 0x202);
  image.slot(1).slotMark = 0;
  image.header().version = 123;
  expected = image;
  image.record(at[2]).prevRecordPos = 0;
  putSource(image);
  EXPECT_EQ(repair(), 1);
  EXPECT_EQ(result, kFailure);
  EXPECT_TRUE(sameBytes(contents(kSource), expected.build()));  // with version 123
}

// ---- arguments ----

TEST_F(LinkRepair, RefusesNullArgumentsWithoutOpeningAnything) {
  putSource(image);
  RecordedCalls host;
  EXPECT_EQ(FixOneDBLinkErrorW(nullptr, nullptr, 0, nullptr, &result), 0);
  EXPECT_EQ(FixOneDBLinkErrorW(wide(kSource), nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(host.count(Call::open), 0);
}

TEST_F(LinkRepair, ReturnsZeroWithResultZeroForAFileThatIsNotThere) {
  EXPECT_EQ(repair(), 0);
  EXPECT_EQ(result, kNothing);
}

TEST_F(LinkRepair, WorksWithoutAProgressFunction) {
  fourRecords();
  image.record(at[2]).prevRecordPos = 0;
  putSource(image);
  EXPECT_EQ(FixOneDBLinkErrorW(wide(kSource), nullptr, 0, nullptr, &result), 1);
  EXPECT_EQ(result, kRewritten);
  expectChain({at[0], at[1], at[2], at[3]});
}

// ---- progress ----

TEST_F(LinkRepair, ReportsPercentThenUserDataThenTheCallersArgument) {
  image.addTable("t", 0x101);
  image.addRecord(0, 0xA1, bytesOf("x"));
  putSource(image);
  ASSERT_EQ(repair(), 1);
  // 0.5 * 97 / 1 + 1 = 49.5 and 1 * 97 / 1 + 1 = 98
  const std::vector<ProgressLog::Entry> all = {
      {1, 7, this}, {49, 7, this}, {98, 7, this}, {99, 7, this}, {100, 7, this}};
  EXPECT_EQ(log.entries, all);
}

TEST_F(LinkRepair, CountsEveryRecordHalfInEitherWalkAndCutsThePercent) {
  fourRecords();
  putSource(image);
  ASSERT_EQ(repair(), 1);
  // 97 * k / 8 + 1: 13.1, 25.25, 37.4, 49.5, 61.6, 73.75, 85.9, 98
  EXPECT_EQ(log.repairPercents(), (std::vector<int>{1, 13, 25, 37, 49, 61, 73, 85, 98, 99, 100}));
}

TEST_F(LinkRepair, AddsTheCountsOfAllTablesToTheTotal) {
  image.addTable("one", 0x101);
  image.addTable("two", 0x202);
  image.addRecord(0, 0xA1, bytesOf("x"));
  image.addRecord(1, 0xA1, bytesOf("x"));
  putSource(image);
  ASSERT_EQ(repair(), 1);
  EXPECT_EQ(log.repairPercents(), (std::vector<int>{1, 25, 49, 73, 98, 99, 100}));
}

TEST_F(LinkRepair, LeavesATableOfIdentifierZeroOutOfTheTotal) {
  image.addTable("t", 0);
  image.addRecord(0, 0xA1, bytesOf("x"));
  putSource(image);
  ASSERT_EQ(repair(), 1);
  EXPECT_EQ(log.repairPercents(), (std::vector<int>{1, 1, 1, 99, 100}));
}

TEST_F(LinkRepair, CountsForEachTableTheRecordsOfTheFirstSlotWithItsIdentifier) {
  image.addTable("one", 0x101);
  image.addTable("two", 0x101);
  image.addRecord(0, 0xA1, bytesOf("x"));
  image.slot(1).recordCount = 97;  // without a first position
  putSource(image);
  ASSERT_EQ(repair(), 1);
  // The total is 2: 0.5 * 97 / 2 + 1 = 25.25
  EXPECT_EQ(log.repairPercents(), (std::vector<int>{1, 25, 49, 99, 100}));
}

TEST_F(LinkRepair, StopsAtEachSingleCallThatReturnsZeroExceptTheLast) {
  fourRecords();
  image.header().version = 123;
  image.record(at[3]).prevRecordPos = 0;  // one record backwards
  putSource(image);
  ASSERT_EQ(repair(), 1);
  const std::vector<int> all = log.repairPercents();
  ASSERT_EQ(all, (std::vector<int>{1, 13, 25, 37, 49, 61, 99, 100}));
  for (size_t stop = 0; stop < all.size(); ++stop) {
    SCOPED_TRACE(all[stop]);
    putSource(image);
    log.stopAt = static_cast<int>(stop);
    EXPECT_EQ(repair(), 1);
    const bool stops = all[stop] != 100;
    EXPECT_EQ(result, stops ? kStopped : kRewritten);
    EXPECT_EQ(log.entries.size(), stop + 1);
    EXPECT_EQ(header(kSource).version, stops ? 123 : 100);
    // What was relinked before stays relinked.
    EXPECT_EQ(record(at[3], kSource).prevRecordPos, all[stop] < 99 ? 0 : at[2]);
  }
}

TEST_F(LinkRepair, LetsTheProgressFunctionMoveThePositionExceptAtTheEnd) {
  fourRecords();
  putSource(image);
  log.during = [](size_t) {
    if (position(1) != -1) seek(1, 3);
  };
  EXPECT_EQ(repair(), 1);
  EXPECT_EQ(result, kNothing);
}

TEST_F(LinkRepair, HasClosedTheFileWhenItReports100) {
  putSource(image);
  std::vector<bool> open;
  log.during = [&](size_t) { open.push_back(position(1) != -1); };
  ASSERT_EQ(repair(), 1);
  EXPECT_EQ(open, (std::vector<bool>{true, true, false}));
}

TEST_F(LinkRepair, ReportsItsResultAsItGoes) {
  fourRecords();
  image.record(at[3]).prevRecordPos = 0;
  putSource(image);
  std::vector<int> results;
  log.during = [&](size_t) { results.push_back(result); };
  ASSERT_EQ(repair(), 1);
  EXPECT_EQ(results.front(), kNothing);
  EXPECT_EQ(results.back(), kRewritten);
}

// ---- failures of the host ----

TEST_F(LinkRepair, FailsWhereverAWriteFails) {
  fourRecords();
  image.record(at[1]).nextRecordPos = 0;
  RecordedCalls host;
  putSource(image);
  ASSERT_EQ(repair(), 1);
  const size_t all = byteCount(host.writes());
  ASSERT_EQ(all, 2 * 16u + 144 + 2);
  for (size_t room = 0; room < all; ++room) {
    putSource(image);
    host.fullAfter(room);
    EXPECT_EQ(repair(), 1);
    host.heal();
    EXPECT_EQ(result, kFailure) << room;
  }
}

// Its writes are gathered then, and made at the end.
TEST_F(LinkRepair, FailsWhereverAWriteFailsWithoutAProgressFunction) {
  fourRecords();
  image.record(at[1]).nextRecordPos = 0;
  RecordedCalls host;
  const auto repairSilently = [&] {
    putSource(image);
    result = 4711;
    return FixOneDBLinkErrorW(wide(kSource), nullptr, 0, nullptr, &result);
  };
  ASSERT_EQ(repairSilently(), 1);
  ASSERT_EQ(result, kRewritten);
  const size_t all = byteCount(host.writes());
  for (size_t room = 0; room < all; ++room) {
    host.fullAfter(room);
    EXPECT_EQ(repairSilently(), 1);
    host.heal();
    EXPECT_EQ(result, kFailure) << room;
  }
}

// A version that cannot be written is a failure, although all links are repaired.
TEST_F(LinkRepair, FailsWithoutReporting100WhenTheVersionCannotBeWritten) {
  fourRecords();
  image.header().version = 123;
  expected = image;
  image.record(at[3]).prevRecordPos = 0;
  RecordedCalls host;
  putSource(image);
  ASSERT_EQ(repair(), 1);
  const size_t all = byteCount(host.writes());
  for (const size_t missing : {2u, 1u}) {
    putSource(image);
    host.fullAfter(all - missing);
    EXPECT_EQ(repair(), 1);
    host.heal();
    EXPECT_EQ(result, kFailure);
    EXPECT_EQ(log.repairPercents().back(), 99);
    EXPECT_TRUE(sameBytes(contents(kSource).from(22), expected.build().from(22)));
  }
}

// The links of the records are written, and nothing between them.
TEST_F(LinkRepair, WritesNothingBetweenTheLinksOfRecordsThatAreNextToEachOther) {
  const size_t table = image.addTable("t", 0x101);
  for (size_t i = 0; i < 4; ++i) at[i] = image.addRecord(table, 0xA0 + i, {});
  image.record(at[3]).prevRecordPos = 0;
  RecordedCalls host;
  putSource(image);
  ASSERT_EQ(repair(), 1);
  EXPECT_EQ(result, kRewritten);
  const std::vector<Write> writes = ranges(host.writes());
  ASSERT_EQ(writes.size(), 5u);  // the version last
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(writes[i].position, at[i] + 31);
    EXPECT_EQ(writes[i].bytes.size(), 16u);
  }
}

// A payload that cannot be read lies where the walk backwards reads far ahead: every record is
// found anyway, and the chain is left alone.
TEST_F(LinkRepair, FindsEveryRecordThatTheHostCanDeliver) {
  static int64_t bad;
  const size_t table = image.addTable("t", 0x101);
  std::vector<int64_t> all;
  for (size_t i = 0; i < 600; ++i) {
    all.push_back(image.addRecord(table, 0xA000 + i, pattern(600)));
  }
  image.header().version = 100;
  putSource(image);
  for (const size_t record : {0u, 1u, 5u, 40u, 300u}) {
    SCOPED_TRACE(record);
    bad = all[record] + 300;
    ReplacedCalls calls;
    calls->readAt = [](int descriptor, void* buffer, size_t count, off_t position) -> ssize_t {
      if (position < bad + 50 && position + static_cast<off_t>(count) > bad) {
        errno = EIO;
        if (position >= bad) return -1;
        count = static_cast<size_t>(bad - position);
      }
      return platform::hostSystemCalls().readAt(descriptor, buffer, count, position);
    };
    // Without a progress function, so that what was read ahead is kept.
    EXPECT_EQ(FixOneDBLinkErrorW(wide(kSource), nullptr, 0, nullptr, &result), 1);
    EXPECT_EQ(result, kNothing);
  }
  EXPECT_TRUE(sameBytes(contents(kSource), image.build()));
}

TEST_F(LinkRepair, FailsOrRepairsLessWhereverAReadFails) {
  fourRecords();
  RecordedCalls host;
  for (int step = 0;; ++step) {
    putSource(image);
    host.failFrom(Call::read, step);
    EXPECT_EQ(repair(), 1);
    host.heal();
    if (!host.failed()) break;
    EXPECT_NE(result, kNothing) << step;
  }
}

// ---- the two routines ----

TEST_F(LinkRepair, WritesBothLinksOfAnEntryAndNothingElse) {
  fourRecords();
  const int16_t db = put(image, kSource);
  recordPartP1Class entry{};
  entry.recordPos = at[1];
  entry.prevRecordPos = 0x0102030405060708;
  entry.nextRecordPos = -2;
  EXPECT_EQ(FixOneDataLinkInfo(db, &entry), 1);
  image.record(at[1]).prevRecordPos = entry.prevRecordPos;
  image.record(at[1]).nextRecordPos = entry.nextRecordPos;
  EXPECT_TRUE(sameBytes(contents(kSource), image.build()));
  entry.recordPos = -1000;
  EXPECT_EQ(FixOneDataLinkInfo(db, &entry), 0);
  close(db);
  entry.recordPos = at[1];
  EXPECT_EQ(FixOneDataLinkInfo(db, &entry), 0);
}

TEST_F(LinkRepair, ReportsDuplicatesByThePositionAlone) {
  QVList list;
  recordPartP1Class entry{};
  EXPECT_EQ(Internal_CheckRPP1Class_Duplicate(&list, &entry), 0);
  for (const int64_t position : {10, 20, 30}) {
    entry.recordPos = position;
    entry.recordID = 5;
    list.Add(&entry, sizeof entry);
  }
  entry.recordID = 6;
  EXPECT_EQ(Internal_CheckRPP1Class_Duplicate(&list, &entry), 1);
  entry.recordPos = 10;
  EXPECT_EQ(Internal_CheckRPP1Class_Duplicate(&list, &entry), 1);
  entry.recordPos = 11;
  entry.recordID = 5;
  EXPECT_EQ(Internal_CheckRPP1Class_Duplicate(&list, &entry), 0);
}

}  // namespace
}  // namespace qvdbase::test
