// Table data: the one block of free bytes that a table may carry.
#pragma once

#include <cstdint>

#include "format/block_heads.h"

// Stores data for the table of the slot: over its present block when that is large enough, else as
// a new block. Returns 1; 0 when the present block is damaged (nothing is appended then) and when
// the file cannot be read or written.
int internal_SetOneTableData(int16_t db, tablePart1* slot, const unsigned char* tableID,
                             int64_t slotPos, uint16_t slotSize, const unsigned char* data,
                             uint32_t size, uint32_t reserve);

// Writes a new table-data block at the end of the file and points the slot at slotPos to it. On
// success the updated slot is copied to *slotOut, unless that is null. Returns 1 or 0.
int internal_WriteOneTableLinkInEOF(int16_t db, const unsigned char* tableID, int64_t slotPos,
                                    uint16_t slotSize, const unsigned char* data, uint32_t size,
                                    uint32_t reserve, tablePart1* slotOut);

namespace qvdbase::engine {

// Seeks to a table-data block and checks mark, header size and owner. The file is then at its
// dataLength.
[[nodiscard]] bool seekTableData(int16_t db, int64_t blockPos, const unsigned char* tableID);

// The whole header. The file is then at the data.
[[nodiscard]] bool readTableDataHead(int16_t db, int64_t blockPos, const unsigned char* tableID,
                                     format::TableDataHead* head);

// Checks the block at blockPos from its mark to its end mark and stores its length in bytes, header
// and end mark included. Returns false when it cannot be read, when a mark or the header size is
// wrong and when it belongs to another table.
[[nodiscard]] bool measureTableDataBlock(int16_t db, int64_t blockPos, const unsigned char* tableID,
                                         int64_t* length);

}  // namespace qvdbase::engine
