// Packing into a new file: what arrives there, the order and the numbers of the progress calls.
#include "kit/maintenance_fixture.h"

namespace qvdbase::test {
namespace {

class Pack : public MaintenanceTest {
 protected:
  int pack() { return PackOneDB2NewW(wide(kSource), wide(kTarget), 7, ProgressLog::function); }
  int packSilently() { return PackOneDB2NewW(wide(kSource), wide(kTarget), 0, nullptr); }

  // Packs the image; the target must be this one, byte for byte.
  void expectPacked(const FileImage& source, const FileImage& expected) {
    putSource(source);
    EXPECT_EQ(pack(), 1);
    EXPECT_TRUE(sameBytes(contents(kTarget), expected.build()));
    EXPECT_TRUE(sameBytes(contents(kSource), source.build()));
  }

  void expectRefused(const FileImage& source) {
    putSource(source);
    EXPECT_EQ(pack(), 0);
    expectTargetEmptied();
    EXPECT_TRUE(sameBytes(contents(kSource), source.build()));
  }

  // One table with records of these payload lengths.
  static FileImage withRecords(const std::vector<size_t>& lengths) {
    FileImage image;
    image.addTable("t", 0x101);
    for (size_t i = 0; i < lengths.size(); ++i) {
      image.addRecord(0, 0xA0 + i, pattern(lengths[i]));
    }
    return image;
  }

  ProgressLog log;
};

// ---- what is carried over ----

TEST_F(Pack, CarriesEveryLiveTableBlockAndRecordAndNothingElse) {
  LivelyDatabase lively;
  allowDamage(kSource);
  allowDamage(kTarget);  // table data that its table does not find
  putSource(lively.image);
  EXPECT_EQ(pack(), 1);
  EXPECT_TRUE(sameBytes(contents(kTarget), lively.packed().build()));
  EXPECT_TRUE(sameBytes(contents(kSource), lively.image.build()));
}

TEST_F(Pack, GivesATableWithRecordsTheTableDataPositionsOfTheSourceOnPurpose) {
  LivelyDatabase lively;
  allowDamage(kSource);
  allowDamage(kTarget);
  putSource(lively.image);
  ASSERT_EQ(pack(), 1);
  EXPECT_EQ(slot(0, kTarget).firstDataPos, lively.dataOfOne);
  EXPECT_EQ(slot(0, kTarget).lastWrittenDataPos, lively.dataOfOne);
  EXPECT_EQ(slot(0, kTarget).lastDataPos, lively.dataOfOne);
  // The block itself was copied anyway: it is the first one after the directory.
  EXPECT_EQ(tableData(static_cast<int64_t>(kDirectoryEnd), kTarget).data(), bytesOf("data of one"));
}

TEST_F(Pack, KeepsTheTableDataOfATableWithoutRecordsWithItsCounts) {
  FileImage source;
  source.addTable("t", 0x101);
  source.setTableData(0, bytesOf("an older block"));
  source.setTableData(0, bytesOf("data"), 10);
  FileImage expected;
  expected.addTable("t", 0x101);
  expected.setTableData(0, bytesOf("data"), 10);
  expected.slot(0).dataWriteCount = 2;
  expectPacked(source, expected);
}

TEST_F(Pack, CopiesATableDataBlockByteForByteWithTheOldBytesInItsCapacity) {
  FileImage source;
  source.addTable("t", 0x101);
  const int64_t data = source.setTableData(0, bytesOf("hello"), 10);
  source.tableData(data).room = bytesOf("helloOLDIE");
  expectPacked(source, source);
}

TEST_F(Pack, ZeroesTheCapacityAfterAPayloadAndKeepsItsSize) {
  FileImage source;
  source.addTable("t", 0x101);
  source.addRecord(0, 0xA1, bytesOf("abc"), {.reserve = 40000, .fill = 0xEE});
  FileImage expected;
  expected.addTable("t", 0x101);
  expected.addRecord(0, 0xA1, bytesOf("abc"), {.reserve = 40000});
  expectPacked(source, expected);
}

TEST_F(Pack, GivesARecordTheCapacityOfItsPayloadWhenTheSourceClaimsLess) {
  FileImage source = withRecords({10});
  const int64_t position = source.slot(0).firstRecordPos;
  FileImage expected = source;
  source.record(position).dataCapacity = 4;
  allowDamage(kSource);
  expectPacked(source, expected);
}

TEST_F(Pack, CarriesEmptyAndLargePayloads) {
  const FileImage source = withRecords({0, 1, 65535, 65536, 65537, 300000, 2});
  expectPacked(source, source);
}

TEST_F(Pack, CopiesADatabaseWithoutTablesAndReports1And100Only) {
  FileImage source;
  FileImage expected;
  expectPacked(source, expected);
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 100}));
}

TEST_F(Pack, ZeroesTheRecordFieldsOfEverySlotEvenOfFreeOnes) {
  FileImage source;
  source.slot(9).recordCount = 3;
  source.slot(9).recordWriteCount = 4;
  source.slot(9).firstRecordPos = 5000;
  source.slot(9).lastWrittenRecordPos = 5001;
  source.slot(9).lastRecordPos = 5002;
  source.slot(9).tableVersion = 77;  // and every other field as it is
  FileImage expected;
  expected.slot(9).tableVersion = 77;
  allowDamage(kSource);
  allowDamage(kTarget);
  expectPacked(source, expected);
}

TEST_F(Pack, CopiesTheHeaderUnchangedExceptForTheVersionAtTheEnd) {
  FileImage source;
  source.header().signature = bytesOf("QvZ!");
  source.header().version = 199;
  source.header().databaseID = hex("0102030405060708 FFFF");  // even with a wrong sum
  FileImage expected = source;
  expected.header().version = 100;
  allowDamage(kSource);
  allowDamage(kTarget);
  expectPacked(source, expected);
}

TEST_F(Pack, PacksMoreThanOnceIntoTheSameFile) {
  const FileImage source = withRecords({5, 6});
  expectPacked(source, source);
  EXPECT_EQ(pack(), 1);
  EXPECT_TRUE(sameBytes(contents(kTarget), source.build()));
}

TEST_F(Pack, MakesTheMissingFoldersOfTheTarget) {
  putSource(withRecords({5}));
  EXPECT_EQ(PackOneDB2NewW(wide(kSource), wide("new/folder/x.qvd"), 0, nullptr), 1);
  EXPECT_TRUE(sameBytes(contents("new/folder/x.qvd"), withRecords({5}).build()));
}

// ---- chains that are not what the slot says ----

TEST_F(Pack, CutsAChainThatIsLongerThanItsCount) {
  FileImage source = withRecords({5, 6, 7});
  source.slot(0).recordCount = 2;
  allowDamage(kSource);
  FileImage expected = withRecords({5, 6});
  expectPacked(source, expected);
}

TEST_F(Pack, FollowsTheLinkOfTheLastCountedRecordToo) {
  FileImage source = withRecords({5, 6});
  source.record(source.slot(0).lastRecordPos).nextRecordPos = -1;
  allowDamage(kSource);
  expectRefused(source);
}

TEST_F(Pack, StopsAtTheEndOfAChainThatIsShorterThanItsCount) {
  FileImage source = withRecords({5, 6});
  source.slot(0).recordCount = 4000000000u;
  allowDamage(kSource);
  expectPacked(source, withRecords({5, 6}));
}

TEST_F(Pack, CopiesALoopAsOftenAsTheSlotCounts) {
  FileImage source = withRecords({5, 6});
  const int64_t first = source.slot(0).firstRecordPos;
  source.record(source.slot(0).lastRecordPos).nextRecordPos = first;
  source.slot(0).recordCount = 5;
  allowDamage(kSource);
  FileImage expected;
  expected.addTable("t", 0x101);
  for (unsigned i = 0; i < 5; ++i) {
    expected.addRecord(0, 0xA0 + (i % 2), pattern(i % 2 == 0 ? 5 : 6));
  }
  allowDamage(kTarget);
  expectPacked(source, expected);
}

TEST_F(Pack, SkipsTheRecordsOfATableThatCountsNone) {
  FileImage source = withRecords({5});
  source.slot(0).recordCount = 0;
  allowDamage(kSource);
  FileImage expected;
  expected.addTable("t", 0x101);
  expectPacked(source, expected);
}

TEST_F(Pack, SkipsTheRecordsOfATableWithoutAFirstPosition) {
  FileImage source = withRecords({5});
  source.slot(0).firstRecordPos = 0;
  allowDamage(kSource);
  FileImage expected;
  expected.addTable("t", 0x101);
  expectPacked(source, expected);
}

TEST_F(Pack, DoesNotLookAtBackLinksNorAtTheLastPositionNorAtEndMarksOfRecords) {
  FileImage source = withRecords({5, 6});
  source.slot(0).lastRecordPos = 77;
  source.slot(0).lastWrittenRecordPos = 78;
  source.record(source.slot(0).firstRecordPos).prevRecordPos = 99;
  source.record(source.slot(0).firstRecordPos).blockEndMark = 0;
  allowDamage(kSource);
  expectPacked(source, withRecords({5, 6}));
}

// ---- progress ----

TEST_F(Pack, ReportsWithUserDataThenPercentAndANullThirdArgument) {
  putSource(withRecords({5}));
  ASSERT_EQ(pack(), 1);
  const std::vector<ProgressLog::Entry> expected = {
      {7, 1, nullptr}, {7, 98, nullptr}, {7, 99, nullptr}, {7, 100, nullptr}};
  EXPECT_EQ(log.entries, expected);
}

TEST_F(Pack, ReportsEachRecordByItsShareOfAllAndNinetyNineAfterEachTable) {
  FileImage source;
  source.addTable("a", 0x101);
  source.addTable("b", 0x202);
  source.addTable("c", 0x303);
  for (unsigned i = 0; i < 3; ++i) source.addRecord(0, 0xA0 + i, bytesOf("x"));
  for (unsigned i = 0; i < 4; ++i) source.addRecord(2, 0xB0 + i, bytesOf("x"));
  putSource(source);
  ASSERT_EQ(pack(), 1);
  // 97 * k / 7 + 1 for k = 1 to 7
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 14, 28, 42, 99, 99, 56, 70, 84, 98, 99, 100}));
}

TEST_F(Pack, CountsIntoTheTotalWhatFreeSlotsClaim) {
  FileImage source = withRecords({5});
  source.slot(20).recordCount = 96;
  allowDamage(kSource);
  putSource(source);
  ASSERT_EQ(pack(), 1);
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 2, 99, 100}));  // 97 * 1 / 97 + 1
}

TEST_F(Pack, ReportsOnePercentWhenTheCountsAddUpToZero) {
  FileImage source = withRecords({5});
  source.slot(20).recordCount = 0xFFFFFFFF;  // with the one record: 0 modulo 2^32
  allowDamage(kSource);
  putSource(source);
  ASSERT_EQ(pack(), 1);
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 1, 99, 100}));
}

TEST_F(Pack, WorksOutThePercentInUnsigned32BitNumbers) {
  FileImage source = withRecords({5, 5});
  source.slot(20).recordCount = 0xFFFFFFFF;  // the total is 1 modulo 2^32
  allowDamage(kSource);
  putSource(source);
  ASSERT_EQ(pack(), 1);
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 98, 195, 99, 100}));
}

TEST_F(Pack, ReportsARecordAfterItIsInTheTargetAndWithTheOperatingSystem) {
  putSource(withRecords({5, 6}));
  log.during = [this](size_t index) {
    const size_t lengths[] = {kDirectoryEnd, kDirectoryEnd + 61, kDirectoryEnd + 61 + 62};
    if (index > 2) return;
    EXPECT_EQ(fileSize(kTarget), lengths[index]);
    EXPECT_EQ(slot(0, kTarget).recordCount, index);
  };
  ASSERT_EQ(pack(), 1);
}

TEST_F(Pack, ShowsVersion101WhileItFillsTheTargetAnd100WhenItIsFinished) {
  FileImage source = withRecords({5});
  source.header().version = 150;
  putSource(source);
  std::vector<int> versions;
  log.during = [&](size_t) { versions.push_back(header(kTarget).version); };
  ASSERT_EQ(pack(), 1);
  // At 1 percent it still is the source's.
  EXPECT_EQ(versions, (std::vector<int>{150, 101, 101, 100}));
}

TEST_F(Pack, HasClosedBothFilesWhenItReports100) {
  putSource(withRecords({5}));
  log.during = [&](size_t index) {
    if (index != 3) return;
    EXPECT_EQ(position(1), -1);
    EXPECT_EQ(position(2), -1);
  };
  ASSERT_EQ(pack(), 1);
}

// Whatever the progress function has opened under those numbers meanwhile is closed with them.
TEST_F(Pack, ClosesBothNumbersOnceMoreOnPurposeWhenTheCallWith100ReturnsZero) {
  putSource(withRecords({5}));
  log.stopAt = 3;
  log.during = [this](size_t index) {
    if (index != 3) return;
    EXPECT_EQ(OpenDBaseW(wide(kSource), 1), 1);
    EXPECT_EQ(OpenDBaseW(wide(kSource), 1), 2);
  };
  EXPECT_EQ(pack(), 0);
  EXPECT_EQ(position(1), -1);
  EXPECT_EQ(position(2), -1);
  expectTargetEmptied();
}

TEST_F(Pack, SharesTheSourceWithAWriterButNotTheTarget) {
  putSource(withRecords({5}));
  const int16_t writer = OpenDBaseW(wide(kSource), 3);
  ASSERT_EQ(writer, 1);
  log.during = [this](size_t index) {
    if (index != 0) return;
    EXPECT_EQ(QVFile().QVWriteFile(2, "", 0, nullptr), 1) << "the source is open for reading only";
    EXPECT_EQ(OpenDBaseW(wide(kTarget), 3), 0) << "the target lets another writer in";
  };
  EXPECT_EQ(pack(), 1);
  CloseDBase(writer);
}

TEST_F(Pack, FailsAtEachSingleCallThatReturnsZeroEvenAtThatWith100) {
  putSource(withRecords({5, 6}));
  ASSERT_EQ(pack(), 1);
  const std::vector<int> all = log.percents();
  ASSERT_EQ(all, (std::vector<int>{1, 49, 98, 99, 100}));
  for (size_t stop = 0; stop < all.size(); ++stop) {
    SCOPED_TRACE(all[stop]);
    removeTarget();
    log.entries.clear();
    log.stopAt = static_cast<int>(stop);
    EXPECT_EQ(pack(), 0);
    EXPECT_EQ(log.percents(), std::vector<int>(all.begin(), all.begin() + 1 + log.stopAt));
    expectTargetEmptied();
  }
}

TEST_F(Pack, TakesAnyResultButZeroAsConsent) {
  putSource(withRecords({5}));
  log.goOn = 0x8000;
  EXPECT_EQ(pack(), 1);
}

TEST_F(Pack, WorksWithoutAProgressFunction) {
  putSource(withRecords({5, 6}));
  EXPECT_EQ(packSilently(), 1);
  EXPECT_TRUE(sameBytes(contents(kTarget), withRecords({5, 6}).build()));
}

TEST_F(Pack, LetsTheProgressFunctionWorkOnAnotherDatabase) {
  putSource(withRecords({5, 6}));
  const int16_t other = create("other.qvd");
  const uint64_t table = addTable(other, "t");
  log.during = [&](size_t) { addRecord(other, table, bytesOf("x")); };
  ASSERT_EQ(pack(), 1);
  EXPECT_TRUE(sameBytes(contents(kTarget), withRecords({5, 6}).build()));
  EXPECT_EQ(numberOfRecords(other, table), 5u);
  close(other);
}

// ---- what is refused ----

TEST_F(Pack, RefusesNullPathsWithoutOpeningAnything) {
  putSource(withRecords({5}));
  RecordedCalls host;
  EXPECT_EQ(PackOneDB2NewW(nullptr, wide(kTarget), 0, nullptr), 0);
  EXPECT_EQ(PackOneDB2NewW(wide(kSource), nullptr, 0, nullptr), 0);
  EXPECT_EQ(host.count(Call::open), 0);
  EXPECT_FALSE(targetExists());
}

TEST_F(Pack, RefusesASourceThatIsNotThereWithoutMakingATarget) {
  EXPECT_EQ(pack(), 0);
  EXPECT_FALSE(targetExists());
  EXPECT_TRUE(log.entries.empty());
}

TEST_F(Pack, RefusesAVersionOutsideTheRangeBeforeTheTargetIsMade) {
  for (const int version : {99, 200}) {
    FileImage source;
    source.header().version = static_cast<uint16_t>(version);
    allowDamage(kSource);
    putSource(source);
    EXPECT_EQ(pack(), 0);
    EXPECT_FALSE(targetExists());
  }
}

TEST_F(Pack, RefusesAFileThatIsNoDatabaseBeforeTheTargetIsMade) {
  putSource(bytesOf("not a database at all"));
  EXPECT_EQ(pack(), 0);
  putSource(Bytes{});
  EXPECT_EQ(pack(), 0);
  EXPECT_FALSE(targetExists());
}

TEST_F(Pack, RefusesItsSourceAsTargetAndLeavesItAlone) {
  const FileImage source = withRecords({5});
  putSource(source);
  EXPECT_EQ(PackOneDB2NewW(wide(kSource), wide(kSource), 0, nullptr), 0);
  EXPECT_TRUE(sameBytes(contents(kSource), source.build()));
}

TEST_F(Pack, RefusesATargetThatIsOpenAndLeavesItAlone) {
  putSource(withRecords({5}));
  const int16_t db = create(kTarget);
  expectUnchanged([&] { EXPECT_EQ(pack(), 0); }, kTarget);
  close(db);
}

TEST_F(Pack, RefusesASlotInUseWithoutItsMarks) {
  FileImage source = withRecords({5});
  source.slot(0).slotMark = 150;
  allowDamage(kSource);
  expectRefused(source);
  source = withRecords({5});
  source.slot(0).slotEndMark = 'x';
  expectRefused(source);
  source = withRecords({5});
  source.header().tableCount = 2;
  expectRefused(source);
  source = withRecords({5});
  source.header().tableCount = 33;
  expectRefused(source);
}

TEST_F(Pack, TakesANegativeTableCountForNoTables) {
  FileImage source;
  source.header().tableCount = -1;
  allowDamage(kSource);
  allowDamage(kTarget);
  expectPacked(source, source);
}

TEST_F(Pack, RefusesADirectoryThatIsCutOff) {
  const Bytes whole = withRecords({}).build();
  allowDamage(kSource);
  for (const size_t length : {kDirectoryEnd - 1, size_t{22}, size_t{21}}) {
    putSource(whole.cut(length));
    EXPECT_EQ(pack(), 0);
    if (targetExists()) expectTargetEmptied();
  }
}

TEST_F(Pack, RefusesEachFaultOfATableDataBlock) {
  const auto damaged = [](const std::function<void(TableDataFields&)>& damage) {
    FileImage image;
    image.addTable("t", 0x101);
    const int64_t data = image.setTableData(0, bytesOf("hello"), 10);
    damage(image.tableData(data));
    return image;
  };
  allowDamage(kSource);
  expectRefused(damaged([](TableDataFields& block) { block.blockMark = 151; }));
  expectRefused(damaged([](TableDataFields& block) { block.headerSize = 33; }));
  expectRefused(damaged([](TableDataFields& block) { block.tableID[9] ^= 1; }));
  expectRefused(damaged([](TableDataFields& block) { block.blockEndMark = 'j'; }));
  expectRefused(damaged([](TableDataFields& block) { block.dataCapacity = 9; }));
  expectRefused(damaged([](TableDataFields& block) { block.dataCapacity = 0xFFFFFFFF; }));
}

TEST_F(Pack, DoesNotMindALengthOfTableDataAboveItsCapacity) {
  FileImage source;
  source.addTable("t", 0x101);
  source.tableData(source.setTableData(0, bytesOf("hello"))).dataLength = 0xFFFFFFFF;
  allowDamage(kSource);
  allowDamage(kTarget);
  expectPacked(source, source);
}

TEST_F(Pack, RefusesTableDataAtAPositionThatIsNone) {
  allowDamage(kSource);
  for (const int64_t position : {int64_t{-1}, INT64_MIN, INT64_MAX, int64_t{1} << 40}) {
    FileImage source;
    source.addTable("t", 0x101);
    source.slot(0).firstDataPos = position;
    expectRefused(source);
  }
}

TEST_F(Pack, RefusesEachFaultOfARecordHeader) {
  const auto damaged = [](const std::function<void(RecordFields&)>& damage) {
    FileImage image = withRecords({5, 6, 7});
    damage(image.record(image.record(image.slot(0).firstRecordPos).nextRecordPos));
    return image;
  };
  allowDamage(kSource);
  expectRefused(damaged([](RecordFields& record) { record.blockMark = 134; }));
  expectRefused(damaged([](RecordFields& record) { record.headerSize = 55; }));
  expectRefused(damaged([](RecordFields& record) { record.tableID[0] ^= 1; }));
  for (const int64_t next : {int64_t{-1}, INT64_MIN, INT64_MAX, int64_t{1}}) {
    expectRefused(damaged([next](RecordFields& record) { record.nextRecordPos = next; }));
  }
}

TEST_F(Pack, FollowsNoFirstPositionThatIsNone) {
  allowDamage(kSource);
  for (const int64_t first : {int64_t{-1}, INT64_MIN, INT64_MAX, int64_t{1}}) {
    FileImage source = withRecords({5});
    source.slot(0).firstRecordPos = first;
    expectRefused(source);
  }
}

TEST_F(Pack, RefusesALengthThatTheFileDoesNotHoldWithoutTheMemoryForIt) {
  FileImage source = withRecords({5});
  source.record(source.slot(0).firstRecordPos).dataLength = 0xFFFFFFFF;
  allowDamage(kSource);
  putSource(source);
  RecordedCalls host;
  EXPECT_EQ(pack(), 0);
  expectTargetEmptied();
  for (const Event& event : host.events()) {
    if (event.call == Call::allocate) {
      EXPECT_LT(event.count, size_t{1} << 20);
    }
  }
}

TEST_F(Pack, RefusesAPayloadThatIsCutOff) {
  const Bytes whole = withRecords({100}).build();
  allowDamage(kSource);
  putSource(whole.cut(whole.size() - 2));
  EXPECT_EQ(pack(), 0);
  expectTargetEmptied();
}

TEST_F(Pack, CopiesSlotsOfAnotherSizeToSlotsOf144BytesAndReadsThemAtTheirOwnDistance) {
  // Two slots of 200 bytes: the copy has 144 bytes for each, but its second slot is looked for 200
  // bytes after the first, where the file has none.
  HeaderFields header;
  header.tableCount = 1;
  header.slotCount = 2;
  header.slotSize = 200;
  SlotFields used;
  used.tableID = identifier(0x101);
  Bytes source = header.encode();
  source.add(used.encode()).fill(56, 0xEE).add(freeSlot().encode()).fill(56, 0xEE);
  allowDamage(kSource);
  allowDamage(kTarget);
  putSource(source);
  EXPECT_EQ(pack(), 1);
  Bytes expected = header.encode();
  expected.add(used.encode()).add(freeSlot().encode());
  EXPECT_TRUE(sameBytes(contents(kTarget), expected));
}

// ---- failures of the host ----

class PackOnAFailingHost : public Pack {
 protected:
  PackOnAFailingHost() { allowDamage(kSource); }
  ~PackOnAFailingHost() override { host.excuseBlocks(); }

  // The target after a failure: not there yet, or emptied, or (when emptying fails too) anything
  // but what a finished pack leaves.
  void expectNothingFinished() {
    allowDamage(kTarget);
    if (!targetExists() || fileSize(kTarget) == 0) return;
    EXPECT_NE(header(kTarget).version, 100);
  }

  LivelyDatabase lively;
  RecordedCalls host;
};

TEST_F(PackOnAFailingHost, FailsWhereverAReadFails) {
  putSource(lively.image);
  for (int step = 0;; ++step) {
    host.failFrom(Call::read, step);
    const int result = pack();
    host.heal();
    if (!host.failed()) break;
    ASSERT_EQ(result, 0) << step;
    expectNothingFinished();
  }
}

TEST_F(PackOnAFailingHost, FailsWhereverTheDiskIsFull) {
  putSource(lively.image);
  const size_t length = lively.packed().build().size();
  for (size_t room = 0; room < length; room += 61) {
    host.fullAfter(room);
    EXPECT_EQ(pack(), 0) << room;
    host.heal();
    expectTargetEmptied();
    EXPECT_TRUE(sameBytes(contents(kSource), lively.image.build()));
  }
}

TEST_F(PackOnAFailingHost, FailsWhereverAWriteFailsOnceButDoesNotMindThatOfTheUnfinishedMark) {
  putSource(lively.image);
  int unminded = 0;
  for (int step = 0;; ++step) {
    host.failOnce(Call::write, step);
    const int result = pack();
    host.heal();
    if (!host.failed()) break;
    if (result == 0) {
      expectTargetEmptied();
      continue;
    }
    ++unminded;
    EXPECT_TRUE(sameBytes(contents(kTarget), lively.packed().build()));
  }
  EXPECT_EQ(unminded, 1);
}

// The writes of several records are gathered then, and those of the last ones made at the end.
TEST_F(PackOnAFailingHost, FailsWhereverAWriteFailsWithoutAProgressFunction) {
  putSource(lively.image);
  for (int step = 0;; ++step) {
    host.failFrom(Call::write, step);
    const int result = packSilently();
    host.heal();
    if (!host.failed()) break;
    EXPECT_EQ(result, 0) << step;
    expectTargetEmptied();
  }
  EXPECT_TRUE(sameBytes(contents(kTarget), lively.packed().build()));
}

TEST_F(PackOnAFailingHost, GoesOnAfterShortTransfers) {
  putSource(lively.image);
  for (const Call call : {Call::read, Call::write}) {
    for (int step = 0;; ++step) {
      // At least a byte: where none comes, the file has ended.
      host.cutOnce(
          call, [](size_t asked) { return asked - asked / 2; }, step);
      const int result = pack();
      host.heal();
      if (!host.failed()) break;
      ASSERT_EQ(result, 1) << nameOf(call) << step;
      EXPECT_TRUE(sameBytes(contents(kTarget), lively.packed().build()));
    }
  }
  allowDamage(kTarget);
}

// Whatever allocation fails, the pack fails, but for the two buffers that it can do without:
// the directory cache's entry, and the copy of the header.
TEST_F(PackOnAFailingHost, LeavesTheHeaderOutOnPurposeWhenThereIsNoMemoryForIt) {
  FileImage source;
  allowDamage(kTarget);
  putSource(source);
  const Bytes slots = source.build().from(kHeaderBytes);
  int withoutHeader = 0;
  for (int step = 0;; ++step) {
    host.failOnce(Call::allocate, step);
    const int result = pack();
    host.heal();
    if (!host.failed()) break;
    if (result == 0 || fileSize(kTarget) != slots.size()) continue;
    ++withoutHeader;
    // The slots begin at the start of the file; the version mark is written over them.
    EXPECT_TRUE(sameBytes(contents(kTarget), slots.with(4, hex("0064"))));
  }
  EXPECT_EQ(withoutHeader, 1);
}

TEST_F(PackOnAFailingHost, FailsWithoutMemoryForAPayloadOrABlock) {
  putSource(lively.image);
  int failures = 0;
  for (int step = 0;; ++step) {
    removeTarget();
    host.failOnce(Call::allocate, step);
    const int result = pack();
    host.heal();
    if (!host.failed()) break;
    if (result == 0) ++failures;
    if (result == 0 && targetExists()) expectTargetEmptied();
    EXPECT_TRUE(sameBytes(contents(kSource), lively.image.build()));
  }
  // Two blocks, three payloads and the working memory of the fill.
  EXPECT_GE(failures, 6);
}

TEST_F(PackOnAFailingHost, KeepsNoMemory) {
  putSource(lively.image);
  allowDamage(kTarget);
  ASSERT_EQ(pack(), 1);
  const size_t held = host.heldBlocks();
  ASSERT_EQ(pack(), 1);
  EXPECT_EQ(host.heldBlocks(), held);
  log.stopAt = static_cast<int>(log.entries.size()) + 3;
  ASSERT_EQ(pack(), 0);
  EXPECT_EQ(host.heldBlocks(), held);
}

}  // namespace
}  // namespace qvdbase::test
