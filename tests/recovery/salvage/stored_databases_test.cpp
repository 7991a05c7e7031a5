// Databases that are stored in payloads, or lie side by side in an image, are salvaged as well:
// each into a file of its own.
#include <qvdbase/qvdb/error.hpp>

#include "kit/file_image.h"
#include "platform/host/system_calls.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

FileImage innerImage(const std::string& name, uint64_t id) {
  FileImage image;
  const size_t table = image.addTable(name, id);
  image.addRecord(table, 0x901, bytesOf(name + " one"));
  image.addRecord(table, 0x902, bytesOf(name + " two"), {.reserve = 30});
  return image;
}

Contents innerContents(const std::string& name) {
  return {{0x901, bytesOf(name + " one")}, {0x902, bytesOf(name + " two")}};
}

class StoredDatabases : public testing::Test {
 protected:
  // A database that holds `payload` between two other records.
  explicit StoredDatabases(const Bytes& payload = innerImage("inner", 0x4411).build()) {
    a = outer.addRecord(table, 0xA1, bytesOf("before"));
    b = outer.addRecord(table, 0xA2, payload);
    c = outer.addRecord(table, 0xA3, bytesOf("after"));
  }

  qvdb::SalvageReport salvage(const Bytes& bytes, const qvdb::SalvageOptions& options = {}) {
    qvdb::SalvageOptions deep = options;
    deep.deep_to = folder / "inside/here";
    deep.create_folders = true;
    return qvdb::salvage_image(asBytes(bytes), folder / "saved.qvd", {}, deep);
  }

  std::filesystem::path fileAt(int64_t offset) const {
    return folder / ("inside/here/at-" + std::to_string(offset) + ".qvd");
  }

  // Expects a sound file with this one table.
  void expectSaved(int64_t offset, const std::string& name, const Contents& contents) {
    const std::vector<Finding> findings = checkFile(fileAt(offset));
    EXPECT_TRUE(findings.empty()) << describe(findings);
    const ReadDatabase saved = readDatabase(fileAt(offset));
    ASSERT_EQ(saved.tables.size(), 1u);
    EXPECT_EQ(saved.tables[0].name, name);
    EXPECT_EQ(contentsOf(saved.tables[0]), contents);
  }

  TempFolder folder;
  FileImage outer;
  size_t table = outer.addTable("outer", 0x11);
  int64_t a = 0;
  int64_t b = 0;
  int64_t c = 0;
};

TEST_F(StoredDatabases, GoIntoFilesOfTheirOwn) {
  const qvdb::SalvageReport report = salvage(outer.build());
  ASSERT_EQ(report.stored.size(), 1u);
  EXPECT_EQ(report.stored[0].offset, b + 55);
  EXPECT_EQ(report.stored[0].file, fileAt(b + 55));
  EXPECT_EQ(report.stored[0].report.tables_written, 1u);
  EXPECT_EQ(report.stored[0].report.records_written, 2u);
  EXPECT_TRUE(report.stored[0].report.verified);
  expectSaved(b + 55, "inner", innerContents("inner"));
  EXPECT_EQ(report.records_written, 3u);
  EXPECT_EQ(readDatabase(folder / "saved.qvd").tables.size(), 1u);
}

TEST_F(StoredDatabases, AreLeftAloneUnlessTheyAreAskedFor) {
  const Bytes bytes = outer.build();
  EXPECT_TRUE(qvdb::salvage_image(asBytes(bytes), folder / "saved.qvd").stored.empty());
  EXPECT_FALSE(std::filesystem::exists(folder / "inside"));
}

TEST_F(StoredDatabases, AreFoundInDeletedRecords) {
  outer.record(a).nextRecordPos = c;
  outer.record(c).prevRecordPos = a;
  outer.slot(table).recordCount = 2;
  EXPECT_EQ(salvage(outer.build()).records_written, 2u);
  expectSaved(b + 55, "inner", innerContents("inner"));
}

// That a live record holds the same database makes its tables no tables of the outer one.
TEST_F(StoredDatabases, AreFoundInDeletedAndLiveRecordsAtOnce) {
  const int64_t d = outer.addRecord(table, 0xA4, innerImage("inner", 0x4411).build());
  outer.record(a).nextRecordPos = c;
  outer.record(c).prevRecordPos = a;
  outer.slot(table).recordCount = 3;
  const qvdb::SalvageReport report = salvage(outer.build(), {.deleted = true});
  EXPECT_EQ(report.stored.size(), 2u);
  EXPECT_EQ(report.records_written, 4u);
  EXPECT_EQ(report.records_cut, 0u);
  EXPECT_EQ(report.blocks_left_out, 0u);
  expectSaved(b + 55, "inner", innerContents("inner"));
  expectSaved(d + 55, "inner", innerContents("inner"));
}

TEST_F(StoredDatabases, AreSalvagedUnderTheSameOptions) {
  FileImage inner = innerImage("inner", 0x4411);
  RecordFields dead;
  dead.tableID = identifier(0x4411);
  dead.recordID = identifier(0xDD);
  dead.room = bytesOf("deleted");
  dead.dataLength = dead.dataCapacity = 7;
  inner.addDeadRecord(dead);
  inner.slot(0).recordWriteCount = 3;
  FileImage image;
  const int64_t at = image.addRecord(image.addTable("outer", 0x11), 0xA1, inner.build());
  salvage(image.build(), {.deleted = true, .in_place_tables = true});
  Contents contents = innerContents("inner");
  contents.emplace_back(0xDD, bytesOf("deleted"));
  expectSaved(at + 55, "inner", contents);
}

TEST_F(StoredDatabases, InsideOthersAreFoundToo) {
  FileImage middle;
  const int64_t within =
      middle.addRecord(middle.addTable("middle", 0x22), 0xB1, innerImage("inner", 0x4411).build());
  FileImage image;
  const int64_t at = image.addRecord(image.addTable("outer", 0x11), 0xA1, middle.build());
  EXPECT_EQ(salvage(image.build()).stored.size(), 2u);
  expectSaved(at + 55 + within + 55, "inner", innerContents("inner"));
  EXPECT_EQ(readDatabase(fileAt(at + 55)).tables.at(0).name, "middle");
}

TEST_F(StoredDatabases, SideBySideInAnImageEachGetAFile) {
  const Bytes first = innerImage("first", 0x4411).build();
  Bytes image = pattern(5000);
  image.add(first).add(pattern(3000)).add(innerImage("second", 0x4422).build());
  const auto second = static_cast<int64_t>(5000 + first.size() + 3000);
  EXPECT_EQ(salvage(image).stored.size(), 2u);
  expectSaved(5000, "first", innerContents("first"));
  expectSaved(second, "second", innerContents("second"));
}

// The older one has no blocks of what was added later.
TEST_F(StoredDatabases, SideBySideAreNotMixedWhenOneIsALaterCopyOfTheOther) {
  FileImage later = innerImage("inner", 0x4411);
  later.addRecord(0, 0x903, bytesOf("inner three"));
  Bytes image = pattern(5000);
  image.add(innerImage("inner", 0x4411).build());
  const auto second = static_cast<int64_t>(image.size());
  image.add(later.build());
  EXPECT_EQ(salvage(image).stored.size(), 2u);
  expectSaved(5000, "inner", innerContents("inner"));
  Contents contents = innerContents("inner");
  contents.emplace_back(0x903, bytesOf("inner three"));
  expectSaved(second, "inner", contents);
}

// A database in a record whose header was destroyed does not end the one around it.
TEST_F(StoredDatabases, SideBySideReachAsFarAsTheirDirectoriesSay) {
  Bytes image = pattern(5000);
  image.add(outer.build().with(static_cast<size_t>(b), Bytes().fill(55, 0xEE)));
  salvage(image);
  const ReadDatabase saved = readDatabase(fileAt(5000));
  ASSERT_EQ(saved.tables.size(), 1u);
  EXPECT_EQ(contentsOf(saved.tables[0]),
            (Contents{{0xA1, bytesOf("before")}, {0xA3, bytesOf("after")}}));
  expectSaved(5000 + b + 55, "inner", innerContents("inner"));
}

TEST_F(StoredDatabases, WithoutTablesTakeNothingOfWhatFollows) {
  Bytes image = pattern(5000);
  image.add(FileImage().build()).add(innerImage("inner", 0x4411).build());
  EXPECT_EQ(salvage(image).stored.size(), 2u);
  EXPECT_TRUE(readDatabase(fileAt(5000)).tables.empty());
  expectSaved(5000 + 4630, "inner", innerContents("inner"));
}

TEST_F(StoredDatabases, InSpareCapacityEndWithTheirBlock) {
  const Bytes inner = innerImage("inner", 0x4411).build();
  FileImage image;
  const size_t holder = image.addTable("outer", 0x11);
  const int64_t at = image.addRecord(holder, 0xA1, inner);
  image.addRecord(holder, 0xA2, bytesOf("after"));
  image.record(at).dataLength = 0;
  image.record(at).nextRecordPos = 0;  // deleted: dead blocks are searched as a whole
  image.slot(holder).recordCount = 0;
  image.slot(holder).firstRecordPos = image.slot(holder).lastRecordPos = 0;
  image.slot(holder).lastWrittenRecordPos = 0;
  EXPECT_EQ(salvage(image.build()).stored.size(), 1u);
  expectSaved(at + 55, "inner", innerContents("inner"));
}

TEST_F(StoredDatabases, NeedAFolderThatCanBeMade) {
  writeFile(folder / "inside", bytesOf("a file"));
  try {
    salvage(outer.build());
    ADD_FAILURE() << "no error";
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(error.reason(), qvdb::Reason::path_not_reachable);
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "saved.qvd"));
}

// What comes after the payload belongs to the outer database.
TEST_F(StoredDatabases, EndWhereTheirPayloadEnds) {
  const Bytes whole = innerImage("inner", 0x4411).build();
  FileImage image;
  const size_t outerTable = image.addTable("outer", 0x11);
  const int64_t at =
      image.addRecord(outerTable, 0xA1, whole.cut(whole.size() - 22 - 3));  // end mark, spare bytes
  image.addRecord(outerTable, 0xA2, bytesOf("after"));
  salvage(image.build());
  expectSaved(at + 55, "inner", {{0x901, bytesOf("inner one")}, {0x902, bytesOf("inner ")}});
}

TEST_F(StoredDatabases, CountOffsetsFromWhereTheOuterOneBegins) {
  Bytes image = pattern(700);
  image.add(outer.build());
  EXPECT_EQ(salvage(image, {.from = 700}).stored.at(0).offset, b + 55);
  expectSaved(b + 55, "inner", innerContents("inner"));
}

TEST_F(StoredDatabases, AreNotTheOneWhoseDirectoryIsIgnored) {
  EXPECT_EQ(salvage(outer.build(), {.ignore_directory = true}).stored.size(), 1u);
}

// An old header that was left in front of a database does not hide it.
TEST_F(StoredDatabases, AreFoundAfterAHeaderThatWasLeft) {
  const Bytes inner = innerImage("inner", 0x4411).build();
  Bytes payload = inner.cut(512);
  payload.add(inner);
  FileImage image;
  const int64_t at = image.addRecord(image.addTable("outer", 0x11), 0xA1, payload);
  salvage(image.build());
  expectSaved(at + 55 + 512, "inner", innerContents("inner"));
}

TEST_F(StoredDatabases, TellOfWhatIsCutInThem) {
  const Bytes whole = innerImage("inner", 0x4411).build();
  FileImage image;
  image.addRecord(image.addTable("outer", 0x11), 0xA1, whole.cut(whole.size() - 22 - 3));
  EXPECT_EQ(salvage(image.build()).stored.at(0).report.records_cut, 1u);
}

// As many bytes as a file can have are missing at the front.
TEST_F(StoredDatabases, AreFoundAfterAFrontThatIsMissing) {
  const int64_t missing = int64_t{1} << 50;
  const qvdb::SalvageReport report = salvage(outer.build(), {.from = -missing});
  ASSERT_EQ(report.stored.size(), 2u);
  EXPECT_EQ(report.stored[0].offset, missing);
  expectSaved(missing + b + 55, "inner", innerContents("inner"));
}

TEST_F(StoredDatabases, AreRefusedBeforeAnythingIsWrittenWhenAFileIsThere) {
  std::filesystem::create_directories(folder / "inside/here");
  writeFile(fileAt(b + 55), bytesOf("here"));
  try {
    salvage(outer.build());
    ADD_FAILURE() << "no error";
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(error.reason(), qvdb::Reason::file_exists);
    EXPECT_EQ(error.remedy(), qvdb::Remedy::other_folder);
    EXPECT_NE(std::string(error.what()).find(fileAt(b + 55).native()), std::string::npos);
  }
  EXPECT_EQ(readFile(fileAt(b + 55)), bytesOf("here"));
  EXPECT_FALSE(std::filesystem::exists(folder / "saved.qvd"));
}

TEST_F(StoredDatabases, TakeEverythingBackWhenOneOfThemCannotBeWritten) {
  outer.addRecord(table, 0xA4, innerImage("other", 0x4422).build());
  static int left;
  left = 2;  // the outer one and the first of the inner ones
  platform::SystemCalls calls = platform::hostSystemCalls();
  calls.writeAt = [](int fd, const void* bytes, size_t count, off_t position) -> ssize_t {
    if (--left >= 0) return pwrite(fd, bytes, count, position);
    errno = ENOSPC;
    return -1;
  };
  platform::replaceSystemCalls(&calls);
  EXPECT_THROW(salvage(outer.build()), qvdb::Error);
  platform::replaceSystemCalls(nullptr);
  EXPECT_LT(left, 0);
  EXPECT_FALSE(std::filesystem::exists(folder / "saved.qvd"));
  EXPECT_FALSE(std::filesystem::exists(folder / "inside"));
}

// Each of them holds all that are inside it.
TEST_F(StoredDatabases, AreNotWrittenBeyondFourTimesTheSource) {
  Bytes nested = bytesOf("innermost");
  constexpr size_t kDepth = 40;
  for (size_t i = 0; i < kDepth; ++i) {
    FileImage around;
    around.addRecord(around.addTable("around", 0x11), 0xA1, nested);
    nested = around.build();
  }
  const qvdb::SalvageReport report = salvage(nested);
  uint64_t written = 0;
  for (const qvdb::StoredDatabase& each : report.stored) {
    written += std::filesystem::file_size(each.file);
    EXPECT_TRUE(each.report.verified);
  }
  EXPECT_LE(written, 4 * nested.size());
  EXPECT_GT(written, 2 * nested.size());
  ASSERT_LT(report.stored.size(), kDepth - 1);
  ASSERT_EQ(report.notes.size(), 1u);
  const size_t left = kDepth - 1 - report.stored.size();
  EXPECT_TRUE(report.notes[0].starts_with(std::to_string(left) +
                                          " databases stored in payloads were not written"))
      << report.notes[0];
  int64_t first = 4630 + 55;
  while (std::filesystem::exists(fileAt(first))) first += 4630 + 55;
  EXPECT_NE(report.notes[0].find(": " + std::to_string(first) + ", "), std::string::npos)
      << report.notes[0];
  EXPECT_NE(report.notes[0].find(" more."), std::string::npos) << report.notes[0];
}

TEST_F(StoredDatabases, AreTakenUpToAThousand) {
  FileImage image;
  const size_t holder = image.addTable("holder", 0x11);
  const Bytes empty = FileImage().build();
  for (uint64_t i = 1; i <= 1002; ++i) image.addRecord(holder, i, empty);
  const qvdb::SalvageReport report = salvage(image.build());
  EXPECT_EQ(report.stored.size(), 1000u);
  ASSERT_EQ(report.notes.size(), 1u);
  EXPECT_EQ(report.notes[0], "Payloads seem to hold 2 more databases than are salvaged at once.");
}

}  // namespace
}  // namespace qvdbase::test
