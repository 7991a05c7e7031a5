// The table slot on disk: where each field is, what fills the gaps, and what is not believed
// when it is read.
#include <qvdbase/QVFile.h>

#include <cstring>
#include <functional>
#include <limits>

#include "format/Aliment8.h"
#include "kit/database_fixture.h"
#include "kit/fake_host.h"
#include "kit/layers.h"

namespace qvdbase::test {
namespace {

// A slot in which every field holds another value, and the 144 bytes that it makes.
tablePart1 distinctSlot() {
  tablePart1 slot = {};
  slot.slotMark = 151;
  slot.infoSize = 7;
  slot.tableVersion = 0x0102;
  std::memcpy(slot.tableID, hex("1112131415161718 191A").data(), 10);
  std::memcpy(slot.tableName, "0123456789abcdefghijklmnopqrstuv", 32);
  slot.tableFlags1 = 0x2122;
  slot.tableFlags2 = 0x2324;
  slot.recordsInfoSize = 8;
  slot.recordCount = 0x31323334;
  slot.recordWriteCount = 0x35363738;
  slot.firstRecordPos = 0x4142434445464748;
  slot.lastWrittenRecordPos = 0x5152535455565758;
  slot.lastRecordPos = 0x6162636465666768;
  slot.dataInfoSize = 36;
  slot.dataBlockCount = 0x71727374;
  slot.dataWriteCount = 0x75767778;
  slot.firstDataPos = static_cast<int64_t>(0x8182838485868788);
  slot.lastWrittenDataPos = static_cast<int64_t>(0x9192939495969798);
  slot.lastDataPos = static_cast<int64_t>(0xA1A2A3A4A5A6A7A8);
  slot.slotEndMark = 'y';
  return slot;
}

Bytes distinctBytes() {
  return Bytes()
      .add(hex("97 CC 3200 0201"))                                     // 0
      .add(hex("1112131415161718 191A"))                               // 6
      .text("0123456789abcdefghijklmnopqrstuv")                        // 16
      .add(hex("2221 2423 CCCCCCCC"))                                  // 48
      .add(hex("2800 CCCC 34333231 38373635 CCCCCCCC"))                // 56
      .add(hex("4847464544434241 5857565554535251 6867666564636261"))  // 72
      .add(hex("2800 CCCC 74737271 78777675 CCCCCCCC"))                // 96
      .add(hex("8887868584838281 9897969594939291 A8A7A6A5A4A3A2A1"))  // 112
      .add(hex("79 CCCCCCCCCCCCCC"));                                  // 136
}

const char* kFreeSlot =
    "00 CC 3200"
    "0000 00000000000000000000"
    "0000000000000000000000000000000000000000000000000000000000000000 0000 0000"
    "CCCCCCCC 2800 CCCC 00000000 00000000 CCCCCCCC"
    "0000000000000000 0000000000000000 0000000000000000"
    "2800 CCCC 00000000 00000000 CCCCCCCC"
    "0000000000000000 0000000000000000 0000000000000000 00 CCCCCCCCCCCCCC";

// The bytes of the slot in memory, to compare slots whole.
Bytes image(const tablePart1& slot) {
  Bytes result(sizeof slot);
  std::memcpy(result.data(), &slot, sizeof slot);
  return result;
}

class SlotFile : public DatabaseTest {
 protected:
  // A file of these bytes, open for reading and writing. It is no database.
  int16_t file(const Bytes& content) {
    writeFile(path("slots"), content);
    int16_t handle = 0;
    EXPECT_EQ(QVFile().QVOpenFile(wide("slots"), 3, &handle), 1);
    handle_ = handle;
    return handle;
  }

  Bytes fileBytes() { return readFile(path("slots")); }

  void TearDown() override {
    if (handle_ != 0) QVFile().QVCloseFile(handle_);
    DatabaseTest::TearDown();
  }

 private:
  int16_t handle_ = 0;
};

using SlotWriter = SlotFile;
using SlotReader = SlotFile;

TEST_F(SlotWriter, PutsEveryFieldInItsPlace) {
  const int16_t f = file({});
  const tablePart1 slot = distinctSlot();
  EXPECT_NE(WriteOne_TablePartOne(f, &slot), 0);
  EXPECT_TRUE(sameBytes(fileBytes(), distinctBytes()));
}

TEST_F(SlotWriter, WritesExactly144BytesAtThePosition) {
  const int16_t f = file(Bytes(300, 0xEE));
  seek(f, 10);
  const tablePart1 slot = distinctSlot();
  EXPECT_NE(WriteOne_TablePartOne(f, &slot), 0);
  EXPECT_EQ(position(f), 154);
  EXPECT_TRUE(sameBytes(fileBytes(), Bytes(300, 0xEE).with(10, distinctBytes())));
}

TEST_F(SlotWriter, WritesASlotOfZerosAsAFreeOne) {
  const int16_t f = file({});
  const tablePart1 slot = {};
  EXPECT_NE(WriteOne_TablePartOne(f, &slot), 0);
  ASSERT_EQ(hex(kFreeSlot).size(), 144u);
  EXPECT_TRUE(sameBytes(fileBytes(), hex(kFreeSlot)));
}

TEST_F(SlotWriter, StoresTheGroupSizesWhateverTheMemoryHolds) {
  const int16_t f = file({});
  tablePart1 slot = {};
  slot.infoSize = slot.recordsInfoSize = slot.dataInfoSize = 0xFFFF;
  EXPECT_NE(WriteOne_TablePartOne(f, &slot), 0);
  EXPECT_TRUE(sameBytes(fileBytes(), hex(kFreeSlot)));
}

TEST_F(SlotWriter, FailsWhenTheWriteFails) {
  const int16_t f = file({});
  const tablePart1 slot = distinctSlot();
  FakeHost host;
  host.failFrom(FakeHost::Call::write);
  EXPECT_EQ(WriteOne_TablePartOne(f, &slot), 0);
}

TEST_F(SlotWriter, FailsWithoutAFile) {
  const tablePart1 slot = distinctSlot();
  EXPECT_EQ(WriteOne_TablePartOne(0, &slot), 0);
}

TEST_F(SlotReader, FindsEveryFieldInItsPlace) {
  const int16_t f = file(distinctBytes());
  tablePart1 slot = {};
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 144), 1);
  tablePart1 expected = distinctSlot();
  expected.infoSize = 50;
  expected.recordsInfoSize = expected.dataInfoSize = 40;
  EXPECT_EQ(image(slot), image(expected));
}

TEST_F(SlotReader, SetsTheGroupSizesWhateverTheFileHolds) {
  Bytes bytes = distinctBytes();
  bytes.putLe(2, 2, 1);
  bytes.putLe(56, 2, 2);
  bytes.putLe(96, 2, 0xFFFF);
  const int16_t f = file(bytes);
  tablePart1 slot = {};
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 144), 1);
  EXPECT_EQ(int{slot.infoSize}, 50);
  EXPECT_EQ(int{slot.recordsInfoSize}, 40);
  EXPECT_EQ(int{slot.dataInfoSize}, 40);
}

TEST_F(SlotReader, DoesNotLookAtTheFiller) {
  Bytes bytes = distinctBytes();
  for (const int filler : {1, 52, 53, 54, 55, 58, 59, 68, 71, 98, 99, 108, 111, 137, 143}) {
    bytes[static_cast<size_t>(filler)] = 0x11;
  }
  const int16_t f = file(bytes);
  tablePart1 slot = {};
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 144), 1);
  tablePart1 expected = distinctSlot();
  expected.infoSize = 50;
  expected.recordsInfoSize = expected.dataInfoSize = 40;
  EXPECT_EQ(image(slot), image(expected));
}

TEST_F(SlotReader, TakesASlotWithoutItsMarksAsItIs) {
  const int16_t f = file(Bytes(144, 0));
  tablePart1 slot = distinctSlot();
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 144), 1);
  EXPECT_EQ(int{slot.slotMark}, 0);
  EXPECT_EQ(int{slot.slotEndMark}, 0);
}

TEST_F(SlotReader, EndsAfterTheBytesItWasAskedToRead) {
  const int16_t f = file(Bytes(5, 0xEE).add(distinctBytes()).fill(100, 0xEE));
  for (const int length : {144, 150, 200}) {
    seek(f, 5);
    tablePart1 slot = {};
    EXPECT_EQ(ReadOne_TablePartOne(f, &slot, length), 1);
    EXPECT_EQ(position(f), 5 + length);
    const int64_t read = slot.lastDataPos;  // fields of the structure are not aligned to 8
    EXPECT_EQ(read, int64_t{distinctSlot().lastDataPos});
  }
}

TEST_F(SlotReader, TakesTheMissingBytesOfAShortSlotAsZeros) {
  const int16_t f = file(distinctBytes());
  tablePart1 slot = distinctSlot();
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 64), 1);
  EXPECT_EQ(position(f), 64);
  EXPECT_EQ(int{slot.slotMark}, 151);
  EXPECT_EQ(uint32_t{slot.recordCount}, 0x31323334u);
  EXPECT_EQ(uint32_t{slot.recordWriteCount}, 0u);
  EXPECT_EQ(int64_t{slot.firstRecordPos}, 0);
  EXPECT_EQ(int{slot.slotEndMark}, 0);
}

TEST_F(SlotReader, LeavesTheOutputUntouchedWhenTheReadFails) {
  const int16_t f = file(distinctBytes());
  for (const int length : {145, 1000, 65535}) {
    seek(f, 0);
    tablePart1 slot;
    std::memset(&slot, 0x5A, sizeof slot);
    const Bytes before = image(slot);
    EXPECT_EQ(ReadOne_TablePartOne(f, &slot, length), 0) << length;
    EXPECT_EQ(image(slot), before) << length;
  }
  seek(f, 1);
  tablePart1 slot;
  std::memset(&slot, 0x5A, sizeof slot);
  const Bytes before = image(slot);
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 144), 0);
  EXPECT_EQ(image(slot), before);
}

TEST_F(SlotReader, ReadsNothingForANegativeLength) {
  const int16_t f = file(distinctBytes());
  tablePart1 slot = {};
  for (const int length : {-1, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(ReadOne_TablePartOne(f, &slot, length), 0);
    EXPECT_EQ(position(f), 0);
  }
}

TEST_F(SlotReader, ReadsNothingOfALongSlotWithoutMemoryForIt) {
  const int16_t f = file(distinctBytes().zeros(1));
  FakeHost host;
  host.failOnce(FakeHost::Call::allocate);
  tablePart1 slot = {};
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 145), 0);
  EXPECT_EQ(position(f), 0);
  EXPECT_EQ(ReadOne_TablePartOne(f, &slot, 145), 1);
}

TEST_F(SlotReader, FailsOnAHandleThatIsNotOpen) {
  tablePart1 slot = {};
  EXPECT_EQ(ReadOne_TablePartOne(0, &slot, 144), 0);
}

TEST(SlotInMemory, Is128BytesWithItsEndMarkAt124) {
  EXPECT_EQ(sizeof(tablePart1), 128u);
  EXPECT_EQ(offsetof(tablePart1, slotEndMark), 124u);
}

}  // namespace
}  // namespace qvdbase::test
