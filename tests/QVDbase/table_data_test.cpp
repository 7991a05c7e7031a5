// Table data: setting, sizing and reading the one block of free bytes of a table.
#include "QVDbase/table_data.h"
#include "kit/layers.h"

#include <functional>

#include "kit/database_fixture.h"
#include "kit/fake_host.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kTable = 0x202;

// Tables "one" and "two"; "two" has a record and, from 4630 + 60 on, data of 5 bytes in a capacity
// of 10 that ends in old bytes.
struct Sample {
  FileImage image;
  int64_t data = 0;

  Sample() {
    image.addTable("one", 0x101);
    image.addTable("two", kTable);
    image.addRecord(1, 0xA1, bytesOf("rec"));
    data = image.setTableData(1, bytesOf("hello"), 10);
    image.tableData(data).room = bytesOf("helloOLDIE");
  }
};

class TableData : public DatabaseTest {
 protected:
  // The size, or -1 when there is none.
  static int64_t size(int16_t db, uint64_t table = kTable) {
    uint32_t result = 0;
    return GetTableDataSize(db, table, &result) == 1 ? int64_t{result} : -1;
  }

  // The data; nothing when they cannot be read.
  static Bytes data(int16_t db, uint64_t table = kTable) {
    Bytes buffer(300000, 0xEE);
    if (GetTableData(db, table, buffer.data()) != 1) {
      EXPECT_EQ(buffer, Bytes(300000, 0xEE)) << "a buffer was written without success";
      return {};
    }
    const auto length = static_cast<size_t>(size(db, table));
    EXPECT_EQ(buffer.from(length), Bytes(300000 - length, 0xEE))
        << "more was written than reported";
    return buffer.cut(length);
  }

  static int set(int16_t db, const Bytes& bytes, uint32_t reserve = 0, uint64_t table = kTable) {
    return SetTableData(db, table, bytes.data(), static_cast<uint32_t>(bytes.size()), reserve);
  }
};

using SettingTableData = TableData;
using ReadingTableData = TableData;

// ---- the first block ----

TEST_F(SettingTableData, AppendsABlockAndPointsTheSlotAtIt) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "t");
  const Bytes before = contents();
  EXPECT_EQ(set(db, bytesOf("abc"), 0, table), 1);

  SlotFields slotNow = decodeSlot(before, 0);
  slotNow.dataBlockCount = 1;
  slotNow.dataWriteCount = 1;
  slotNow.firstDataPos = slotNow.lastWrittenDataPos = slotNow.lastDataPos = 4630;
  const Bytes block = Bytes()
                          .add(hex("96 0020"))
                          .add(identifier(table))
                          .add(hex("00000003 00000003"))
                          .text("abc")
                          .text("i");
  EXPECT_TRUE(sameBytes(contents(), before.with(22, slotNow.encode()).add(block)));
}

TEST_F(SettingTableData, ReservesCapacityAfterTheData) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "t");
  EXPECT_EQ(set(db, bytesOf("abc"), 8, table), 1);
  EXPECT_EQ(contents().from(4630 + 13), hex("00000003 00000008").text("abc").zeros(5).text("i"));
}

TEST_F(SettingTableData, TakesAReserveBelowTheSizeAsNone) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "t");
  EXPECT_EQ(set(db, bytesOf("abcdef"), 5, table), 1);
  EXPECT_EQ(contents().from(4630 + 13), hex("00000006 00000006").text("abcdefi"));
}

TEST_F(SettingTableData, FillsALargeCapacity) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "t");
  EXPECT_EQ(set(db, bytesOf("abc"), 100000, table), 1);
  EXPECT_TRUE(sameBytes(contents().from(4630 + 21), bytesOf("abc").zeros(99997).text("i")));
}

TEST_F(SettingTableData, OfNoBytesMakesAnEmptyBlock) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "t");
  EXPECT_EQ(SetTableData(db, table, nullptr, 0, 0), 1);
  EXPECT_EQ(fileSize(), 4630u + 22u);
  EXPECT_EQ(contents().from(4630 + 13), hex("00000000 00000000 69"));
  EXPECT_EQ(size(db, table), 0);
  EXPECT_TRUE(data(db, table).empty());
}

TEST_F(SettingTableData, AppendsAtTheEndOfTheFileWhereverTheHandleIs) {
  const int16_t db = put(Sample().image);
  const size_t end = fileSize();
  seek(db, 100);
  EXPECT_EQ(set(db, bytesOf("for one"), 0, 0x101), 1);
  EXPECT_EQ(slot(0).firstDataPos, static_cast<int64_t>(end));
  EXPECT_EQ(tableData(static_cast<int64_t>(end)).data(), bytesOf("for one"));
}

// An AddTable that was interrupted leaves such a slot.
TEST_F(SettingTableData, DoesNotKnowATableThatIsNotCounted) {
  Sample sample;
  sample.image.header().tableCount = 1;
  writeFile(path(), sample.image.build());
  allowDamage();
  const int16_t db = open();
  expectUnchanged([&] { EXPECT_EQ(set(db, bytesOf("abc")), 0); });
}

TEST_F(SettingTableData, LeavesOtherTablesAlone) {
  const int16_t db = put(Sample().image);
  const Bytes before = contents();
  EXPECT_EQ(set(db, bytesOf("for one"), 0, 0x101), 1);
  const Bytes after = contents();
  EXPECT_EQ(after.at(22 + 144, before.size() - 166), before.from(166));
  EXPECT_EQ(data(db), bytesOf("hello"));
}

// ---- over the present block ----

TEST_F(SettingTableData, WritesDataAnEndMarkAndTheLengthOverABlockThatHasCapacity) {
  const Sample sample;
  const int16_t db = put(sample.image);
  const Bytes before = contents();
  EXPECT_EQ(set(db, bytesOf("abcdefg"), 500), 1);
  const auto at = static_cast<size_t>(sample.data);
  EXPECT_TRUE(sameBytes(
      contents(), before.with(at + 13, hex("00000007")).with(at + 21, bytesOf("abcdefgiIE"))));
  EXPECT_EQ(data(db), bytesOf("abcdefg"));
}

TEST_F(SettingTableData, KeepsWhatFollowsTheNewEndMark) {
  const Sample sample;
  const int16_t db = put(sample.image);
  EXPECT_EQ(set(db, bytesOf("xy")), 1);
  EXPECT_EQ(contents().at(static_cast<size_t>(sample.data) + 13, 19),
            hex("00000002 0000000A").text("xyiloOLDIEi"));
}

TEST_F(SettingTableData, FillsTheCapacityToItsLastByte) {
  const Sample sample;
  const int16_t db = put(sample.image);
  const size_t end = fileSize();
  EXPECT_EQ(set(db, bytesOf("0123456789")), 1);
  EXPECT_EQ(fileSize(), end);
  EXPECT_EQ(contents().at(static_cast<size_t>(sample.data) + 13, 19),
            hex("0000000A 0000000A").text("0123456789i"));
}

TEST_F(SettingTableData, OfNoBytesKeepsThePresentBlock) {
  const Sample sample;
  const int16_t db = put(sample.image);
  const Bytes before = contents();
  EXPECT_EQ(SetTableData(db, kTable, nullptr, 0, 0), 1);
  const auto at = static_cast<size_t>(sample.data);
  EXPECT_TRUE(
      sameBytes(contents(), before.with(at + 13, hex("00000000")).with(at + 21, hex("69"))));
  EXPECT_EQ(size(db), 0);
  EXPECT_TRUE(data(db).empty());
}

TEST_F(SettingTableData, RewritesWhileItFitsAndAppendsWhenItDoesNot) {
  const int16_t db = create();
  const uint64_t table = addTable(db, "t");
  EXPECT_EQ(set(db, pattern(10, 1), 100, table), 1);
  EXPECT_EQ(fileSize(), 4630u + 122u);
  EXPECT_EQ(tableData(4630).dataCapacity, 100u);

  EXPECT_EQ(set(db, pattern(60, 2), 0, table), 1);
  EXPECT_EQ(fileSize(), 4630u + 122u);
  EXPECT_EQ(slot(0).dataWriteCount, 1u);
  EXPECT_EQ(data(db, table), pattern(60, 2));

  EXPECT_EQ(set(db, pattern(20, 3), 0, table), 1);
  EXPECT_EQ(size(db, table), 20);
  EXPECT_EQ(contents().at(4630 + 21 + 20), 'i');
  EXPECT_EQ(data(db, table), pattern(20, 3));

  const Bytes firstBlock = contents().from(4630);
  EXPECT_EQ(set(db, pattern(200, 4), 0, table), 1);
  EXPECT_EQ(fileSize(), 4630u + 122u + 222u);
  const SlotFields now = slot(0);
  EXPECT_EQ(now.dataWriteCount, 2u);
  EXPECT_EQ(now.dataBlockCount, 1u);
  EXPECT_EQ(now.firstDataPos, 4752);
  EXPECT_EQ(now.lastWrittenDataPos, 4752);
  EXPECT_EQ(now.lastDataPos, 4752);
  EXPECT_EQ(contents().at(4630, 122), firstBlock);
  EXPECT_EQ(data(db, table), pattern(200, 4));
}

TEST_F(SettingTableData, ReliesOnTheFirstOfTheThreePositions) {
  Sample sample;
  sample.image.slot(1).lastDataPos = 1;
  sample.image.slot(1).lastWrittenDataPos = 2;
  const int16_t db = put(sample.image);
  EXPECT_EQ(data(db), bytesOf("hello"));
  EXPECT_EQ(set(db, bytesOf("new")), 1);
  EXPECT_EQ(tableData(sample.data).data(), bytesOf("new"));
  expectDamage(kDefaultFile, {"D9"});
}

// ---- refusals ----

TEST_F(SettingTableData, ForATableThatIsNotThereWritesNothing) {
  const int16_t db = put(Sample().image);
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_EQ(set(db, bytesOf("x"), 0, 0x999), 0);
      EXPECT_EQ(set(db, bytesOf("x"), 0, 0), 0);
    });
  });
}

TEST_F(SettingTableData, RefusesNullWithASize) {
  const int16_t db = put(Sample().image);
  expectUnchanged([&] {
    EXPECT_EQ(SetTableData(db, kTable, nullptr, 3, 0), 0);
    EXPECT_EQ(SetTableData(db, 0x101, nullptr, 3, 0), 0);
  });
}

TEST_F(SettingTableData, KeepsThePosition) {
  const int16_t db = put(Sample().image);
  expectPositionKept(db, [&] { EXPECT_EQ(set(db, bytesOf("fits")), 1); });
  size_t length = 100;
  expectPositionKept(db, [&] { EXPECT_EQ(set(db, pattern(length += 100)), 1); });
}

TEST_F(SettingTableData, NeedsSoundSlotsUpToTheTable) {
  for (const size_t markAt : {0u, 136u}) {
    const Bytes file = Sample().image.build();
    int16_t db = put(file.with(slotOffset(0) + markAt, hex("00")));
    expectUnchanged([&] { expectPositionKept(db, [&] { EXPECT_EQ(set(db, bytesOf("x")), 0); }); });
    close(db);
    db = put(file.with(slotOffset(1) + markAt, hex("00")));
    expectUnchanged([&] { EXPECT_EQ(set(db, bytesOf("x")), 0); });
    EXPECT_EQ(set(db, bytesOf("x"), 0, 0x101), 1);
    close(db);
  }
  expectDamage();
}

TEST_F(SettingTableData, OnAReadOnlyDatabaseFails) {
  const int16_t db = put(Sample().image, kDefaultFile, 1);
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_EQ(set(db, bytesOf("x")), 0);
      EXPECT_EQ(set(db, pattern(100)), 0);
    });
  });
}

// Two slots of one identifier, the first with data, the second without.
TEST_F(SettingTableData, GoesOnAfterASlotWhoseDataCouldNotBeWritten) {
  Sample sample;
  const size_t second = sample.image.addTable("three", kTable);
  const int64_t end = sample.image.end();
  // Each write for the first slot in turn is refused: of those into its block, and of a new one.
  for (const Bytes& bytes : {bytesOf("HEY"), bytesOf("more than ten")}) {
    for (int step = 0; step < 2; ++step) {
      SCOPED_TRACE(step);
      const int16_t db = put(sample.image);
      FakeHost host;
      host.failOnce(FakeHost::Call::write, step);
      EXPECT_EQ(set(db, bytes), 1);
      EXPECT_TRUE(host.failed());
      host.heal();
      close(db);
      const SlotFields now = slot(second);
      EXPECT_GE(now.firstDataPos, end);
      EXPECT_EQ(tableData(now.firstDataPos).data(), bytes);
      EXPECT_EQ(slot(1).encode(), sample.image.slot(1).encode());
    }
  }
  allowDamage();
}

TEST_F(SettingTableData, GoesOnAfterASlotWhoseBlockIsDamaged) {
  Sample sample;
  sample.image.tableData(sample.data).blockMark = 0;
  const size_t twin = sample.image.addTable("twin", kTable);
  const int64_t twinData = sample.image.setTableData(twin, bytesOf("twin's"), 10);
  const int16_t db = put(sample.image);
  expectPositionKept(db, [&] { EXPECT_EQ(set(db, bytesOf("landed")), 1); });
  EXPECT_EQ(tableData(twinData).data(), bytesOf("landed"));
  expectDamage();
}

// ---- damaged blocks ----

struct Damage {
  const char* name;
  std::function<void(Sample&)> apply;
};

void PrintTo(const Damage& damage, std::ostream* out) {
  *out << damage.name;
}

class DamagedTableData : public TableData, public testing::WithParamInterface<Damage> {};

TEST_P(DamagedTableData, IsNeitherReadNorWrittenNorReplaced) {
  Sample sample;
  GetParam().apply(sample);
  const int16_t db = put(sample.image);
  expectUnchanged([&] {
    expectPositionKept(db, [&] {
      EXPECT_EQ(size(db), -1);
      EXPECT_TRUE(data(db).empty());
      EXPECT_EQ(set(db, bytesOf("fits")), 0);
      EXPECT_EQ(set(db, pattern(100)), 0);
    });
  });
  expectDamage();
}

void moveData(Sample& sample, int64_t position) {
  sample.image.slot(1).firstDataPos = position;
  sample.image.slot(1).lastWrittenDataPos = position;
  sample.image.slot(1).lastDataPos = position;
}

const Damage kDamages[] = {
    {"Mark", [](Sample& s) { s.image.tableData(s.data).blockMark = 135; }},
    {"HeaderSize", [](Sample& s) { s.image.tableData(s.data).headerSize = 33; }},
    {"HeaderSizeInTheOtherOrder", [](Sample& s) { s.image.tableData(s.data).headerSize = 0x2000; }},
    {"OtherTable", [](Sample& s) { s.image.tableData(s.data).tableID = identifier(0x101); }},
    {"OwnersSum", [](Sample& s) { ++s.image.tableData(s.data).tableID[9]; }},
    {"PositionOfARecord", [](Sample& s) { moveData(s, 4630); }},
    {"PositionBeyondTheEnd", [](Sample& s) { moveData(s, s.image.end()); }},
    {"PositionFarBeyondTheEnd", [](Sample& s) { moveData(s, 0x7FFFFFFFFFFFFFFF); }},
    {"PositionNegative", [](Sample& s) { moveData(s, -1); }},
};

INSTANTIATE_TEST_SUITE_P(Each, DamagedTableData, testing::ValuesIn(kDamages),
                         [](const auto& damage) { return std::string(damage.param.name); });

TEST_F(ReadingTableData, FailsWhenTheBlockIsCutOff) {
  const Sample sample;
  const Bytes file = sample.image.build();
  const auto at = static_cast<size_t>(sample.data);
  for (size_t length = at; length < at + 21 + 5; ++length) {
    const int16_t db = put(file.cut(length));
    // Mark, header size, owner and length are enough for the size.
    EXPECT_EQ(size(db), length < at + 17 ? -1 : 5) << length;
    Bytes buffer(16);
    EXPECT_EQ(GetTableData(db, kTable, buffer.data()), 0) << length;
    close(db);
  }
  expectDamage();
}

TEST_F(ReadingTableData, DoesNotLookAtTheEndMarkOrTheCapacity) {
  Sample sample;
  sample.image.tableData(sample.data).blockEndMark = 0;
  sample.image.tableData(sample.data).dataCapacity = 1;
  const int16_t db = put(sample.image);
  EXPECT_EQ(size(db), 5);
  EXPECT_EQ(data(db), bytesOf("hello"));
  expectDamage();
}

TEST_F(ReadingTableData, WantsTheRightSumInTheBlockThoughTheSlotHasAWrongOne) {
  Sample sample;
  const Bytes wrongSum = hex("0000000000000202 FFFF");
  sample.image.slot(1).tableID = wrongSum;
  sample.image.record(4630).tableID = wrongSum;
  sample.image.tableData(sample.data).tableID = wrongSum;
  const int16_t db = put(sample.image);
  EXPECT_EQ(size(db), -1);
  EXPECT_TRUE(data(db).empty());
  EXPECT_EQ(set(db, bytesOf("set")), 1);  // the writer compares with the slot
  EXPECT_EQ(tableData(sample.data).data(), bytesOf("set"));
  expectDamage(kDefaultFile, {"D3"});
}

// ---- reading ----

TEST_F(ReadingTableData, ReportsSizeAndDataAndKeepsThePosition) {
  const int16_t db = put(Sample().image);
  expectUnchanged([&] {
    expectPositionKept(db, [&] { EXPECT_EQ(size(db), 5); });
    expectPositionKept(db, [&] { EXPECT_EQ(data(db), bytesOf("hello")); });
  });
}

TEST_F(ReadingTableData, FailsForATableWithoutData) {
  const int16_t db = put(Sample().image);
  expectPositionKept(db, [&] {
    EXPECT_EQ(size(db, 0x101), -1);
    EXPECT_TRUE(data(db, 0x101).empty());
  });
}

TEST_F(ReadingTableData, FailsForATableThatIsNotThere) {
  const int16_t db = put(Sample().image);
  expectPositionKept(db, [&] {
    EXPECT_EQ(size(db, 0x999), -1);
    EXPECT_TRUE(data(db, 0x999).empty());
  });
}

TEST_F(ReadingTableData, StoresNoSizeWhenItFails) {
  const int16_t db = put(Sample().image);
  uint32_t result = 77;
  EXPECT_EQ(GetTableDataSize(db, 0x101, &result), 0);
  EXPECT_EQ(GetTableDataSize(0, kTable, &result), 0);
  EXPECT_EQ(result, 77u);
}

TEST_F(ReadingTableData, RefusesNull) {
  const int16_t db = put(Sample().image);
  EXPECT_EQ(GetTableDataSize(db, kTable, nullptr), 0);
  EXPECT_EQ(GetTableData(db, kTable, nullptr), 0);
}

TEST_F(ReadingTableData, NeedsSoundSlotsUpToTheTable) {
  const Bytes file = Sample().image.build();
  for (const size_t index : {0u, 1u}) {
    const int16_t db = put(file.with(slotOffset(index), hex("00")));
    expectPositionKept(db, [&] {
      EXPECT_EQ(size(db), -1);
      EXPECT_TRUE(data(db).empty());
    });
    close(db);
  }
  expectDamage();
}

TEST_F(ReadingTableData, WorksAfterReopening) {
  int16_t db = create();
  const uint64_t table = addTable(db, "t");
  EXPECT_EQ(set(db, pattern(250000), 260000, table), 1);
  db = reopen(db, 1);
  EXPECT_EQ(size(db, table), 250000);
  EXPECT_TRUE(sameBytes(data(db, table), pattern(250000)));
}

// ---- failing on the way ----

// Also when only a single write fails, and those after it would not.
TEST_F(SettingTableData, LeavesTheOldDataWhenAnAppendFails) {
  for (int attempt = 0;; ++attempt) {
    const int step = attempt / 2;
    const Sample sample;
    const int16_t db = put(sample.image);
    ASSERT_EQ(size(db), 5);
    FakeHost host;
    if (attempt % 2 == 0) {
      host.failFrom(FakeHost::Call::write, step);
    } else {
      host.failOnce(FakeHost::Call::write, step);
    }
    int result = -1;
    expectPositionKept(db, [&] {
      if (result == -1) result = set(db, pattern(50), 60);
    });
    host.heal();
    host.releaseBlocks();
    if (!host.failed()) {
      EXPECT_EQ(result, 1);
      EXPECT_EQ(data(db), pattern(50));
      EXPECT_GT(step, 0);
      break;
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(data(db), bytesOf("hello"));
    EXPECT_EQ(slot(1).firstDataPos, sample.data);
    EXPECT_EQ(slot(1).dataWriteCount, 1u);
    close(db);
  }
}

TEST_F(SettingTableData, FailsWhenAWriteInPlaceFails) {
  const int16_t db = put(Sample().image);
  FakeHost host;
  host.failFrom(FakeHost::Call::write);
  expectPositionKept(db, [&] { EXPECT_EQ(set(db, bytesOf("fits")), 0); });
}

TEST_F(SettingTableData, FailsWhenTheFillGetsNoMemory) {
  const int16_t db = put(Sample().image);
  ASSERT_EQ(size(db), 5);
  FakeHost host;
  host.failFrom(FakeHost::Call::allocate);
  expectPositionKept(db, [&] { EXPECT_EQ(set(db, pattern(50), 60), 0); });
  host.heal();
  EXPECT_EQ(data(db), bytesOf("hello"));
  allowDamage();  // what was written of the block stays after the others
}

// ---- the inner routines ----

class AppendingTableData : public TableData {
 protected:
  const Bytes id_ = identifier(kTable);
};

TEST_F(AppendingTableData, ReturnsTheUpdatedSlot) {
  const Sample sample;
  const int16_t db = put(sample.image);
  const int64_t end = sample.image.end();
  tablePart1 slotOut = {};
  EXPECT_EQ(internal_WriteOneTableLinkInEOF(db, id_.data(), 22 + 144, 144, pattern(3).data(), 3, 5,
                                            &slotOut),
            1);
  EXPECT_EQ(int64_t{slotOut.firstDataPos}, end);
  EXPECT_EQ(int64_t{slotOut.lastWrittenDataPos}, end);
  EXPECT_EQ(int64_t{slotOut.lastDataPos}, end);
  EXPECT_EQ(uint32_t{slotOut.dataBlockCount}, 1u);
  EXPECT_EQ(uint32_t{slotOut.dataWriteCount}, 2u);
  EXPECT_EQ(uint32_t{slotOut.recordCount}, 1u);
  EXPECT_EQ(slot(1).firstDataPos, end);
}

TEST_F(AppendingTableData, WorksWithoutASlotToHandBack) {
  const Sample sample;
  const int16_t db = put(sample.image);
  EXPECT_EQ(internal_WriteOneTableLinkInEOF(db, id_.data(), 22 + 144, 144, pattern(3).data(), 3, 0,
                                            nullptr),
            1);
  EXPECT_EQ(tableData(sample.image.end()).data(), pattern(3));
}

TEST_F(AppendingTableData, UpdatesTheSlotAsItIsInTheFile) {
  const int16_t db = put(Sample().image);
  tablePart1 stale = {};
  stale.dataWriteCount = 70;
  EXPECT_EQ(internal_WriteOneTableLinkInEOF(db, id_.data(), 22 + 144, 144, pattern(3).data(), 3, 0,
                                            &stale),
            1);
  EXPECT_EQ(slot(1).dataWriteCount, 2u);
  EXPECT_EQ(slot(1).name(), "two");
}

TEST_F(AppendingTableData, FailsWhenTheSlotHoldsNoTable) {
  const Sample sample;
  const int16_t db = put(sample.image);
  const Bytes before = contents();
  tablePart1 slotOut = {};
  slotOut.dataWriteCount = 70;
  EXPECT_EQ(internal_WriteOneTableLinkInEOF(db, id_.data(), 22 + 2 * 144, 144, pattern(3).data(), 3,
                                            0, &slotOut),
            0);
  EXPECT_EQ(uint32_t{slotOut.dataWriteCount}, 70u);
  EXPECT_EQ(contents().cut(before.size()), before);
}

TEST_F(AppendingTableData, WrapsItsWriteCountAround) {
  Sample sample;
  sample.image.slot(1).dataWriteCount = 0xFFFFFFFF;
  const int16_t db = put(sample.image);
  EXPECT_EQ(set(db, pattern(50)), 1);
  EXPECT_EQ(slot(1).dataWriteCount, 0u);
  expectDamage(kDefaultFile, {"D9"});
}

}  // namespace
}  // namespace qvdbase::test
