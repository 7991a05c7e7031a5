// The headers of both kinds of block as bytes in memory: for readers that look at a file's bytes
// themselves, and for writers that compose whole blocks.
//
// The functions judge nothing; `bytes` holds as many as the header has (record::kData and
// tabledata::kData).
#pragma once

#include <cstdint>
#include <cstring>

#include "format/big_endian.h"
#include "format/layout.h"

namespace qvdbase::format {

// Whether a block may begin here: the mark of a record or of table data, with its header size.
inline bool isBlockStart(const unsigned char* bytes) {
  static_assert(record::kHeaderSize == tabledata::kHeaderSize);
  const auto headerSize = loadBigEndian<uint16_t>(bytes + record::kHeaderSize);
  return (bytes[record::kBlockMark] == kRecordMark && headerSize == kRecordHeaderSize) ||
         (bytes[tabledata::kBlockMark] == kTableDataMark && headerSize == kTableDataHeaderSize);
}

// In place: a copy of fields that have just been stored one by one would wait for all of them.
void decodeRecordHead(const unsigned char* bytes, recordPart1* head);
recordPart1 decodeRecordHead(const unsigned char* bytes);
void encodeRecordHead(const recordPart1& head, unsigned char* bytes);

// Whether a header is that of a record of this table: its mark, its size and its owner.
inline bool isRecordOf(const unsigned char* bytes, const unsigned char* tableID) {
  return bytes[record::kBlockMark] == kRecordMark &&
         loadBigEndian<uint16_t>(bytes + record::kHeaderSize) == kRecordHeaderSize &&
         std::memcmp(bytes + record::kTableID, tableID, kIdentifierSize) == 0;
}

struct TableDataHead {
  uint8_t blockMark;
  uint16_t headerSize;
  unsigned char tableID[kIdentifierSize];
  uint32_t dataLength;
  uint32_t dataCapacity;
};

TableDataHead decodeTableDataHead(const unsigned char* bytes);
void encodeTableDataHead(const TableDataHead& head, unsigned char* bytes);

}  // namespace qvdbase::format
