// Replacing a record's payload.
#pragma once

#include <cstdint>

#include "QVDbase/record_find.h"
#include "format/layout.h"

// Writes a complete block for the record of `header` at the end of the file, without spare
// capacity, and stores its position in *newRecordPos (unless null) before anything is written. The
// header gets the block's lengths. Returns 1 or 0.
int internal_WriteOneRecordDataInEOF_Modify(int16_t db, const tablePart1* slot, recordPart1* header,
                                            const unsigned char* payload, uint32_t size,
                                            int64_t* newRecordPos);

namespace qvdbase::engine {

// The two ways in which a record that was found takes a new payload. `overwriteRecord` needs a size
// that fits its capacity and leaves the file right after the payload; `relocateRecord` appends a
// new block and puts it into the chain in the old one's place. One that is protected gets a
// checksum, and the capacity for it.
[[nodiscard]] bool overwriteRecord(int16_t db, int64_t recordPos, const unsigned char* payload,
                                   uint32_t size);
[[nodiscard]] bool relocateRecord(int16_t db, FoundRecord* found, const unsigned char* payload,
                                  uint32_t size, int64_t* newRecordPos, bool isProtected = false);

// Appends a copy of a record's block, byte for byte, and puts it into the chain in the old one's
// place. *found is the record at its new place then.
[[nodiscard]] bool moveRecord(int16_t db, FoundRecord* found, int64_t* newRecordPos);

// Writes over part of the payload of a record that was found, and its modifyTime first. The caller
// has made sure that the record's dataLength covers the part.
[[nodiscard]] bool overwritePart(int16_t db, int64_t recordPos, uint32_t offset,
                                 const unsigned char* bytes, uint32_t count);

// Both with a given time.
[[nodiscard]] bool overwriteRecordAt(int16_t db, int64_t recordPos, const unsigned char* payload,
                                     uint32_t size, uint32_t now);
[[nodiscard]] bool overwritePartAt(int16_t db, int64_t recordPos, uint32_t offset,
                                   const unsigned char* bytes, uint32_t count, uint32_t now);

}  // namespace qvdbase::engine
