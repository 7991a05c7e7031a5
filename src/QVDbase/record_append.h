// Appending records.
#pragma once

#include <cstdint>

#include "format/layout.h"

// Appends a record to the table of the slot, under the identifier in `recordID` when useGivenID is
// not 0, else under a new one that is stored there. On success *slot is the slot as now in the
// file. Returns 1; 0 when recordID is null, when the slot's first position and count disagree, and
// when internal_WriteOneRecordDataInEOF fails.
int internal_AddOneRecordData(int16_t db, tablePart1* slot, const unsigned char* tableID,
                              int64_t slotPos, uint16_t slotSize, const unsigned char* payload,
                              uint32_t size, uint32_t reserve, unsigned char* recordID,
                              uint16_t useGivenID);

// Writes a record block at the end of the file, links it after the slot's last record and rewrites
// the slot. recordID may be null when useGivenID is 0. Returns 1 with the slot updated and the
// block's position stored, or 0.
int internal_WriteOneRecordDataInEOF(int16_t db, tablePart1* slot, const unsigned char* tableID,
                                     unsigned char* recordID, int64_t slotPos, uint16_t slotSize,
                                     const unsigned char* payload, uint32_t size, uint32_t reserve,
                                     int64_t* newRecordPos, uint16_t useGivenID);

namespace qvdbase::engine {

// The same, with the block's position stored before anything is written, for callers that take the
// block back after a failure. A block that is protected has a checksum of its payload, and the
// capacity for it, and takes kMostWithChecksum bytes at most.
[[nodiscard]] bool appendRecord(int16_t db, tablePart1* slot, const unsigned char* tableID,
                                unsigned char* recordID, int64_t slotPos, uint16_t slotSize,
                                const unsigned char* payload, uint32_t size, uint32_t reserve,
                                bool useGivenID, int64_t* blockPos, bool isProtected = false);

// Whether the slot's first position and its count agree on there being records.
bool chainHeadMatchesCount(const tablePart1& slot);

// Whether a slot says of its chain what it said before: then no record was added or deleted since.
bool hasSameChain(const tablePart1& now, const tablePart1& then);

}  // namespace qvdbase::engine
