// A whole table-data block, as the packs copy it and link repair checks it.
#pragma once

#include <cstdint>

namespace qvdbase::maintenance {

// Checks the block at blockPos from its mark to its end mark and stores its length in bytes, header
// and end mark included. Returns false when it cannot be read, when a mark or the header size is
// wrong and when it belongs to another table.
[[nodiscard]] bool measureTableDataBlock(int16_t db, int64_t blockPos, const unsigned char* tableID,
                                         int64_t* length);

}  // namespace qvdbase::maintenance
