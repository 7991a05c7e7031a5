// The directory cache: one entry for each open database whose directory has been read.
#include "QVDbase/directory_cache.h"
#include "kit/layers.h"

#include <qvdbase/QVFile.h>

#include "kit/database_fixture.h"
#include "kit/fake_host.h"

namespace qvdbase::test {
namespace {

class DirectoryCache : public DatabaseTest {
 protected:
  static bool readDirectory(int16_t db) {
    int32_t count = 0;
    return GetNumberOfTable(db, &count) == 1;
  }

  static int32_t numberOfTables(int16_t db) {
    int32_t count = -99;
    EXPECT_EQ(GetNumberOfTable(db, &count), 1);
    return count;
  }

  // An entry as the engine makes it, for a handle that need not be open.
  static void addEntry(int16_t db, int16_t tableCount) {
    DirectoryCacheEntry entry = {};
    entry.fileRef = db;
    entry.tableCount = tableCount;
    entry.slotCount = 32;
    entry.slotSize = 144;
    entry.directoryPos = 22;
    ASSERT_EQ(gbl_Gdb2tDQ.Add(&entry, sizeof entry), 1);
  }

  void TearDown() override {
    DatabaseTest::TearDown();
    while (EraseSFGDB2TCache(0) != 0) {
    }
  }
};

TEST_F(DirectoryCache, HasNoEntryForAnyHandleWhenEmpty) {
  for (const int db : {0, 1, -1, 32767, -32768}) {
    EXPECT_EQ(SearchForGDB2TCache(static_cast<int16_t>(db)), -1);
  }
}

TEST_F(DirectoryCache, GetsOneEntryHoweverOftenADirectoryIsRead) {
  const int16_t db = create();
  EXPECT_TRUE(readDirectory(db));
  EXPECT_TRUE(readDirectory(db));
  EXPECT_EQ(gbl_Gdb2tDQ.GetSize(), 1);
  EXPECT_EQ(SearchForGDB2TCache(db), 0);
  close(db);
  EXPECT_EQ(SearchForGDB2TCache(db), -1);
}

TEST_F(DirectoryCache, KeepsEntriesInTheOrderOfTheFirstReads) {
  const int16_t a = create("a.qvd");
  const int16_t b = create("b.qvd");
  const int16_t c = create("c.qvd");
  for (const int16_t db : {b, a, c, a}) EXPECT_TRUE(readDirectory(db));
  EXPECT_EQ(SearchForGDB2TCache(b), 0);
  EXPECT_EQ(SearchForGDB2TCache(a), 1);
  EXPECT_EQ(SearchForGDB2TCache(c), 2);
  close(a);
  EXPECT_EQ(SearchForGDB2TCache(b), 0);
  EXPECT_EQ(SearchForGDB2TCache(a), -1);
  EXPECT_EQ(SearchForGDB2TCache(c), 1);
}

TEST_F(DirectoryCache, HoldsHandleCountsAndThePositionOfTheFirstSlot) {
  const int16_t db = create();
  addTable(db, "t");
  int size = 0;
  const auto* entry = static_cast<const DirectoryCacheEntry*>(gbl_Gdb2tDQ.GetAtNoCopy(&size, 0));
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(size, static_cast<int>(sizeof *entry));
  EXPECT_EQ(entry->fileRef, db);
  EXPECT_EQ(entry->tableCount, 1);
  EXPECT_EQ(entry->slotCount, 32);
  EXPECT_EQ(entry->slotSize, 144);
  EXPECT_EQ(entry->directoryPos, 22);
  ASSERT_NE(entry->headCopy, nullptr);
  EXPECT_EQ(entry->headCopy->version, 100);
  EXPECT_EQ(Bytes(entry->headCopy->databaseID, entry->headCopy->databaseID + 10),
            contents().at(6, 10));
}

TEST_F(DirectoryCache, FindsTheFirstOfTwoEntries) {
  addEntry(7000, 3);
  addEntry(7001, 4);
  addEntry(7000, 5);
  EXPECT_EQ(SearchForGDB2TCache(7000), 0);
  EXPECT_NE(EraseSFGDB2TCache(0), 0);
  EXPECT_EQ(SearchForGDB2TCache(7000), 1);
}

TEST_F(DirectoryCache, ComparesHandlesAsSignedNumbers) {
  addEntry(-2, 1);
  EXPECT_EQ(SearchForGDB2TCache(-2), 0);
  EXPECT_EQ(SearchForGDB2TCache(2), -1);
}

TEST_F(DirectoryCache, ErasesOneEntryAndGivesItsMemoryBack) {
  FakeHost host;
  const int16_t db = create();
  const size_t before = host.heldBlocks();
  EXPECT_TRUE(readDirectory(db));
  EXPECT_EQ(host.heldBlocks(), before + 1);
  EXPECT_NE(EraseSFGDB2TCache(SearchForGDB2TCache(db)), 0);
  EXPECT_EQ(host.heldBlocks(), before);
  EXPECT_EQ(SearchForGDB2TCache(db), -1);
}

TEST_F(DirectoryCache, ErasesAnEntryWithoutAHeaderCopy) {
  addEntry(7000, 3);
  EXPECT_NE(EraseSFGDB2TCache(0), 0);
  EXPECT_EQ(SearchForGDB2TCache(7000), -1);
}

TEST_F(DirectoryCache, ErasesNothingAtAnIndexWithoutAnEntry) {
  EXPECT_EQ(EraseSFGDB2TCache(0), 0);
  addEntry(7000, 3);
  addEntry(7001, 4);
  for (const int index : {-1, 2, 99}) EXPECT_EQ(EraseSFGDB2TCache(index), 0) << index;
  EXPECT_EQ(gbl_Gdb2tDQ.GetSize(), 2);
}

TEST_F(DirectoryCache, FillsUpAgainAfterItsOnlyEntryWasErased) {
  const int16_t db = create();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(readDirectory(db));
    EXPECT_EQ(SearchForGDB2TCache(db), 0);
    EXPECT_NE(EraseSFGDB2TCache(0), 0);
    EXPECT_EQ(SearchForGDB2TCache(db), -1);
  }
}

TEST_F(DirectoryCache, HidesATableThatAnotherHandleAdded) {
  close(create());
  const int16_t a = open(kDefaultFile, 4);
  const int16_t b = open(kDefaultFile, 4);
  EXPECT_EQ(numberOfTables(a), 0);
  addTable(b, "t");
  EXPECT_EQ(numberOfTables(b), 1);
  EXPECT_EQ(numberOfTables(a), 0);
  EXPECT_EQ(FindTableByName(a, "t"), 0u);
  EraseSFGDB2TCache(SearchForGDB2TCache(a));
  EXPECT_EQ(numberOfTables(a), 1);
}

TEST_F(DirectoryCache, ServesAStaleEntryToTheNextFileOfThatNumber) {
  const int16_t old = CreateDBaseW(wide("old.qvd"), "QVdb", 100);
  addTable(old, "t");
  ASSERT_EQ(QVFile().QVCloseFile(old), 1);  // leaves the entry in the cache
  const int16_t db = create("new.qvd");
  ASSERT_EQ(db, old);
  EXPECT_EQ(numberOfTables(db), 1);
  EXPECT_EQ(header("new.qvd").tableCount, 0);
}

TEST(CacheStub, ReportsATableAndNoRecordAsAdded) {
  EXPECT_EQ(internal_AddOneTableCache(1, 2, 3), 1);
  EXPECT_EQ(internal_AddOneRecordCache(1, 2, 3, 4), 0);
}

TEST(CacheStub, FindsNothingAndWritesNothing) {
  int a = 5;
  int b = 6;
  EXPECT_EQ(internal_FindOneCacheDB(1, &a), 0);
  EXPECT_EQ(internal_FindOneCacheTB(1, 2, &a, &b), 0);
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, 6);
}

}  // namespace
}  // namespace qvdbase::test
