// How much a file holds, asked before a length that was read from it is believed.
//
// A length in a damaged or hostile file can claim gigabytes. Where the file is shorter the read
// would fail, so nothing needs to be allocated to find that out.
#pragma once

#include <cstdint>

namespace qvdbase::maintenance {

// The file's length in bytes, or -1. The position stays.
int64_t fileLengthOf(int16_t db);

// More records than this do not fit the file, unless their chain is damaged.
uint64_t mostRecordsIn(int16_t db);

// Whether the file has `count` bytes from its position on, so that a read of them can succeed. Also
// true when the file's length cannot be obtained. The position stays.
bool fileHoldsAhead(int16_t db, uint64_t count);

}  // namespace qvdbase::maintenance
