// How much a file holds, asked before a length that was read from it is believed.
//
// A length in a damaged or hostile file can claim gigabytes. The read that it asks for is bound to
// fail where the file is shorter, so nothing needs to be allocated to find that out.
#pragma once

#include <cstdint>

namespace qvdbase::maintenance {

// The file's length in bytes, or -1. The position stays.
int64_t fileLengthOf(int16_t db);

// Whether `count` bytes lie ahead of the file's position, that is, whether a read of them can
// succeed. True as well when the file's length cannot be had. The position stays.
bool fileHoldsAhead(int16_t db, uint64_t count);

}  // namespace qvdbase::maintenance
