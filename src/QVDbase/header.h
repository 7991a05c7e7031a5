// The file header and the directory numbers, from which every table and record operation starts.
#pragma once

#include <cstdint>

#include "format/layout.h"

// Reads and checks the header. Returns 1 and leaves the file at the table count; returns 0 for a
// null head, an unreadable file and a signature that is not ours. The version is not judged.
int internal_GetDBHead1(int16_t db, internal_Head1* head);

// Returns the directory numbers, from the directory cache after the first read, and leaves the file
// at the first slot. Returns 1, or 0 when header or numbers cannot be read, the signature is not
// ours or the version is outside 100 to 199.
//
// After a cache hit `head` holds no header fields: callers use the numbers and the position only.
int internal_GetDBHead2Table(int16_t db, internal_Head1* head, int16_t* tableCount,
                             int16_t* slotCount, uint16_t* slotSize);

namespace qvdbase::engine {

// The three directory numbers, for the operations that have no use for the header: most of them.
struct DirectoryNumbers {
  int16_t tableCount;
  int16_t slotCount;
  uint16_t slotSize;
};

// internal_GetDBHead2Table without its header.
[[nodiscard]] bool readDirectoryNumbers(int16_t db, DirectoryNumbers* numbers);

}  // namespace qvdbase::engine
