// The four structures of a database file as they lie in it, with encoders and decoders of the
// tests' own: nothing here comes from the library, every offset was written down by hand from the
// format.
//
// Each structure starts out as the library would write it (an empty table, a record of no bytes);
// a test changes fields, also to values that no sound file holds.
#pragma once

#include <cstdint>
#include <string>

#include "kit/bytes.h"

namespace qvdbase::test {

inline constexpr size_t kHeaderBytes = 22;
inline constexpr size_t kSlotBytes = 144;
inline constexpr size_t kSlots = 32;
inline constexpr size_t kDirectoryEnd = 4630;  // 22 + 32 * 144: where the first block goes
inline constexpr size_t kRecordHeaderBytes = 55;
inline constexpr size_t kDataHeaderBytes = 21;

// The offset of slot `index`.
constexpr size_t slotOffset(size_t index) {
  return kHeaderBytes + index * kSlotBytes;
}

// The 10 bytes of an identifier: the number most significant byte first, then the sum of its eight
// bytes as two bytes, high byte first.
Bytes identifier(uint64_t number);
// The number back from the first eight of the 10 bytes; the sum is not looked at.
uint64_t identifierNumber(const Bytes& tenBytes);
// Whether the sum is right.
bool identifierSound(const Bytes& tenBytes);

// Offsets 0 to 21, numbers big-endian.
struct HeaderFields {
  Bytes signature = bytesOf("QVdb");
  uint16_t version = 100;
  Bytes databaseID = identifier(0x0102030405060708);
  int16_t tableCount = 0;
  uint16_t slotCount = 32;
  uint16_t slotSize = 144;

  Bytes encode() const;
};

// 144 bytes, numbers little-endian, gaps 0xCC.
struct SlotFields {
  uint8_t slotMark = 151;
  uint16_t infoSize = 50;
  uint16_t tableVersion = 100;
  Bytes tableID = identifier(0);
  Bytes tableName;  // up to 32 bytes, padded with zeros when encoded; 32 bytes when decoded
  uint16_t tableFlags1 = 0;
  uint16_t tableFlags2 = 0;
  uint16_t recordsInfoSize = 40;
  uint32_t recordCount = 0;
  uint32_t recordWriteCount = 0;
  int64_t firstRecordPos = 0;
  int64_t lastWrittenRecordPos = 0;
  int64_t lastRecordPos = 0;
  uint16_t dataInfoSize = 40;
  uint32_t dataBlockCount = 0;
  uint32_t dataWriteCount = 0;
  int64_t firstDataPos = 0;
  int64_t lastWrittenDataPos = 0;
  int64_t lastDataPos = 0;
  uint8_t slotEndMark = 121;  // 'y'

  Bytes encode() const;
  // The name up to its first zero byte, or all 32 bytes.
  std::string name() const;
};

// A slot without a table, as a new file holds 32 of them.
SlotFields freeSlot();

// 55 bytes of header, numbers big-endian, then the room for the data and the end mark.
struct RecordFields {
  uint8_t blockMark = 135;
  uint16_t headerSize = 64;
  Bytes tableID = identifier(0);
  Bytes recordID = identifier(0);
  uint32_t createTime = 0;
  uint32_t modifyTime = 0;
  int64_t prevRecordPos = 0;
  int64_t nextRecordPos = 0;
  uint32_t dataLength = 0;
  uint32_t dataCapacity = 0;
  Bytes room;                  // what stands in the block, data and fill; need not fit dataCapacity
  uint8_t blockEndMark = 105;  // 'i'

  Bytes encode() const;
  // The first dataLength bytes of the room.
  Bytes data() const { return room.cut(dataLength); }
};

// 21 bytes of header, numbers big-endian, then the room for the data and the end mark.
struct TableDataFields {
  uint8_t blockMark = 150;
  uint16_t headerSize = 32;
  Bytes tableID = identifier(0);
  uint32_t dataLength = 0;
  uint32_t dataCapacity = 0;
  Bytes room;
  uint8_t blockEndMark = 105;  // 'i'

  Bytes encode() const;
  Bytes data() const { return room.cut(dataLength); }
};

// Decoders: the structure at `offset` of a whole file. They judge nothing; bytes that the file does
// not have throw std::out_of_range (the room of a block is as long as its dataCapacity says).
HeaderFields decodeHeader(const Bytes& file);
SlotFields decodeSlot(const Bytes& file, size_t index);
RecordFields decodeRecord(const Bytes& file, int64_t offset);
TableDataFields decodeTableData(const Bytes& file, int64_t offset);

}  // namespace qvdbase::test
