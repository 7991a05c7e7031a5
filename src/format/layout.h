// The database file: every offset, size and mark of the format, and the in-memory forms of its
// parts. Nothing but declarations: the codecs are in the other files of this folder.
//
// A file is a header of 22 bytes, a directory of table slots, and after it, in order of writing,
// record blocks and table-data blocks. Header and blocks store integers most significant byte
// first, slots least significant byte first; both orders are part of the format.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvdbase::format {

inline constexpr int64_t kIdentifierSize = 10;  // eight identity bytes and their 16-bit sum
inline constexpr int64_t kIdentitySize = 8;

// File header, from offset 0.
inline constexpr int64_t kSignatureSize = 4;
inline constexpr int64_t kVersionPos = kSignatureSize;                       // uint16
inline constexpr int64_t kDatabaseIDPos = kVersionPos + 2;                   // identifier
inline constexpr int64_t kTableCountPos = kDatabaseIDPos + kIdentifierSize;  // int16
inline constexpr int64_t kSlotCountPos = kTableCountPos + 2;                 // uint16
inline constexpr int64_t kSlotSizePos = kSlotCountPos + 2;                   // uint16
inline constexpr int64_t kDirectoryPos = kSlotSizePos + 2;                   // the first slot
static_assert(kDirectoryPos == 22);

inline constexpr uint16_t kNewSlotCount = 32;  // slots that a new file gets
inline constexpr uint16_t kSlotImageSize = 144;

// Where slot `index` is, in a directory whose slots are `slotSize` bytes apart.
constexpr int64_t slotPosition(int64_t index, int64_t slotSize = kSlotImageSize) {
  return kDirectoryPos + index * slotSize;
}

// Where a directory of that many slots ends, and the first block may begin.
constexpr int64_t directoryEnd(int64_t slotCount, int64_t slotSize = kSlotImageSize) {
  return slotPosition(slotCount, slotSize);
}

inline constexpr int64_t kNewFileSize = directoryEnd(kNewSlotCount);  // before the first block
static_assert(kNewFileSize == 4630);

inline constexpr uint16_t kFirstVersion = 100;  // versions that the directory reader accepts:
inline constexpr uint16_t kLastVersion = 199;   // 100 to 199
inline constexpr uint16_t kFinishedVersion = 100;
inline constexpr uint16_t kUnfinishedPackVersion = 101;  // a packed file while it is written
inline constexpr int64_t kTableCountBeforeDirectory = kDirectoryPos - kTableCountPos;
static_assert(kTableCountBeforeDirectory == 6);

// Table slot, offsets inside its 144 bytes.
namespace slot {
inline constexpr int kSlotMark = 0;               // uint8
inline constexpr int kInfoSize = 2;               // uint16
inline constexpr int kTableVersion = 4;           // uint16
inline constexpr int kTableID = 6;                // identifier
inline constexpr int kTableName = 16;             // 32 bytes
inline constexpr int kTableFlags1 = 48;           // uint16
inline constexpr int kTableFlags2 = 50;           // uint16
inline constexpr int kRecordsInfoSize = 56;       // uint16
inline constexpr int kRecordCount = 60;           // uint32
inline constexpr int kRecordWriteCount = 64;      // uint32
inline constexpr int kFirstRecordPos = 72;        // int64
inline constexpr int kLastWrittenRecordPos = 80;  // int64
inline constexpr int kLastRecordPos = 88;         // int64
inline constexpr int kDataInfoSize = 96;          // uint16
inline constexpr int kDataBlockCount = 100;       // uint32
inline constexpr int kDataWriteCount = 104;       // uint32
inline constexpr int kFirstDataPos = 112;         // int64
inline constexpr int kLastWrittenDataPos = 120;   // int64
inline constexpr int kLastDataPos = 128;          // int64
inline constexpr int kSlotEndMark = 136;          // uint8
static_assert(kSlotEndMark + 8 == kSlotImageSize);

// The bytes between the fields, which hold kSlotFiller.
struct Gap {
  int begin;
  int end;
};
inline constexpr Gap kGaps[] = {
    {kSlotMark + 1, kInfoSize},           {kTableFlags2 + 2, kRecordsInfoSize},
    {kRecordsInfoSize + 2, kRecordCount}, {kRecordWriteCount + 4, kFirstRecordPos},
    {kDataInfoSize + 2, kDataBlockCount}, {kDataWriteCount + 4, kFirstDataPos},
    {kSlotEndMark + 1, kSlotImageSize}};
}  // namespace slot

inline constexpr unsigned char kSlotFiller = 0xCC;
inline constexpr int64_t kTableNameSize = 32;
inline constexpr uint8_t kSlotMark = 151;
inline constexpr uint8_t kSlotEndMark = 'y';
inline constexpr uint16_t kInfoSize = 50;         // the three group sizes, stored so whatever the
inline constexpr uint16_t kRecordsInfoSize = 40;  // copy in memory holds
inline constexpr uint16_t kDataInfoSize = 40;
inline constexpr uint16_t kNewTableVersion = 100;
inline constexpr uint16_t kNewTableDataInfoSize = 36;  // in memory only, until the slot is read

// Record block, offsets from the block's position.
namespace record {
inline constexpr int64_t kBlockMark = 0;                             // uint8
inline constexpr int64_t kHeaderSize = kBlockMark + 1;               // uint16
inline constexpr int64_t kTableID = kHeaderSize + 2;                 // identifier
inline constexpr int64_t kRecordID = kTableID + kIdentifierSize;     // identifier
inline constexpr int64_t kCreateTime = kRecordID + kIdentifierSize;  // uint32
inline constexpr int64_t kModifyTime = kCreateTime + 4;              // uint32
inline constexpr int64_t kPrevRecordPos = kModifyTime + 4;           // int64, 0 for none
inline constexpr int64_t kNextRecordPos = kPrevRecordPos + 8;        // int64, 0 for none
inline constexpr int64_t kDataLength = kNextRecordPos + 8;           // uint32
inline constexpr int64_t kDataCapacity = kDataLength + 4;            // uint32
inline constexpr int64_t kData = kDataCapacity + 4;  // dataCapacity bytes, then the end mark
static_assert(kData == 55);
}  // namespace record

// Checksum of a payload: the last bytes of the block's capacity, right before the end mark, where
// the block has one. Offsets from its first byte.
namespace checksum {
inline constexpr int64_t kMagic = 0;                     // four bytes
inline constexpr int64_t kModifyTime = kMagic + 4;       // uint32, of the header
inline constexpr int64_t kDataLength = kModifyTime + 4;  // uint32, of the header
inline constexpr int64_t kHashHigh = kDataLength + 4;    // uint64
inline constexpr int64_t kHashLow = kHashHigh + 8;       // uint64
inline constexpr uint32_t kSize = kHashLow + 8;
static_assert(kSize == 28);
}  // namespace checksum

inline constexpr unsigned char kChecksumMagic[] = {0xC5, 'Q', 'V', 'c'};
// By so much the capacity of a new block is larger that gets a checksum.
inline constexpr uint32_t kChecksumCapacity = 32;
static_assert(kChecksumCapacity >= checksum::kSize);

inline constexpr uint8_t kRecordMark = 135;
inline constexpr uint16_t kRecordHeaderSize = 64;  // the stored number; the header has 55 bytes
inline constexpr uint8_t kHeaderInMemoryEndMark = 'x';
inline constexpr uint8_t kBlockEndMark = 'i';
inline constexpr int64_t kRecordBlockOverhead = record::kData + 1;  // header and end mark

// Table-data block, offsets from the block's position.
namespace tabledata {
inline constexpr int64_t kBlockMark = 0;                            // uint8
inline constexpr int64_t kHeaderSize = kBlockMark + 1;              // uint16
inline constexpr int64_t kTableID = kHeaderSize + 2;                // identifier
inline constexpr int64_t kDataLength = kTableID + kIdentifierSize;  // uint32
inline constexpr int64_t kDataCapacity = kDataLength + 4;           // uint32
inline constexpr int64_t kData = kDataCapacity + 4;  // dataCapacity bytes, then the end mark
static_assert(kData == 21);
}  // namespace tabledata

inline constexpr uint8_t kTableDataMark = 150;
inline constexpr uint16_t kTableDataHeaderSize = 32;
inline constexpr int64_t kTableDataBlockOverhead = tabledata::kData + 1;

inline constexpr uint32_t kFillChunkSize = 32768;

}  // namespace qvdbase::format

// The file header in memory. The three directory numbers are returned beside it.
struct internal_Head1 {
  unsigned char signature[qvdbase::format::kSignatureSize];
  uint16_t version;
  unsigned char databaseID[qvdbase::format::kIdentifierSize];
  int64_t databaseIDPos;  // where databaseID was read
};
static_assert(sizeof(internal_Head1) == 24);

// A table slot in memory. 64-bit fields are aligned to 4 bytes, because the raw slot images that
// one of the packs writes are this structure's bytes.
#pragma pack(push, 4)
struct tablePart1 {
  uint8_t slotMark;
  uint16_t infoSize;
  uint16_t tableVersion;
  unsigned char tableID[qvdbase::format::kIdentifierSize];
  char tableName[qvdbase::format::kTableNameSize];  // not terminated when all 32 bytes are used
  uint16_t tableFlags1;
  uint16_t tableFlags2;
  uint16_t recordsInfoSize;
  uint32_t recordCount;
  uint32_t recordWriteCount;
  int64_t firstRecordPos;
  int64_t lastWrittenRecordPos;
  int64_t lastRecordPos;
  uint16_t dataInfoSize;
  uint32_t dataBlockCount;
  uint32_t dataWriteCount;
  int64_t firstDataPos;
  int64_t lastWrittenDataPos;
  int64_t lastDataPos;
  uint8_t slotEndMark;
};
#pragma pack(pop)
static_assert(sizeof(tablePart1) == 128);
static_assert(offsetof(tablePart1, slotEndMark) == 124);

// A record block's header in memory.
struct recordPart1 {
  uint8_t blockMark;
  uint16_t headerSize;
  unsigned char tableID[qvdbase::format::kIdentifierSize];
  unsigned char recordID[qvdbase::format::kIdentifierSize];
  uint32_t createTime;
  uint32_t modifyTime;
  int64_t prevRecordPos;
  int64_t nextRecordPos;
  uint32_t dataLength;
  uint32_t dataCapacity;
  uint8_t endMarkValue;  // 'x' in a header that was read or written; never in the file
};
