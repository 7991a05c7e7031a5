// Packing under all new identifiers: which change, which stay, and how the pairs of old and new
// ones are counted.
#include <qvdbase/qvrzdb_sub.h>

#include <algorithm>

#include "kit/maintenance_fixture.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kInfoTable = 0x101;
constexpr uint64_t kRecordTable = 0x202;
constexpr uint64_t kCategoryTable = 0x303;
constexpr uint64_t kOtherTable = 0x404;
constexpr std::time_t kNow = 0x5F5E1000;
constexpr uint16_t kUnwritten = 0x7777;

Bytes categoryPayload(const std::vector<uint64_t>& second, const Bytes& extra = {}) {
  Bytes out;
  out.be(8, 0xCAFE).zeros(64).be(4, 1).be(8, 2).be(4, 1).be(8, 0xF1);
  out.be(4, second.size());
  for (const uint64_t id : second) out.be(8, id);
  return out.be(4, extra.size()).add(extra);
}

// The second list of such a payload.
std::vector<uint64_t> secondList(const Bytes& payload) {
  std::vector<uint64_t> ids;
  const auto count = static_cast<size_t>(payload.beAt(96, 4));
  for (size_t i = 0; i < count; ++i) ids.push_back(payload.beAt(100 + 8 * i, 8));
  return ids;
}

class Renumber : public MaintenanceTest {
 protected:
  Renumber() { host.setTime(kNow); }
  ~Renumber() override { host.excuseBlocks(); }

  int renumber() {
    putSource(image);
    const int16_t src = OpenDBaseW(wide(kSource), 3);
    const int result = renumberOpen(src);
    if (src != 0) {
      EXPECT_NE(position(src), -1) << "the source was closed";
      CloseDBase(src);
    }
    EXPECT_TRUE(sameBytes(contents(kSource), image.build()));
    return result;
  }

  int renumberOpen(int16_t src) {
    srcRef = kUnwritten;
    dstRef = kUnwritten;
    status = 4711;
    log.entries.clear();
    return PackOneDB2AllNewUUIDFile(wide(kTarget), src, 7, ProgressLog::function, &srcRef, &dstRef,
                                    &status, this);
  }

  void expectRefused() {
    EXPECT_EQ(renumber(), 0);
    expectTargetEmptied();
    EXPECT_EQ(status, 0);
  }

  std::vector<uint64_t> idsOf(const std::string& table) const {
    std::vector<uint64_t> ids;
    for (const ReadTable& each : database(kTarget).tables) {
      if (each.name != table) continue;
      for (const ReadRecord& record : each.records) ids.push_back(record.id);
    }
    return ids;
  }

  Bytes payloadOf(const std::string& table, size_t index) const {
    for (const ReadTable& each : database(kTarget).tables) {
      if (each.name == table) return each.records.at(index).fields.data();
    }
    return {};
  }

  size_t addRecordTable(size_t count, uint64_t firstID = 0xA0) {
    const size_t table = image.addTable("QVrz_Record", kRecordTable);
    for (size_t i = 0; i < count; ++i) image.addRecord(table, firstID + i, bytesOf("record"));
    return table;
  }

  size_t addCategories(const std::vector<std::vector<uint64_t>>& lists) {
    const size_t table = image.addTable("QVrz_Category", kCategoryTable);
    uint64_t id = 0xC0;
    for (const auto& list : lists) image.addRecord(table, id++, categoryPayload(list));
    return table;
  }

  RecordedCalls host;
  ProgressLog log;
  FileImage image;
  uint16_t srcRef = kUnwritten;
  uint16_t dstRef = kUnwritten;
  int status = 0;
};

// ---- what is new and what stays ----

TEST_F(Renumber, GivesTheFileAndItsRecordsNewIdentifiersButNotItsTables) {
  addCategories({});
  const size_t other = image.addTable("other", kOtherTable);
  image.addRecord(other, 0xA1, bytesOf("first"), {.reserve = 20, .createTime = 11});
  image.addRecord(other, 0xA2, bytesOf("second"));
  ASSERT_EQ(renumber(), 1);

  const ReadDatabase target = database(kTarget);
  EXPECT_NE(target.header.databaseID, image.header().databaseID);
  EXPECT_TRUE(identifierSound(target.header.databaseID));
  ASSERT_EQ(target.tables.size(), 2u);
  EXPECT_EQ(target.tables[1].id, kOtherTable);
  ASSERT_EQ(target.tables[1].records.size(), 2u);
  const ReadRecord& first = target.tables[1].records[0];
  EXPECT_NE(first.id, 0xA1u);
  EXPECT_EQ(first.fields.data(), bytesOf("first"));
  EXPECT_EQ(first.fields.dataCapacity, 20u);
  EXPECT_EQ(first.fields.createTime, uint32_t{kNow});  // new times, too
  EXPECT_EQ(first.fields.modifyTime, uint32_t{kNow});
  EXPECT_EQ(target.tables[1].records[1].fields.data(), bytesOf("second"));
}

TEST_F(Renumber, KeepsIdentifiersAndTimesInTheInfoTableAndIdentifiersInTheCategoryTable) {
  const size_t info = image.addTable("QVrz_Info", kInfoTable);
  image.addRecord(info, 0xA1, bytesOf("info"), {.createTime = 11, .modifyTime = 12});
  const size_t categories = addCategories({{}});
  image.record(image.slot(categories).firstRecordPos).createTime = 21;
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(idsOf("QVrz_Info"), std::vector<uint64_t>{0xA1});
  EXPECT_EQ(idsOf("QVrz_Category"), std::vector<uint64_t>{0xC0});
  const ReadDatabase target = database(kTarget);
  EXPECT_EQ(target.tables[0].records[0].fields.createTime, 11u);
  EXPECT_EQ(target.tables[0].records[0].fields.modifyTime, 12u);
  EXPECT_EQ(target.tables[1].records[0].fields.createTime, 21u);
}

TEST_F(Renumber, ReportsTheTablesByTheirExactNames) {
  addCategories({});
  uint64_t table = 0x500;
  for (const char* name : {"QVrz_info", "QVrz_Info2", "QVrz_Inf", "qvrz_Info"}) {
    image.addRecord(image.addTable(name, table++), 0xA1, bytesOf("x"));
  }
  ASSERT_EQ(renumber(), 1);
  for (const char* name : {"QVrz_info", "QVrz_Info2", "QVrz_Inf", "qvrz_Info"}) {
    ASSERT_EQ(idsOf(name).size(), 1u);
    EXPECT_NE(idsOf(name)[0], 0xA1u) << name;
  }
}

TEST_F(Renumber, CopiesTableDataAndKeepsTheVersion) {
  image.header().version = 150;
  addCategories({});
  image.setTableData(0, bytesOf("data"), 9);
  std::vector<int> versions;
  log.during = [&](size_t) { versions.push_back(header(kTarget).version); };
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(versions, (std::vector<int>{150, 150}));
  EXPECT_EQ(database(kTarget).tables[0].data->data(), bytesOf("data"));
}

TEST_F(Renumber, CopiesNothingOfTheHeaderButTheIdentifier) {
  addCategories({});
  image.header().signature = bytesOf("qvAB");
  ASSERT_EQ(renumber(), 1);
  Bytes expected = image.build().cut(kHeaderBytes);
  const Bytes actual = contents(kTarget).cut(kHeaderBytes);
  EXPECT_EQ(actual.at(0, 6), expected.at(0, 6));
  EXPECT_EQ(actual.at(16, 6), expected.at(16, 6));
}

// ---- categories ----

TEST_F(Renumber, ReplacesTheOldIdentifiersInTheSecondListsOfCategories) {
  addRecordTable(4);
  addCategories({{0xA2, 0xA0, 0xA1}, {}, {0xA0, 0xA0}});
  ASSERT_EQ(renumber(), 1);
  const std::vector<uint64_t> ids = idsOf("QVrz_Record");
  ASSERT_EQ(ids.size(), 4u);
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)),
            (std::vector<uint64_t>{ids[2], ids[0], ids[1]}));
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 1)), std::vector<uint64_t>{});
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 2)), (std::vector<uint64_t>{ids[0], ids[0]}));
  // Everything else of the payload is as it was, the first list too.
  EXPECT_EQ(payloadOf("QVrz_Category", 0).cut(96), categoryPayload({}).cut(96));
}

TEST_F(Renumber, WritesCategoriesInPlaceAndSetsTheirTimeOfModification) {
  addRecordTable(2);
  addCategories({{0xA0}});
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(fileSize(kTarget), static_cast<size_t>(image.end()));
  EXPECT_EQ(database(kTarget).tables[1].records[0].fields.modifyTime, uint32_t{kNow});
}

TEST_F(Renumber, CarriesTheFreeBytesOfCategories) {
  addRecordTable(2);
  const size_t table = image.addTable("QVrz_Category", kCategoryTable);
  image.addRecord(table, 0xC0, categoryPayload({0xA0}, pattern(5000)));
  image.addRecord(table, 0xC1, categoryPayload({0xA0}, pattern(3, 9)));
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(payloadOf("QVrz_Category", 0).from(112), pattern(5000));
  EXPECT_EQ(payloadOf("QVrz_Category", 1).from(112), pattern(3, 9));
}

TEST_F(Renumber, RewritesCategoriesWithTheirListsUnchangedWhenThereIsNoRecordTable) {
  addCategories({{0xA2, 0x999}});
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(payloadOf("QVrz_Category", 0), categoryPayload({0xA2, 0x999}));
  EXPECT_EQ(database(kTarget).tables[0].records[0].fields.modifyTime, uint32_t{kNow});
}

TEST_F(Renumber, TakesAnEmptyRecordTableForNone) {
  addRecordTable(0);
  addCategories({{0xA2}});
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)), std::vector<uint64_t>{0xA2});
}

TEST_F(Renumber, FailsForACategoryThatListsAnUnknownIdentifier) {
  addRecordTable(3);
  addCategories({{0xA0}, {0xA0, 0x999}});
  expectRefused();
}

TEST_F(Renumber, FailsWithoutACategoryTableAfterAllRecordsAreCopied) {
  addRecordTable(3);
  expectRefused();
  EXPECT_EQ(log.percents(), (std::vector<int>{1, 33, 65, 98}));
}

TEST_F(Renumber, LeavesACategoryTooShortToDecodeAsItWasCopied) {
  addRecordTable(2);
  const size_t table = addCategories({{0xA0}});
  image.addRecord(table, 0xCF, bytesOf("12345678"), {.createTime = 5, .modifyTime = 6});
  image.addRecord(table, 0xD0, {}, {.createTime = 5, .modifyTime = 6});
  ASSERT_EQ(renumber(), 1);
  const ReadTable categories = database(kTarget).tables[1];
  EXPECT_EQ(categories.records[1].fields.data(), bytesOf("12345678"));
  EXPECT_EQ(categories.records[1].fields.modifyTime, 6u);
  EXPECT_EQ(categories.records[2].fields.data(), Bytes{});
}

TEST_F(Renumber, FailsForACategoryThatIsDamaged) {
  addRecordTable(2);
  const size_t table = image.addTable("QVrz_Category", kCategoryTable);
  image.addRecord(table, 0xC0, categoryPayload({0xA0}).cut(50));
  expectRefused();
  image.record(image.slot(table).firstRecordPos).room = categoryPayload({0xA0}).cut(50);
}

TEST_F(Renumber, FailsForFreeBytesThatClaimMoreThanTheWholeFile) {
  const size_t table = image.addTable("QVrz_Category", kCategoryTable);
  Bytes payload = categoryPayload({});
  payload.putBe(100, 4, 0x7FFFFFFF);
  image.addRecord(table, 0xC0, payload);
  expectRefused();
}

TEST_F(Renumber, MovesACategoryThatNeedsMoreSpaceForItsZeroFilledFreeBytes) {
  // A claim longer than what is left of the file, but shorter than the file: zeros take its place.
  const size_t table = image.addTable("QVrz_Category", kCategoryTable);
  image.addRecord(table, 0xBF, categoryPayload({}));
  Bytes payload = categoryPayload({});
  payload.putBe(100, 4, 200);
  image.addRecord(table, 0xC0, payload);
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(payloadOf("QVrz_Category", 1), payload.fill(200, 0));
  EXPECT_EQ(idsOf("QVrz_Category"), (std::vector<uint64_t>{0xBF, 0xC0}));
}

TEST_F(Renumber, ChangesTheFirstOfTwoCategoriesOfOneIdentifierTwice) {
  addRecordTable(3);
  const size_t table = image.addTable("QVrz_Category", kCategoryTable);
  image.addRecord(table, 0xC0, categoryPayload({0xA0}));
  image.addRecord(table, 0xC0, categoryPayload({0xA1}));
  ASSERT_EQ(renumber(), 1);
  const std::vector<uint64_t> ids = idsOf("QVrz_Record");
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)), std::vector<uint64_t>{ids[0]});
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 1)), std::vector<uint64_t>{0xA1});
}

// ---- how pairs are counted: required, and kept deliberately ----

TEST_F(Renumber, DoesNotCountThePairOfTheLastRecordOnPurpose) {
  addRecordTable(3);
  addCategories({{0xA2}});
  expectRefused();
}

TEST_F(Renumber, CountsNoPairForATableOfOneRecordOnPurpose) {
  addRecordTable(1);
  addCategories({{0xA0}});
  expectRefused();
}

TEST_F(Renumber, CountsThePairOfTheLastRecordWhenItsLinkLeadsOnPurposely) {
  // The last counted record has a successor, so that there is a step after it.
  const size_t table = addRecordTable(3);
  image.slot(table).recordCount = 2;
  addCategories({{0xA1}});
  allowDamage(kSource);
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)),
            std::vector<uint64_t>{idsOf("QVrz_Record")[1]});
}

TEST_F(Renumber, RaisesTheCountInAKeptTableAfterTheRecordTableWithoutWritingOnPurpose) {
  // The category table itself: its one step counts the last record's pair in.
  addRecordTable(3);
  addCategories({{0xA2}, {}});
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)),
            std::vector<uint64_t>{idsOf("QVrz_Record")[2]});
}

TEST_F(Renumber, MatchesNothingWithPairsThatWereCountedButNeverWritten) {
  // Far more steps than pairs.
  addRecordTable(2);
  const size_t info = image.addTable("QVrz_Info", kInfoTable);
  for (unsigned i = 0; i < 50; ++i) image.addRecord(info, 0x700 + i, bytesOf("x"));
  addCategories({{0}});
  expectRefused();
}

TEST_F(Renumber, OverwritesThePairsFromTheFirstOnInALaterRenewedTableOnPurpose) {
  addRecordTable(3);
  const size_t other = image.addTable("other", kOtherTable);
  image.addRecord(other, 0x800, bytesOf("x"));
  addCategories({{0x800, 0xA1}});
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)),
            (std::vector<uint64_t>{idsOf("other")[0], idsOf("QVrz_Record")[1]}));
}

TEST_F(Renumber, NoLongerFindsAPairThatALaterTableHasOverwritten) {
  addRecordTable(3);
  const size_t other = image.addTable("other", kOtherTable);
  image.addRecord(other, 0x800, bytesOf("x"));
  addCategories({{0xA0}});
  expectRefused();
}

TEST_F(Renumber, LetsTheArrayGrowForALaterTableThatIsLonger) {
  addRecordTable(2);
  const size_t other = image.addTable("other", kOtherTable);
  for (unsigned i = 0; i < 100; ++i) image.addRecord(other, 0x800 + i, bytesOf("x"));
  // Counted are 1 step and 99 more.
  addCategories({{0x800, 0x800 + 99}});
  ASSERT_EQ(renumber(), 1);
  const std::vector<uint64_t> ids = idsOf("other");
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)), (std::vector<uint64_t>{ids[0], ids[99]}));
}

TEST_F(Renumber, WritesNoPairsForATableBeforeTheRecordTable) {
  const size_t other = image.addTable("other", kOtherTable);
  image.addRecord(other, 0x800, bytesOf("x"));
  image.addRecord(other, 0x801, bytesOf("x"));
  addRecordTable(3);
  addCategories({{0x800}});
  expectRefused();
}

TEST_F(Renumber, BeginsTheCountAnewWithASecondRecordTable) {
  addRecordTable(9);
  const size_t second = image.addTable("QVrz_Record", 0x606);
  image.addRecord(second, 0x900, bytesOf("x"));
  image.addRecord(second, 0x901, bytesOf("x"));
  allowDamage(kSource);  // two tables of one name
  allowDamage(kTarget);
  addCategories({{0xA3}});
  expectRefused();
}

// ---- progress, numbers, status ----

TEST_F(Renumber, ReportsUserDataPercentAndTheCallersArgumentAndNoNinetyNine) {
  addRecordTable(2);
  addCategories({{0xA0}});
  ASSERT_EQ(renumber(), 1);
  const std::vector<ProgressLog::Entry> expected = {
      {7, 1, this}, {7, 33, this}, {7, 65, this}, {7, 98, this}, {7, 100, this}};
  EXPECT_EQ(log.entries, expected);
}

TEST_F(Renumber, FailsAtEachSingleCallThatReturnsZeroEvenAtThatWith100) {
  addRecordTable(2);
  addCategories({{0xA0}});
  ASSERT_EQ(renumber(), 1);
  const std::vector<int> all = log.percents();
  for (size_t stop = 0; stop < all.size(); ++stop) {
    log.stopAt = static_cast<int>(stop);
    removeTarget();
    expectRefused();
    EXPECT_EQ(log.percents(), std::vector<int>(all.begin(), all.begin() + 1 + log.stopAt));
  }
}

// Whatever the progress function has opened under that number meanwhile is closed with it.
TEST_F(Renumber, ClosesTheTargetsNumberOnceMoreOnPurposeWhenTheCallWith100ReturnsZero) {
  addCategories({});
  log.stopAt = 1;
  log.during = [this](size_t index) {
    if (index != 1) return;
    EXPECT_EQ(OpenDBaseW(wide(kSource), 1), 2);
  };
  expectRefused();
  EXPECT_EQ(position(2), -1);
}

TEST_F(Renumber, ReportsBothNumbersWhileItRunsAndTheTargetsZeroAtTheEnd) {
  addCategories({});
  putSource(image);
  const int16_t src = OpenDBaseW(wide(kSource), 1);
  log.during = [&](size_t index) {
    EXPECT_EQ(srcRef, src);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(dstRef == 0, index == 1);
  };
  ASSERT_EQ(renumberOpen(src), 1);
  EXPECT_EQ(srcRef, src);
  EXPECT_EQ(dstRef, 0);
  CloseDBase(src);
}

TEST_F(Renumber, LeavesTheSourcesPositionAsItFoundIt) {
  addRecordTable(2);
  addCategories({{0xA0}});
  putSource(image);
  const int16_t src = OpenDBaseW(wide(kSource), 1);
  expectPositionKept(src, [&] { EXPECT_EQ(renumberOpen(src), 1); });
  log.stopAt = 2;
  allowDamage(kTarget);
  expectPositionKept(src, [&] { EXPECT_EQ(renumberOpen(src), 0); });
  CloseDBase(src);
}

TEST_F(Renumber, FindsTheDatabaseIdentifierAlsoWhenTheDirectoryIsServedFromTheCache) {
  addCategories({});
  putSource(image);
  const int16_t src = OpenDBaseW(wide(kSource), 1);
  int32_t count = 0;
  ASSERT_EQ(GetNumberOfTable(src, &count), 1);
  ASSERT_EQ(renumberOpen(src), 1);
  CloseDBase(src);
  EXPECT_NE(header(kTarget).databaseID, image.header().databaseID);
  Bytes expected = image.build();
  expected = expected.with(6, header(kTarget).databaseID);
  EXPECT_TRUE(sameBytes(contents(kTarget), expected));
}

TEST_F(Renumber, WorksWithoutAProgressFunction) {
  addCategories({});
  putSource(image);
  const int16_t src = OpenDBaseW(wide(kSource), 1);
  EXPECT_EQ(
      PackOneDB2AllNewUUIDFile(wide(kTarget), src, 0, nullptr, &srcRef, &dstRef, &status, nullptr),
      1);
  CloseDBase(src);
}

TEST_F(Renumber, RefusesANullPathWithStatus100) {
  EXPECT_EQ(PackOneDB2AllNewUUIDFile(nullptr, 1, 0, nullptr, &srcRef, &dstRef, &status, nullptr),
            0);
  EXPECT_EQ(status, 100);
  EXPECT_EQ(srcRef, kUnwritten);
  EXPECT_EQ(dstRef, kUnwritten);
}

TEST_F(Renumber, RefusesASourceThatIsNotOpenOrNoDatabaseWithoutMakingATarget) {
  EXPECT_EQ(renumberOpen(0), 0);
  EXPECT_EQ(status, 100);
  EXPECT_EQ(renumberOpen(19), 0);
  putSource(bytesOf("no database"));
  const int16_t src = OpenDBaseW(wide(kSource), 1);
  EXPECT_EQ(renumberOpen(src), 0);
  EXPECT_EQ(status, 100);
  EXPECT_EQ(dstRef, kUnwritten);
  CloseDBase(src);
  EXPECT_FALSE(targetExists());
}

TEST_F(Renumber, HasStatus100WhenTheTargetCannotBeMade) {
  addCategories({});
  std::filesystem::create_directory(path(kTarget));
  EXPECT_EQ(renumber(), 0);
  EXPECT_EQ(status, 100);
  EXPECT_EQ(srcRef, kUnwritten);
}

TEST_F(Renumber, RefusesItsSourceAsTarget) {
  addCategories({});
  putSource(image);
  const int16_t src = OpenDBaseW(wide(kSource), 3);
  EXPECT_EQ(
      PackOneDB2AllNewUUIDFile(wide(kSource), src, 0, nullptr, &srcRef, &dstRef, &status, nullptr),
      0);
  CloseDBase(src);
  EXPECT_TRUE(sameBytes(contents(kSource), image.build()));
}

TEST_F(Renumber, KeepsTheTargetOfAFailedCallWhenTheStatusIs100AtThatMoment) {
  addCategories({});
  log.stopAt = 0;
  log.during = [this](size_t) { status = 100; };
  EXPECT_EQ(renumber(), 0);
  EXPECT_EQ(fileSize(kTarget), kDirectoryEnd);
}

TEST_F(Renumber, SetsTheTargetNumberToZeroOnlyAfterAFailureWithABufferInMemory) {
  addRecordTable(2);
  addCategories({{0xA0}});
  for (size_t room = 0; room < static_cast<size_t>(image.end()); room += 11) {
    host.fullAfter(room);
    EXPECT_EQ(renumber(), 0);
    host.heal();
    // Header; slots; records, whose last writes go to what is there already.
    const bool inDirectory = room >= kHeaderBytes && room < kDirectoryEnd;
    EXPECT_EQ(dstRef == 0, !inDirectory) << room;
    expectTargetEmptied();
  }
  host.heal();
  log.stopAt = 1;
  expectRefused();
  EXPECT_NE(dstRef, 0);
}

// The writes of records are gathered then: one that is refused counts as one of a record in memory.
TEST_F(Renumber, SetsTheTargetNumberToZeroWhenWritesOfRecordsFailWithoutAProgressFunction) {
  addRecordTable(2);
  addCategories({{0xA0}});
  putSource(image);
  const int16_t src = OpenDBaseW(wide(kSource), 1);
  for (size_t room = kDirectoryEnd; room < static_cast<size_t>(image.end()); room += 11) {
    host.fullAfter(room);
    dstRef = kUnwritten;
    EXPECT_EQ(PackOneDB2AllNewUUIDFile(wide(kTarget), src, 0, nullptr, &srcRef, &dstRef, &status,
                                       nullptr),
              0);
    host.heal();
    EXPECT_EQ(dstRef, 0) << room;
    expectTargetEmptied();
  }
  CloseDBase(src);
}

// ---- damage and failures ----

TEST_F(Renumber, CutsAndStopsChainsAsThePackDoes) {
  const size_t other = image.addTable("other", kOtherTable);
  for (unsigned i = 0; i < 3; ++i) image.addRecord(other, 0x800 + i, bytesOf("x"));
  addCategories({});
  allowDamage(kSource);
  image.slot(other).recordCount = 2;
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(idsOf("other").size(), 2u);
  image.slot(other).recordCount = 4000000000u;
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(idsOf("other").size(), 3u);
}

TEST_F(Renumber, TakesNoMemoryForACountThatTheFileCannotHold) {
  const size_t table = addRecordTable(3);
  image.slot(table).recordCount = 0xFFFFFFFF;
  addCategories({{0xA0}});
  allowDamage(kSource);
  ASSERT_EQ(renumber(), 1);
  for (const Event& event : host.events()) {
    if (event.call == Call::allocate) {
      EXPECT_LT(event.count, size_t{1} << 20);
    }
  }
}

TEST_F(Renumber, FailsWhenTheCategoryTableCountsMoreThanItsChainHas) {
  const size_t table = addCategories({{}, {}});
  image.slot(table).recordCount = 0xFFFFFFFF;
  allowDamage(kSource);
  expectRefused();
}

TEST_F(Renumber, EndsWithALoopAmongTheCategories) {
  addRecordTable(3);
  const size_t table = addCategories({{0xA0}, {0xA1}});
  image.record(image.slot(table).lastRecordPos).nextRecordPos = image.slot(table).firstRecordPos;
  image.slot(table).recordCount = 7;
  allowDamage(kSource);
  allowDamage(kTarget);
  ASSERT_EQ(renumber(), 1);
  const std::vector<uint64_t> ids = idsOf("QVrz_Record");
  EXPECT_EQ(idsOf("QVrz_Category").size(), 7u);
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 0)), std::vector<uint64_t>{ids[0]});
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 1)), std::vector<uint64_t>{ids[1]});
  // Lookups find the first of each identifier: the copies after it stay unchanged.
  EXPECT_EQ(secondList(payloadOf("QVrz_Category", 2)), std::vector<uint64_t>{0xA0});
}

// More records are passed before the loop is noticed than the file seems to have space for.
TEST_F(Renumber, EndsWithALongLoopAmongShortCategories) {
  const size_t table = image.addTable("QVrz_Category", kCategoryTable);
  for (unsigned i = 0; i < 300; ++i) image.addRecord(table, 0x900 + i, {});
  image.record(image.slot(table).lastRecordPos).nextRecordPos = image.slot(table).firstRecordPos;
  image.slot(table).recordCount = 1000;
  allowDamage(kSource);
  allowDamage(kTarget);
  ASSERT_EQ(renumber(), 1);
  EXPECT_EQ(idsOf("QVrz_Category").size(), 1000u);
}

TEST_F(Renumber, FailsWhereverAReadFails) {
  addRecordTable(2);
  addCategories({{0xA0}});
  putSource(image);
  for (int step = 0;; ++step) {
    const int16_t src = OpenDBaseW(wide(kSource), 1);
    host.failFrom(Call::read, step);
    const int result = renumberOpen(src);
    host.heal();
    CloseDBase(src);
    if (!host.failed()) break;
    EXPECT_EQ(result, 0) << step;
  }
  allowDamage(kTarget);
}

TEST_F(Renumber, FailsWhereverAWriteFailsOnce) {
  addRecordTable(2);
  addCategories({{0xA0}});
  for (int step = 0;; ++step) {
    host.failOnce(Call::write, step);
    const int result = renumber();
    host.heal();
    if (!host.failed()) break;
    EXPECT_EQ(result, 0) << step;
    expectTargetEmptied();
  }
  allowDamage(kTarget);
}

// The one between two others moves, as its free bytes claim more than the file holds after them:
// its new block is written, and then both of its neighbours.
TEST_F(Renumber, FailsWhereverAWriteFailsWhileACategoryMoves) {
  const size_t table = image.addTable("QVrz_Category", kCategoryTable);
  Bytes moving = categoryPayload({});
  moving.putBe(100, 4, 200);
  image.addRecord(table, 0xBF, categoryPayload({}));
  image.addRecord(table, 0xC0, moving);
  image.addRecord(table, 0xC1, categoryPayload({}));
  ASSERT_EQ(renumber(), 1);
  ASSERT_EQ(payloadOf("QVrz_Category", 1).size(), 104u + 200);
  for (int step = 0;; ++step) {
    host.failFrom(Call::write, step);
    const int result = renumber();
    host.heal();
    if (!host.failed()) break;
    EXPECT_EQ(result, 0) << step;
    expectTargetEmptied();
  }
}

// Of all allocations, only three may fail without failing the call: the cache entries of the two
// files, the list of the categories (which then stay as they were copied), and the payload of a
// category (which then stays, too). Without the header copy the new file has no tables to find.
TEST_F(Renumber, LeavesCategoriesAsTheyWereCopiedWithoutMemoryForTheirListOrPayloadOnPurpose) {
  addRecordTable(2);
  addCategories({{0xA0}});
  int unchanged = 0;
  for (int step = 0;; ++step) {
    host.failOnce(Call::allocate, step);
    const int result = renumber();
    host.heal();
    if (!host.failed()) break;
    if (result == 0) {
      EXPECT_TRUE(status == 100 || fileSize(kTarget) == 0);
      continue;
    }
    if (secondList(payloadOf("QVrz_Category", 0)) == std::vector<uint64_t>{0xA0}) ++unchanged;
  }
  EXPECT_EQ(unchanged, 2);
  allowDamage(kTarget);
}

TEST_F(Renumber, KeepsNoMemory) {
  addRecordTable(3);
  addCategories({{0xA0}, {0xA1}});
  ASSERT_EQ(renumber(), 1);
  const size_t held = host.heldBlocks();
  ASSERT_EQ(renumber(), 1);
  addCategories({});
  EXPECT_EQ(host.heldBlocks(), held);
  image.slot(0).recordCount = 2;  // now a category lists one that is not counted
  log.stopAt = 3;
  allowDamage(kSource);
  ASSERT_EQ(renumber(), 0);
  EXPECT_EQ(host.heldBlocks(), held);
  allowDamage(kTarget);
}

}  // namespace
}  // namespace qvdbase::test
