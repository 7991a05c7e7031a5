// Appending one copied record.
#include "maintenance/pack_record.h"
#include "kit/layers.h"

#include "format/Aliment8.h"
#include "kit/record_fixture.h"

namespace qvdbase::test {
namespace {

class AppendingACopiedRecord : public RecordTest {
 protected:
  // The slot of "notes", as it is in the image.
  tablePart1 slotOfNotes() {
    tablePart1 slot;
    qvdbase::format::decodeSlot(image.slot(notes).encode().data(), &slot);
    return slot;
  }

  static recordPart1 source(uint32_t length, uint32_t capacity) {
    recordPart1 header{};
    header.blockMark = 135;
    header.headerSize = 64;
    const Bytes id = identifier(kC);
    std::copy(id.begin(), id.end(), header.recordID);
    header.createTime = 0x01020304;
    header.modifyTime = 0x05060708;
    header.prevRecordPos = 4711;  // of the source, and of no use here
    header.nextRecordPos = 4712;
    header.dataLength = length;
    header.dataCapacity = capacity;
    return header;
  }

  int append(int16_t db, tablePart1* slot, const recordPart1& header) {
    const Bytes payload = bytesOf("payload");
    return internal_AddOneRecordData_ForPack(db, slot, slot->tableID,
                                             static_cast<int64_t>(slotOffset(notes)), 144,
                                             payload.data(), &header);
  }
};

TEST_F(AppendingACopiedRecord, KeepsIdentifierTimesLengthAndCapacity) {
  const int16_t db = start();
  tablePart1 slot = slotOfNotes();
  ASSERT_EQ(append(db, &slot, source(7, 10)), 1);
  image.addRecord(notes, kC, bytesOf("payload"),
                  {.reserve = 10, .createTime = 0x01020304, .modifyTime = 0x05060708});
  expectFile();
}

TEST_F(AppendingACopiedRecord, CarriesTheIdentifierAsItIsEvenWithAWrongSum) {
  const int16_t db = start();
  tablePart1 slot = slotOfNotes();
  recordPart1 header = source(7, 7);
  header.recordID[9] ^= 0xFF;
  ASSERT_EQ(append(db, &slot, header), 1);
  EXPECT_EQ(record(image.end()).recordID, Bytes(header.recordID, header.recordID + 10));
  expectDamage(kDefaultFile, {"R4"});
}

TEST_F(AppendingACopiedRecord, ReturnsTheSlotAsItIsNowInTheFile) {
  threeRecords();
  const int16_t db = start();
  tablePart1 slot = slotOfNotes();
  const int64_t end = image.end();
  ASSERT_EQ(append(db, &slot, source(7, 7)), 1);
  EXPECT_EQ(slot.recordCount, 4u);
  EXPECT_EQ(int64_t{slot.lastRecordPos}, end);
  EXPECT_EQ(record(c).nextRecordPos, end);
}

TEST_F(AppendingACopiedRecord, RefusesASlotWhoseFirstPositionAndCountDisagree) {
  const int16_t db = start();
  tablePart1 slot = slotOfNotes();
  slot.recordCount = 1;
  expectUnchanged([&] { EXPECT_EQ(append(db, &slot, source(7, 7)), 0); });
  slot.recordCount = 0;
  slot.firstRecordPos = 4630;
  expectUnchanged([&] { EXPECT_EQ(append(db, &slot, source(7, 7)), 0); });
}

TEST_F(AppendingACopiedRecord, FailsWhereverAWriteFails) {
  allowDamage();
  for (size_t room = 0; room < 300; ++room) {
    const int16_t db = start();
    tablePart1 slot = slotOfNotes();
    host.fullAfter(room);
    const int result = append(db, &slot, source(7, 7));
    host.heal();
    close(db);
    if (result == 1) {
      // Block, slot, and once more identifier and times.
      EXPECT_EQ(room, 55u + 7 + 1 + 144 + 18);
      return;
    }
  }
  ADD_FAILURE() << "never succeeded";
}

}  // namespace
}  // namespace qvdbase::test
