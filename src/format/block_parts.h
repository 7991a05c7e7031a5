// What records and table data have in common as blocks of a file: how they begin and how they end,
// written and read field by field at the file's position.
#pragma once

#include <cstdint>
#include <cstring>

#include "format/fields.h"
#include "format/layout.h"

namespace qvdbase::format {

// How the blocks of one kind begin.
struct BlockKind {
  uint8_t mark;
  uint16_t headerSize;
};
inline constexpr BlockKind kRecordBlock = {kRecordMark, kRecordHeaderSize};
inline constexpr BlockKind kTableDataBlock = {kTableDataMark, kTableDataHeaderSize};

// Reads mark, header size and owning table into the head, each judged before the next is read. The
// file is then after them. In the header for the walks, which begin every step with it.
template <typename Head>
[[nodiscard]] inline bool readBlockStart(int16_t file, BlockKind kind, const unsigned char* tableID,
                                         Head* head) {
  if (!readUint8(file, &head->blockMark) || head->blockMark != kind.mark) return false;
  if (!readUint16(file, &head->headerSize) || head->headerSize != kind.headerSize) return false;
  if (!readBytes(file, head->tableID, sizeof head->tableID)) return false;
  return std::memcmp(head->tableID, tableID, sizeof head->tableID) == 0;
}

[[nodiscard]] bool writeBlockStart(int16_t file, BlockKind kind, const unsigned char* tableID);

// The rest of a block from its lengths on: both lengths, the data, fill up to the capacity, and the
// end mark. With a checksum, `sum`, that is the end of the fill.
[[nodiscard]] bool writeBlockContent(int16_t file, const unsigned char* data, uint32_t length,
                                     uint32_t capacity, const unsigned char* sum = nullptr);

// The fill after data, which may be none, and the end mark.
[[nodiscard]] bool writeBlockEnd(int16_t file, uint32_t fill, const unsigned char* sum = nullptr);

}  // namespace qvdbase::format
