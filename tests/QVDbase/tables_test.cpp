// The table directory: adding, finding, counting and listing tables, and finding a table's slot.
#include "QVDbase/tables.h"
#include "kit/layers.h"

#include <qvdbase/caches.h>

#include <cstring>
#include <set>

#include "QVDbase/directory_cache.h"
#include "kit/database_fixture.h"
#include "kit/fake_host.h"

namespace qvdbase::test {
namespace {

constexpr size_t kSlotMarkAt = 0;
constexpr size_t kSlotEndMarkAt = 136;

// Three tables, "one" 0x101, "two" 0x202, "three" 0x303.
FileImage threeTables() {
  FileImage image;
  image.addTable("one", 0x101);
  image.addTable("two", 0x202);
  image.addTable("three", 0x303);
  return image;
}

// The same with one of the marks of a slot damaged.
Bytes damagedSlot(size_t index, size_t markAt) {
  return threeTables().build().with(slotOffset(index) + markAt, hex("00"));
}

int32_t numberOfTables(int16_t db) {
  int32_t count = -99;
  EXPECT_EQ(GetNumberOfTable(db, &count), 1);
  return count;
}

struct NameAndID {
  uint64_t id;
  std::string buffer;  // the whole buffer, zeros included
};

NameAndID tableAt(int16_t db, int index) {
  std::string buffer(36, '#');
  const uint64_t id = GetTableNameAndIDByIndex(db, index, buffer.data());
  return {id, buffer};
}

std::string untouched() {
  return std::string(36, '#');
}

std::string bufferWith(const std::string& name) {
  std::string buffer = untouched();
  buffer.replace(0, name.size() + 1, name + '\0');
  return buffer;
}

// ---- adding ----

using AddingATable = DatabaseTest;

TEST_F(AddingATable, WritesTheNextSlotAndTheCountAndNothingElse) {
  const int16_t db = create();
  const Bytes before = contents();
  const uint64_t table = AddTable(db, "notes");
  ASSERT_NE(table, 0u);
  const Bytes slotBytes = Bytes()
                              .add(hex("97 CC 3200 6400"))
                              .add(identifier(table))
                              .text("notes")
                              .zeros(27)
                              .add(hex("0000 0000 CCCCCCCC 2800 CCCC 00000000 00000000 CCCCCCCC"))
                              .zeros(24)
                              .add(hex("2800 CCCC 00000000 00000000 CCCCCCCC"))
                              .zeros(24)
                              .add(hex("79 CCCCCCCCCCCCCC"));
  ASSERT_EQ(slotBytes.size(), 144u);
  EXPECT_TRUE(sameBytes(contents(), before.with(16, hex("0001")).with(22, slotBytes)));
}

TEST_F(AddingATable, FillsTheSlotsInOrder) {
  const int16_t db = create();
  std::set<uint64_t> ids;
  for (int i = 0; i < 5; ++i) ids.insert(addTable(db, "table" + std::to_string(i)));
  EXPECT_EQ(ids.size(), 5u);
  EXPECT_EQ(header().tableCount, 5);
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(slot(i).name(), "table" + std::to_string(i));
}

TEST_F(AddingATable, LeavesTheSlotsInUseAsTheyAre) {
  FileImage image = threeTables();
  image.addRecord(1, 0xA1, bytesOf("record"));
  image.slot(1).tableFlags1 = 0x1234;
  image.slot(1).tableVersion = 7;
  const int16_t db = put(image);
  const Bytes before = contents();
  addTable(db, "four");
  const Bytes after = contents();
  EXPECT_EQ(after.at(22, 3 * 144), before.at(22, 3 * 144));
  EXPECT_EQ(after.from(22 + 4 * 144), before.from(22 + 4 * 144));
}

TEST_F(AddingATable, Accepts31TablesAndRefusesThe32nd) {
  const int16_t db = create();
  for (int i = 0; i < 31; ++i) EXPECT_NE(AddTable(db, std::to_string(i).c_str()), 0u) << i;
  expectUnchanged(
      [&] { expectPositionKept(db, [&] { EXPECT_EQ(AddTable(db, "one more"), 0u); }); });
  EXPECT_EQ(numberOfTables(db), 31);
}

TEST_F(AddingATable, LeavesTheLastSlotOfAnyDirectoryFree) {
  FileImage image = threeTables();
  image.header().slotCount = 5;
  const int16_t db = put(image);
  EXPECT_NE(AddTable(db, "four"), 0u);
  expectUnchanged([&] { EXPECT_EQ(AddTable(db, "five"), 0u); });
  expectDamage(kDefaultFile, {"H6"});
}

TEST_F(AddingATable, FailsInADirectoryWithoutSpace) {
  for (const int slotCount : {0x8000, 0xFFFF, 0, 1}) {
    FileImage image;
    image.header().slotCount = static_cast<uint16_t>(slotCount);
    const int16_t db = put(image);
    expectUnchanged([&] { EXPECT_EQ(AddTable(db, "t"), 0u); });
    close(db);
  }
  expectDamage(kDefaultFile, {"H6"});
}

TEST_F(AddingATable, ReliesOnTheSlotSizeOfTheHeader) {
  FileImage image;
  image.header().slotSize = 200;
  image.header().tableCount = 1;
  Bytes file = image.build();
  const SlotFields first{.tableID = identifier(0x101), .tableName = bytesOf("one")};
  file = file.with(22, first.encode());
  const int16_t db = put(file);
  const uint64_t table = AddTable(db, "two");
  ASSERT_NE(table, 0u);
  const SlotFields second{.tableID = identifier(table), .tableName = bytesOf("two")};
  SlotFields expected = second;
  expected.tableVersion = 100;
  EXPECT_TRUE(sameBytes(contents(), file.with(16, hex("0002")).with(222, expected.encode())));
  EXPECT_EQ(FindTableByName(db, "two"), table);
  expectDamage(kDefaultFile, {"H6"});
}

TEST_F(AddingATable, RefusesANameThatIsNullOrEmpty) {
  const int16_t db = create();
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_EQ(AddTable(db, nullptr), 0u);
      EXPECT_EQ(AddTable(db, ""), 0u);
    });
  });
}

TEST_F(AddingATable, RefusesANameThatIsTaken) {
  const int16_t db = put(threeTables());
  for (const char* name : {"one", "two", "three"}) {
    expectUnchanged(
        [&] { expectPositionKept(db, [&] { EXPECT_EQ(AddTable(db, name), 0u) << name; }); });
  }
  EXPECT_EQ(numberOfTables(db), 3);
}

TEST_F(AddingATable, TakesAnotherCaseOrAPartOfANameAsAnotherName) {
  const int16_t db = put(threeTables());
  for (const char* name : {"One", "ONE", "on", "ones", " one"}) {
    EXPECT_NE(AddTable(db, name), 0u) << name;
  }
  EXPECT_EQ(numberOfTables(db), 8);
}

TEST_F(AddingATable, StoresANameOf32BytesWithoutATerminator) {
  const std::string name = "0123456789abcdef0123456789ABCDEF";
  const int16_t db = create();
  addTable(db, name);
  EXPECT_EQ(contents().at(22 + 16, 36), bytesOf(name).zeros(4));
  EXPECT_EQ(AddTable(db, name.c_str()), 0u);
}

TEST_F(AddingATable, StoresTheFirst32BytesOfALongerName) {
  const std::string name = "0123456789abcdef0123456789ABCDEFcut off!";
  const int16_t db = create();
  const uint64_t first = addTable(db, name);
  EXPECT_EQ(slot(0).tableName, bytesOf(name.substr(0, 32)));
  EXPECT_EQ(slot(0).tableFlags1, 0);
  EXPECT_EQ(FindTableByName(db, name.c_str()), 0u);
  EXPECT_EQ(FindTableByName(db, name.substr(0, 32).c_str()), first);

  const uint64_t second = addTable(db, name);
  EXPECT_NE(second, first);
  EXPECT_EQ(slot(1).tableName, slot(0).tableName);
  EXPECT_EQ(AddTable(db, name.substr(0, 32).c_str()), 0u);
}

TEST_F(AddingATable, TakesAnyBytesAsAName) {
  const int16_t db = create();
  const std::string name = "\xC3\xA4\xFF\x01 /\\\"";
  const uint64_t table = addTable(db, name);
  EXPECT_EQ(slot(0).name(), name);
  EXPECT_EQ(FindTableByName(db, name.c_str()), table);
}

TEST_F(AddingATable, WritesOverASlotThatIsNotCounted) {
  FileImage image = threeTables();
  image.addTable("uncounted", 0x404);
  image.slot(3).recordCount = 77;
  image.header().tableCount = 3;
  const int16_t db = put(image);
  const uint64_t table = addTable(db, "uncounted");
  EXPECT_NE(table, 0x404u);
  EXPECT_EQ(identifierNumber(slot(3).tableID), table);
  EXPECT_EQ(slot(3).recordCount, 0u);
}

TEST_F(AddingATable, FailsWhenASlotInUseLacksAMark) {
  for (size_t index = 0; index < 3; ++index) {
    for (const size_t markAt : {kSlotMarkAt, kSlotEndMarkAt}) {
      const int16_t db = put(damagedSlot(index, markAt));
      expectUnchanged(
          [&] { expectPositionKept(db, [&] { EXPECT_EQ(AddTable(db, "four"), 0u) << index; }); });
      EXPECT_EQ(numberOfTables(db), 3);
      close(db);
    }
  }
  expectDamage(kDefaultFile, {"D1"});
}

TEST_F(AddingATable, FailsWhenASlotInUseIsCutOff) {
  const int16_t db = put(threeTables().build().cut(22 + 3 * 144 - 1));
  expectUnchanged([&] { EXPECT_EQ(AddTable(db, "four"), 0u); });
  expectDamage(kDefaultFile, {"F2"});
}

TEST_F(AddingATable, KeepsThePosition) {
  const int16_t db = create();
  int number = 0;
  expectPositionKept(db, [&] { addTable(db, "table" + std::to_string(number++)); });
  EXPECT_EQ(number, 3);
}

TEST_F(AddingATable, KeepsTheDirectoryCacheInStep) {
  const int16_t db = create();
  EXPECT_EQ(numberOfTables(db), 0);
  addTable(db, "one");
  EXPECT_EQ(numberOfTables(db), 1);
  addTable(db, "two");
  DirectoryCacheEntry entry = {};
  ASSERT_TRUE(findDirectoryEntry(db, &entry));
  EXPECT_EQ(entry.tableCount, 2);
  EXPECT_EQ(gbl_Gdb2tDQ.GetSize(), 1);
}

TEST_F(AddingATable, WorksWhereTheDirectoryIsNotCached) {
  const int16_t db = create();
  {
    FakeHost host;
    host.failFrom(FakeHost::Call::allocate);
    addTable(db, "one");
    EXPECT_EQ(SearchForGDB2TCache(db), -1);
  }
  EXPECT_EQ(numberOfTables(db), 1);
}

TEST_F(AddingATable, ChangesNeitherCountNorCacheWhenAWriteFails) {
  for (int step = 0;; ++step) {
    const int16_t db = put(threeTables());
    ASSERT_EQ(numberOfTables(db), 3);
    FakeHost host;
    host.failFrom(FakeHost::Call::write, step);
    uint64_t table = 0;
    expectPositionKept(db, [&] {
      if (table == 0) table = AddTable(db, "four");
    });
    host.heal();
    if (!host.failed()) {
      EXPECT_NE(table, 0u);
      EXPECT_GT(step, 0);
      break;
    }
    EXPECT_EQ(table, 0u);
    EXPECT_EQ(numberOfTables(db), 3);
    EXPECT_EQ(header().tableCount, 3);
    EXPECT_EQ(FindTableByName(db, "four"), 0u);
    addTable(db, "five");  // over whatever the failed call left in the slot
    EXPECT_EQ(slot(3).name(), "five");
    EXPECT_TRUE(checkFile(path()).empty());
    close(db);
  }
}

TEST_F(AddingATable, FailsWhenAReadFails) {
  const int16_t db = put(threeTables());
  FakeHost host;
  host.failFrom(FakeHost::Call::read);
  expectUnchanged([&] { expectPositionKept(db, [&] { EXPECT_EQ(AddTable(db, "four"), 0u); }); });
}

TEST_F(AddingATable, FailsOnAHandleThatIsNotOpen) {
  EXPECT_EQ(AddTable(0, "t"), 0u);
  EXPECT_EQ(AddTable(31000, "t"), 0u);
}

// ---- finding by name ----

using FindingATable = DatabaseTest;

TEST_F(FindingATable, GivesItsIdentifier) {
  const int16_t db = put(threeTables());
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_EQ(FindTableByName(db, "one"), 0x101u);
      EXPECT_EQ(FindTableByName(db, "two"), 0x202u);
      EXPECT_EQ(FindTableByName(db, "three"), 0x303u);
    });
  });
}

TEST_F(FindingATable, GivesZeroWhenThereIsNone) {
  const int16_t db = put(threeTables());
  expectPositionKept(db, [&] {
    for (const char* name : {"four", "One", "on", "ones", "thre", "threes"}) {
      EXPECT_EQ(FindTableByName(db, name), 0u) << name;
    }
  });
}

TEST_F(FindingATable, GivesZeroInAnEmptyDatabase) {
  const int16_t db = create();
  EXPECT_EQ(FindTableByName(db, "one"), 0u);
}

TEST_F(FindingATable, RefusesANameThatIsNullOrEmpty) {
  const int16_t db = put(threeTables());
  EXPECT_EQ(FindTableByName(db, nullptr), 0u);
  EXPECT_EQ(FindTableByName(db, ""), 0u);
}

TEST_F(FindingATable, TakesTheFirstOfOneName) {
  FileImage image = threeTables();
  image.addTable("two", 0x909);
  const int16_t db = put(image);
  EXPECT_EQ(FindTableByName(db, "two"), 0x202u);
  expectDamage(kDefaultFile, {"D4"});
}

TEST_F(FindingATable, DoesNotLookAtSlotsThatAreNotCounted) {
  FileImage image = threeTables();
  image.header().tableCount = 2;
  const int16_t db = put(image);
  EXPECT_EQ(FindTableByName(db, "three"), 0u);
  expectDamage(kDefaultFile, {"D2"});
}

TEST_F(FindingATable, EndsAStoredNameAfter32BytesWhateverFollows) {
  const std::string name(32, 'n');
  FileImage image;
  image.addTable(name, 0x101);
  image.slot(0).tableFlags1 = 0x4242;
  const int16_t db = put(image);
  EXPECT_EQ(FindTableByName(db, name.c_str()), 0x101u);
  EXPECT_EQ(FindTableByName(db, (name + "BB").c_str()), 0u);
  EXPECT_EQ(tableAt(db, 0).buffer, bufferWith(name));
}

TEST_F(FindingATable, GetsAsFarAsTheFirstDamagedSlot) {
  for (const size_t markAt : {kSlotMarkAt, kSlotEndMarkAt}) {
    const int16_t db = put(damagedSlot(1, markAt));
    expectPositionKept(db, [&] {
      EXPECT_EQ(FindTableByName(db, "one"), 0x101u);
      EXPECT_EQ(FindTableByName(db, "two"), 0u);
      EXPECT_EQ(FindTableByName(db, "three"), 0u);
    });
    close(db);
  }
  expectDamage(kDefaultFile, {"D1"});
}

TEST_F(FindingATable, GetsAsFarAsTheFileReaches) {
  const int16_t db = put(threeTables().build().cut(22 + 2 * 144));
  expectPositionKept(db, [&] {
    EXPECT_EQ(FindTableByName(db, "two"), 0x202u);
    EXPECT_EQ(FindTableByName(db, "three"), 0u);
  });
  expectDamage(kDefaultFile, {"F2"});
}

// ---- counting ----

using CountingTables = DatabaseTest;

TEST_F(CountingTables, ReportsTheStoredNumber) {
  const int16_t db = put(threeTables());
  expectUnchanged([&] { expectPositionKept(db, [&] { EXPECT_EQ(numberOfTables(db), 3); }); });
}

TEST_F(CountingTables, ReportsZeroForANewDatabase) {
  EXPECT_EQ(numberOfTables(create()), 0);
}

TEST_F(CountingTables, ReportsANegativeNumberAsOne) {
  FileImage image;
  image.header().tableCount = -3;
  const int16_t db = put(image);
  EXPECT_EQ(numberOfTables(db), -3);
  expectDamage(kDefaultFile, {"H5"});
}

TEST_F(CountingTables, DoesNotReadTheSlots) {
  const int16_t db = put(damagedSlot(0, kSlotMarkAt));
  EXPECT_EQ(numberOfTables(db), 3);
  expectDamage(kDefaultFile, {"D1"});
}

TEST_F(CountingTables, RefusesNull) {
  const int16_t db = create();
  EXPECT_EQ(GetNumberOfTable(db, nullptr), 0);
}

TEST_F(CountingTables, StoresNothingWhenItFails) {
  FileImage image = threeTables();
  image.header().version = 200;
  const int16_t db = put(image);
  int32_t count = -99;
  expectPositionKept(db, [&] { EXPECT_EQ(GetNumberOfTable(db, &count), 0); });
  EXPECT_EQ(GetNumberOfTable(0, &count), 0);
  EXPECT_EQ(count, -99);
  expectDamage(kDefaultFile, {"H2"});
}

// ---- listing by index ----

using ListingTables = DatabaseTest;

TEST_F(ListingTables, ReportsNameAndIdentifierInOrderOfCreation) {
  const int16_t db = put(threeTables());
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_EQ(tableAt(db, 0).id, 0x101u);
      EXPECT_EQ(tableAt(db, 0).buffer, bufferWith("one"));
      EXPECT_EQ(tableAt(db, 2).id, 0x303u);
      EXPECT_EQ(tableAt(db, 2).buffer, bufferWith("three"));
    });
  });
}

TEST_F(ListingTables, RefusesAnIndexOutsideAndLeavesTheBufferAlone) {
  const int16_t db = put(threeTables());
  expectPositionKept(db, [&] {
    for (const int index : {-1, 3, 31, 32, 1000000, -2147483647 - 1, 2147483647}) {
      const NameAndID table = tableAt(db, index);
      EXPECT_EQ(table.id, 0u) << index;
      EXPECT_EQ(table.buffer, untouched());
    }
  });
}

TEST_F(ListingTables, GivesNothingInAnEmptyDatabase) {
  const int16_t db = create();
  EXPECT_EQ(tableAt(db, 0).id, 0u);
}

TEST_F(ListingTables, TerminatesANameOf32Bytes) {
  const std::string name(32, 'n');
  const int16_t db = create();
  addTable(db, name);
  EXPECT_EQ(tableAt(db, 0).buffer, bufferWith(name));
}

TEST_F(ListingTables, RefusesANullBuffer) {
  const int16_t db = put(threeTables());
  EXPECT_EQ(GetTableNameAndIDByIndex(db, 0, nullptr), 0u);
}

TEST_F(ListingTables, GetsAsFarAsTheFirstDamagedSlot) {
  for (const size_t markAt : {kSlotMarkAt, kSlotEndMarkAt}) {
    const int16_t db = put(damagedSlot(1, markAt));
    expectPositionKept(db, [&] {
      EXPECT_EQ(tableAt(db, 0).id, 0x101u);
      EXPECT_EQ(tableAt(db, 1).id, 0u);
      EXPECT_EQ(tableAt(db, 2).id, 0u);
      EXPECT_EQ(tableAt(db, 2).buffer, untouched());
    });
    close(db);
  }
  expectDamage(kDefaultFile, {"D1"});
}

// ---- a table's slot ----

class FindingASlot : public DatabaseTest {
 protected:
  int find(uint64_t table, int16_t count = 3) {
    seek(db_, 22);
    return internal_GetOneTableInfo(db_, table, count, 144, &slot_, &slotPos_);
  }

  int16_t db_ = 0;
  tablePart1 slot_ = {};
  int64_t slotPos_ = -1;
};

TEST_F(FindingASlot, ReportsTheSlotAndItsPositionAndEndsAfterIt) {
  FileImage image = threeTables();
  image.slot(1).recordWriteCount = 55;
  db_ = put(image);
  EXPECT_EQ(find(0x202), 1);
  EXPECT_EQ(slotPos_, 22 + 144);
  EXPECT_EQ(position(db_), 22 + 2 * 144);
  EXPECT_EQ(uint32_t{slot_.recordWriteCount}, 55u);
  EXPECT_EQ(std::memcmp(slot_.tableName, "two\0", 4), 0);
}

TEST_F(FindingASlot, StartsWhereTheFileIs) {
  db_ = put(threeTables());
  seek(db_, 22 + 144);
  EXPECT_EQ(internal_GetOneTableInfo(db_, 0x101, 2, 144, &slot_, &slotPos_), 0);
  seek(db_, 22 + 144);
  EXPECT_EQ(internal_GetOneTableInfo(db_, 0x303, 2, 144, &slot_, &slotPos_), 1);
  EXPECT_EQ(slotPos_, 22 + 2 * 144);
}

TEST_F(FindingASlot, LooksAtNoMoreThanTheNumberOfTables) {
  db_ = put(threeTables());
  EXPECT_EQ(find(0x303, 2), 0);
  EXPECT_EQ(find(0x101, 0), 0);
  EXPECT_EQ(find(0x101, -1), 0);
}

TEST_F(FindingASlot, ComparesTheNumberWhateverTheStoredSum) {
  FileImage image = threeTables();
  image.slot(1).tableID = hex("0000000000000202 FFFF");
  db_ = put(image);
  EXPECT_EQ(find(0x202), 1);
  expectDamage(kDefaultFile, {"D3"});
}

TEST_F(FindingASlot, FailsForATableThatIsNotThere) {
  db_ = put(threeTables());
  EXPECT_EQ(find(0x404), 0);
  EXPECT_EQ(find(0), 0);
}

TEST_F(FindingASlot, FailsAtTheFirstDamagedSlot) {
  for (const size_t markAt : {kSlotMarkAt, kSlotEndMarkAt}) {
    db_ = put(damagedSlot(1, markAt));
    EXPECT_EQ(find(0x101), 1);
    EXPECT_EQ(find(0x202), 0);
    EXPECT_EQ(find(0x303), 0);
    close(db_);
  }
  expectDamage(kDefaultFile, {"D1"});
}

TEST_F(FindingASlot, RefusesNull) {
  db_ = put(threeTables());
  seek(db_, 22);
  EXPECT_EQ(internal_GetOneTableInfo(db_, 0x101, 3, 144, nullptr, &slotPos_), 0);
  EXPECT_EQ(internal_GetOneTableInfo(db_, 0x101, 3, 144, &slot_, nullptr), 0);
}

}  // namespace
}  // namespace qvdbase::test
