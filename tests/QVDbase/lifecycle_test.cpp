// Creating, opening, inspecting and closing databases, and the version in the header.
#include <qvdbase/QVFile.h>
#include <qvdbase/caches.h>

#include <array>
#include <cstring>

#include "kit/database_fixture.h"
#include "kit/fake_host.h"

namespace qvdbase::test {
namespace {

const char* kFreeSlot =
    "00 CC 3200"
    "0000 00000000000000000000"
    "0000000000000000000000000000000000000000000000000000000000000000 0000 0000"
    "CCCCCCCC 2800 CCCC 00000000 00000000 CCCCCCCC"
    "0000000000000000 0000000000000000 0000000000000000"
    "2800 CCCC 00000000 00000000 CCCCCCCC"
    "0000000000000000 0000000000000000 0000000000000000 00 CCCCCCCCCCCCCC";

// Whether the directory of an open database can be read, as every table operation does first.
bool directoryReads(int16_t db) {
  int32_t count = 0;
  return GetNumberOfTable(db, &count) == 1;
}

// ---- creating ----

using CreatingADatabase = DatabaseTest;

TEST_F(CreatingADatabase, WritesAHeaderAnd32FreeSlots) {
  ASSERT_NE(create("new.qvd", 0x0066), 0);
  const Bytes file = contents("new.qvd");
  ASSERT_EQ(file.size(), 4630u);
  EXPECT_EQ(file.at(0, 6), hex("51566462 0066"));
  EXPECT_EQ(file.at(16, 6), hex("0000 0020 0090"));
  Bytes directory;
  for (int i = 0; i < 32; ++i) directory.add(hex(kFreeSlot));
  EXPECT_TRUE(sameBytes(file.from(22), directory));
}

TEST_F(CreatingADatabase, GivesItAnIdentifierWithTheRightSum) {
  create();
  const Bytes id = contents().at(6, 10);
  EXPECT_TRUE(identifierSound(id));
  EXPECT_NE(identifierNumber(id), 0u);
}

TEST_F(CreatingADatabase, GivesEachAnIdentifierOfItsOwn) {
  create("a.qvd");
  create("b.qvd");
  EXPECT_NE(contents("a.qvd").at(6, 10), contents("b.qvd").at(6, 10));
}

TEST_F(CreatingADatabase, LeavesItOpenAtItsEnd) {
  EXPECT_EQ(position(create()), 4630);
}

TEST_F(CreatingADatabase, LeavesItOpenForWriting) {
  const int16_t db = create();
  EXPECT_NE(AddTable(db, "t"), 0u);
}

TEST_F(CreatingADatabase, ExcludesAnotherWriterOfTheSameKind) {
  create();
  EXPECT_EQ(OpenDBaseW(wide(), 3), 0);
  EXPECT_EQ(OpenDBaseW(wide(), 2), 0);
}

TEST_F(CreatingADatabase, EntersNothingIntoTheDirectoryCache) {
  EXPECT_EQ(SearchForGDB2TCache(create()), -1);
}

TEST_F(CreatingADatabase, StoresAnySignatureThoughReadersRefuseIt) {
  const int16_t db = CreateDBaseW(wide(), "\0\1\2\3", 100);
  ASSERT_NE(db, 0);
  EXPECT_EQ(contents().cut(4), hex("00010203"));
  EXPECT_FALSE(directoryReads(db));
  EXPECT_NE(CloseDBase(db), 0);
}

TEST_F(CreatingADatabase, StoresTheLow16BitsOfTheVersion) {
  close(create("a.qvd", 0x12345));
  close(create("b.qvd", -1));
  EXPECT_EQ(contents("a.qvd").at(4, 2), hex("2345"));
  EXPECT_EQ(contents("b.qvd").at(4, 2), hex("FFFF"));
  expectDamage("a.qvd", {"H2"});
  expectDamage("b.qvd", {"H2"});
}

TEST_F(CreatingADatabase, EmptiesAFileThatIsThere) {
  writeFile(path(), pattern(10000));
  ASSERT_NE(create(), 0);
  EXPECT_EQ(fileSize(), 4630u);
}

TEST_F(CreatingADatabase, MakesMissingFolders) {
  ASSERT_NE(create("one/two/three.qvd"), 0);
  EXPECT_EQ(fileSize("one/two/three.qvd"), 4630u);
}

TEST_F(CreatingADatabase, RefusesAFileThatIsOpenAndChangesNothingInIt) {
  for (const int permission : {1, 3, 4}) {
    const std::string name = "used" + std::to_string(permission) + ".qvd";
    close(create(name));
    open(name, permission);
    expectUnchanged([&] { EXPECT_EQ(CreateDBaseW(wide(name), "QVdb", 100), 0); }, name);
  }
}

TEST_F(CreatingADatabase, RefusesAFolder) {
  std::filesystem::create_directory(path("folder"));
  EXPECT_EQ(CreateDBaseW(wide("folder"), "QVdb", 100), 0);
}

TEST_F(CreatingADatabase, RefusesNull) {
  EXPECT_EQ(CreateDBaseW(nullptr, "QVdb", 100), 0);
  EXPECT_EQ(CreateDBaseW(wide(), nullptr, 100), 0);
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(CreatingADatabase, LeavesThePartialFileOpenWhenAWriteFails) {
  const int16_t next = create("first.qvd");
  close(next);
  const auto failEach = [&](const std::string& prefix, const auto& failAt) {
    for (int step = 0;; ++step) {
      const std::string name = prefix + std::to_string(step);
      FakeHost host;
      failAt(host, step);
      const int16_t db = CreateDBaseW(wide(name), "QVdb", 100);
      host.heal();
      if (!host.failed()) {
        EXPECT_NE(db, 0);
        EXPECT_NE(CloseDBase(db), 0);
        break;
      }
      EXPECT_EQ(db, 0);
      ASSERT_TRUE(std::filesystem::exists(path(name)));
      EXPECT_LT(fileSize(name), 4630u);
      EXPECT_EQ(OpenDBaseW(wide(name), 3), 0) << "the file is not open any more";
      EXPECT_NE(CloseDBase(next), 0);  // the number that was not returned
      allowDamage(name);
    }
  };
  failEach("partial", [](FakeHost& host, int step) { host.failFrom(Call::write, step); });
  failEach("interrupted", [](FakeHost& host, int step) { host.failOnce(Call::write, step); });
}

// ---- opening ----

using OpeningADatabase = DatabaseTest;

TEST_F(OpeningADatabase, IsAtTheBeginning) {
  close(create());
  EXPECT_EQ(position(open()), 0);
}

TEST_F(OpeningADatabase, DoesNotLookAtTheContents) {
  FakeHost host;
  writeFile(path("empty"), {});
  writeFile(path("other"), bytesOf("this is no database"));
  for (const char* name : {"empty", "other"}) {
    const int16_t db = OpenDBaseW(wide(name), 3);
    EXPECT_NE(db, 0) << name;
    EXPECT_EQ(host.count(FakeHost::Call::read), 0);
    EXPECT_NE(CloseDBase(db), 0);
  }
}

TEST_F(OpeningADatabase, OfAnotherFileLetsEveryTableOperationFail) {
  writeFile(path("other"), bytesOf("this is no database, though it is longer than a header"));
  const int16_t db = OpenDBaseW(wide("other"), 3);
  const Bytes before = contents("other");
  int32_t count = 99;
  uint32_t size = 99;
  EXPECT_EQ(GetNumberOfTable(db, &count), 0);
  EXPECT_EQ(AddTable(db, "t"), 0u);
  EXPECT_EQ(FindTableByName(db, "t"), 0u);
  EXPECT_EQ(GetTableDataSize(db, 1, &size), 0);
  EXPECT_EQ(SetTableData(db, 1, nullptr, 0, 0), 0);
  EXPECT_EQ(count, 99);
  EXPECT_EQ(size, 99u);
  EXPECT_EQ(contents("other"), before);
  EXPECT_NE(CloseDBase(db), 0);
}

TEST_F(OpeningADatabase, FailsWithoutAFile) {
  EXPECT_EQ(OpenDBaseW(wide("missing.qvd"), 3), 0);
  EXPECT_EQ(OpenDBaseW(wide("missing/file.qvd"), 3), 0);
  EXPECT_EQ(OpenDBaseW(nullptr, 3), 0);
  EXPECT_FALSE(std::filesystem::exists(path("missing.qvd")));
}

TEST_F(OpeningADatabase, ForReadingOnlyLetsNothingBeWritten) {
  close(create());
  const int16_t db = open(kDefaultFile, 1);
  EXPECT_TRUE(directoryReads(db));
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_EQ(AddTable(db, "t"), 0u);
      EXPECT_EQ(SetDBaseVersion(db, 150), 0);
    });
  });
}

TEST_F(OpeningADatabase, TakesThePermissionFromTheLow8Bits) {
  close(create());
  const int16_t db = OpenDBaseW(wide(), 256 + 1);
  EXPECT_NE(db, 0);
  EXPECT_EQ(AddTable(db, "t"), 0u);
  EXPECT_NE(CloseDBase(db), 0);
}

TEST_F(OpeningADatabase, RefusesAnUnknownPermission) {
  close(create());
  for (const int permission : {5, -1, 127, 128, 255}) {
    EXPECT_EQ(OpenDBaseW(wide(), permission), 0) << permission;
  }
}

// ---- closing and flushing ----

using ClosingADatabase = DatabaseTest;

TEST_F(ClosingADatabase, FreesItsHandle) {
  const int16_t db = create();
  close(db);
  EXPECT_EQ(position(db), -1);
  EXPECT_EQ(open(), db);
}

TEST_F(ClosingADatabase, DropsItsCacheEntry) {
  const int16_t db = create();
  ASSERT_TRUE(directoryReads(db));
  ASSERT_NE(SearchForGDB2TCache(db), -1);
  close(db);
  EXPECT_EQ(SearchForGDB2TCache(db), -1);
}

TEST_F(ClosingADatabase, DropsItsCacheEntryAlsoWhenTheCloseFails) {
  const int16_t db = CreateDBaseW(wide(), "QVdb", 100);
  ASSERT_TRUE(directoryReads(db));
  ASSERT_EQ(QVFile().QVCloseFile(db), 1);  // without the engine
  ASSERT_NE(SearchForGDB2TCache(db), -1);
  EXPECT_EQ(CloseDBase(db), 0);
  EXPECT_EQ(SearchForGDB2TCache(db), -1);
}

TEST_F(ClosingADatabase, LeavesTheEntriesOfOthersAlone) {
  const int16_t a = create("a.qvd");
  const int16_t b = create("b.qvd");
  ASSERT_TRUE(directoryReads(a) && directoryReads(b));
  close(a);
  EXPECT_NE(SearchForGDB2TCache(b), -1);
  EXPECT_TRUE(directoryReads(b));
}

TEST_F(ClosingADatabase, FailsForAHandleThatIsNotOpen) {
  const int16_t db = create();
  close(db);
  EXPECT_EQ(CloseDBase(db), 0);
  EXPECT_EQ(CloseDBase(0), 0);
  EXPECT_EQ(CloseDBase(-1), 0);
}

TEST(FlushingADatabase, SucceedsForAnyHandle) {
  for (const int db : {0, 1, -1, 32767, -32768}) {
    EXPECT_EQ(FlushDBase(static_cast<int16_t>(db)), 1);
  }
}

// ---- inspecting ----

class InspectingAFile : public DatabaseTest {
 protected:
  // The outputs, one byte longer than they must be.
  std::array<unsigned char, 6> signature_ = {'#', '#', '#', '#', '#', '#'};
  uint16_t version_ = 0xEEEE;
  std::array<unsigned char, 11> id_ = {};

  void SetUp() override { id_.fill('#'); }

  int inspect(const std::string& name = kDefaultFile) {
    return GetDBaseInfoW(wide(name), signature_.data(), &version_, id_.data());
  }

  void expectUntouched() {
    EXPECT_EQ(signature_[0], '#');
    EXPECT_EQ(version_, 0xEEEE);
    EXPECT_EQ(id_[0], '#');
  }
};

TEST_F(InspectingAFile, ReportsSignatureVersionAndIdentifier) {
  close(create(kDefaultFile, 123));
  EXPECT_EQ(inspect(), 1);
  EXPECT_EQ(std::memcmp(signature_.data(), "QVdb\0#", 6), 0);
  EXPECT_EQ(version_, 123);
  EXPECT_EQ(Bytes(id_.begin(), id_.end()), contents().at(6, 10).text("#"));
}

TEST_F(InspectingAFile, LeavesOutWhatIsNotAskedFor) {
  close(create(kDefaultFile, 123));
  EXPECT_EQ(GetDBaseInfoW(wide(), nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(GetDBaseInfoW(wide(), nullptr, &version_, nullptr), 1);
  EXPECT_EQ(version_, 123);
  EXPECT_EQ(GetDBaseInfoW(wide(), signature_.data(), nullptr, nullptr), 1);
  EXPECT_EQ(signature_[0], 'Q');
  EXPECT_EQ(GetDBaseInfoW(wide(), nullptr, nullptr, id_.data()), 1);
  EXPECT_EQ(id_[0], contents()[6]);
}

TEST_F(InspectingAFile, ReportsTheVersionWhateverItsValue) {
  for (const int version : {0, 99, 200, 65535}) {
    close(create(kDefaultFile, version));
    EXPECT_EQ(inspect(), 1);
    EXPECT_EQ(version_, version);
  }
  expectDamage(kDefaultFile, {"H2"});
}

TEST_F(InspectingAFile, AcceptsItsLettersInEitherCase) {
  for (const char* letters : {"QV  ", "qV  ", "Qv  ", "qv  "}) {
    FileImage image;
    image.header().signature = bytesOf(letters);
    writeFile(path(), image.build());
    EXPECT_EQ(inspect(), 1) << letters;
    EXPECT_EQ(std::memcmp(signature_.data(), letters, 5), 0);
  }
}

TEST_F(InspectingAFile, RefusesOtherLettersAndTheOtherOrder) {
  for (const char* letters : {"VQ  ", "Vq  ", "vq  ", "QQ  ", "VV  ", "XV  ", "QX  ", " QV "}) {
    FileImage image;
    image.header().signature = bytesOf(letters);
    writeFile(path("other"), image.build());
    EXPECT_EQ(inspect("other"), 0) << letters;
  }
  expectUntouched();
  allowDamage("other");
}

TEST_F(InspectingAFile, NeedsTheFirst16Bytes) {
  const Bytes file = FileImage().build();
  for (size_t length = 0; length < 16; ++length) {
    writeFile(path("short"), file.cut(length));
    EXPECT_EQ(inspect("short"), 0) << length;
  }
  expectUntouched();
  writeFile(path("short"), file.cut(16));
  EXPECT_EQ(inspect("short"), 1);
  allowDamage("short");
}

TEST_F(InspectingAFile, FailsWithoutAFile) {
  EXPECT_EQ(inspect("missing"), 0);
  EXPECT_EQ(GetDBaseInfoW(nullptr, signature_.data(), &version_, id_.data()), 0);
  expectUntouched();
}

TEST_F(InspectingAFile, LeavesNoHandleOpen) {
  close(create());
  writeFile(path("other"), bytesOf("other"));
  const int16_t before = open();
  close(before);
  EXPECT_EQ(inspect(), 1);
  EXPECT_EQ(inspect("other"), 0);
  EXPECT_EQ(open(), before);
}

TEST_F(InspectingAFile, WorksBesideAWriterOfThisProcess) {
  const int16_t db = create(kDefaultFile, 177);
  EXPECT_EQ(inspect(), 1);
  EXPECT_EQ(version_, 177);
  expectPositionKept(db, [&] { EXPECT_EQ(inspect(), 1); });
}

TEST_F(InspectingAFile, ChangesNothing) {
  close(create());
  expectUnchanged([&] { EXPECT_EQ(inspect(), 1); });
}

TEST_F(InspectingAFile, DropsAnEntryThatBelongedToItsHandleNumber) {
  close(create());
  writeFile(path("other"), bytesOf("other"));
  for (const char* name : {kDefaultFile, "other"}) {
    const int16_t db = OpenDBaseW(wide(), 3);
    ASSERT_TRUE(directoryReads(db));
    ASSERT_EQ(QVFile().QVCloseFile(db), 1);  // leaves the entry in the cache
    ASSERT_NE(SearchForGDB2TCache(db), -1);
    inspect(name);
    EXPECT_EQ(SearchForGDB2TCache(db), -1) << name;
  }
}

// ---- the version ----

using SettingTheVersion = DatabaseTest;

TEST_F(SettingTheVersion, WritesTwoBytesAndKeepsThePosition) {
  const int16_t db = create();
  const Bytes before = contents();
  expectPositionKept(db, [&] { EXPECT_EQ(SetDBaseVersion(db, 0x0089), 1); });
  EXPECT_TRUE(sameBytes(contents(), before.with(4, hex("0089"))));
}

TEST_F(SettingTheVersion, TakesAnyValue) {
  const int16_t db = create();
  for (const int version : {0, 99, 200, 250, 65535}) {
    EXPECT_EQ(SetDBaseVersion(db, static_cast<uint16_t>(version)), 1);
    EXPECT_EQ(header().version, version);
  }
  expectDamage(kDefaultFile, {"H2"});
}

TEST_F(SettingTheVersion, IsNotSeenByTheDirectoryCacheUntilTheDatabaseIsOpenedAgain) {
  int16_t db = create();
  ASSERT_TRUE(directoryReads(db));
  EXPECT_EQ(SetDBaseVersion(db, 250), 1);
  EXPECT_TRUE(directoryReads(db));
  EXPECT_NE(AddTable(db, "t"), 0u);
  db = reopen(db);
  EXPECT_FALSE(directoryReads(db));
  EXPECT_EQ(AddTable(db, "u"), 0u);
  expectDamage(kDefaultFile, {"H2"});
}

TEST_F(SettingTheVersion, IsSeenAtOnceWhereTheDirectoryWasNotRead) {
  const int16_t db = create();
  EXPECT_EQ(SetDBaseVersion(db, 250), 1);
  EXPECT_FALSE(directoryReads(db));
  expectDamage(kDefaultFile, {"H2"});
}

TEST_F(SettingTheVersion, SucceedsWithoutWritingOnAHandleThatIsNotOpen) {
  const int16_t db = create();
  close(db);
  expectUnchanged([&] {
    EXPECT_EQ(SetDBaseVersion(db, 150), 1);
    EXPECT_EQ(SetDBaseVersion(0, 150), 1);
  });
}

TEST_F(SettingTheVersion, FailsWhenTheWriteFails) {
  const int16_t db = create();
  FakeHost host;
  host.failFrom(FakeHost::Call::write);
  expectPositionKept(db, [&] { EXPECT_EQ(SetDBaseVersion(db, 150), 0); });
  EXPECT_EQ(header().version, 100);
}

// ---- versions that are accepted ----

class Version : public DatabaseTest, public testing::WithParamInterface<int> {};

class VersionInRange : public Version {};
class VersionOutOfRange : public Version {};

TEST_P(VersionInRange, LetsTheDirectoryBeRead) {
  const int16_t db = create(kDefaultFile, GetParam());
  EXPECT_TRUE(directoryReads(db));
  EXPECT_NE(AddTable(db, "t"), 0u);
  if (GetParam() == 101) expectDamage(kDefaultFile, {"H3"});
}

TEST_P(VersionOutOfRange, LetsEveryTableOperationFail) {
  const int16_t db = create(kDefaultFile, GetParam());
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_FALSE(directoryReads(db));
      EXPECT_EQ(AddTable(db, "t"), 0u);
      EXPECT_EQ(FindTableByName(db, "t"), 0u);
    });
  });
  EXPECT_EQ(SearchForGDB2TCache(db), -1);
  expectDamage(kDefaultFile, {"H2"});
}

INSTANTIATE_TEST_SUITE_P(Each, VersionInRange, testing::Values(100, 101, 150, 199));
INSTANTIATE_TEST_SUITE_P(Each, VersionOutOfRange, testing::Values(0, 99, 200, 32868, 65535));

// ---- variables ----

TEST(Variables, StartAtZero) {
  EXPECT_EQ(Gbl_Flush_Time, 0);
}

TEST_F(SettingTheVersion, CountsTheBytesWritten) {
  const int16_t db = create();
  gbl_realWriten = 99;
  EXPECT_EQ(SetDBaseVersion(db, 150), 1);
  EXPECT_EQ(gbl_realWriten, 2u);
}

// The file stays open under the lowest number, at the first byte that it did not get.
TEST(CreatingOnAFullDisk, LeavesPositionAndCountWhereTheHostHasStopped) {
  TempFolder folder;
  for (size_t n = 0; n < 4630; n += n < 200 ? 1 : 97) {
    SCOPED_TRACE(n);
    FakeHost host;
    host.fullAfter(n);
    EXPECT_EQ(CreateDBaseW(folder.wide("f"), "QVdb", 100), 0);
    int64_t position = -1;
    EXPECT_EQ(QVFile().QVGetFilePos(1, &position), 1);
    EXPECT_EQ(position, static_cast<int64_t>(n));
    size_t begin = n < 22 ? 0 : 22 + (n - 22) / 144 * 144;
    for (const size_t field : {4u, 6u, 16u, 18u, 20u}) {
      if (n < 22 && n >= field) begin = field;
    }
    EXPECT_EQ(gbl_realWriten, n - begin);
    EXPECT_EQ(CloseDBase(1), 1);
  }
}

TEST_F(InspectingAFile, CountsTheBytesRead) {
  close(create());
  gbl_realReaden = 99;
  EXPECT_EQ(inspect(), 1);
  EXPECT_EQ(gbl_realReaden, 10u);
}

}  // namespace
}  // namespace qvdbase::test
