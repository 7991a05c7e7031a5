// The checksum of a record's payload in an open database: reading it, and changing the record so
// that it is right again.
//
// Order of writes of a change in place: modifyTime, dataLength, data, checksum. Wherever that is
// cut off, the checksum that is there, old, new or mixed, is one of other bytes, unless the payload
// is wholly the old one, with its time and length, or wholly the new one.
#pragma once

#include <cstdint>

#include "QVDbase/record_find.h"
#include "format/layout.h"
#include "format/payload_checksum.h"

namespace qvdbase::engine {

// The checksum of a block.
struct StoredChecksum {
  bool isThere = false;
  unsigned char bytes[format::checksum::kSize];
};

// Reads it. False when the file cannot be read there, or ends before; not when there is none.
[[nodiscard]] bool readChecksum(int16_t db, int64_t recordPos, uint32_t dataLength,
                                uint32_t dataCapacity, StoredChecksum* stored);

// A part of a payload that is to be written over.
struct PayloadPart {
  uint64_t offset = 0;
  const unsigned char* bytes = nullptr;
  uint32_t count = 0;
};

// Hashes a payload in the file, piece by piece: as it is, and as it will be with a part written
// over, unless `after` is null. False when it cannot be read.
[[nodiscard]] bool hashStoredPayload(int16_t db, int64_t recordPos, uint32_t dataLength,
                                     format::PayloadHash* present, const PayloadPart& part = {},
                                     format::PayloadHash* after = nullptr);

// overwriteRecord() and overwritePart() for a block that has the space for a checksum of the new
// payload. `after` has hashed all of what the payload will be.
[[nodiscard]] bool overwriteProtected(int16_t db, const recordPart1& header, int64_t recordPos,
                                      const unsigned char* payload, uint32_t size);
[[nodiscard]] bool overwritePartProtected(int16_t db, const recordPart1& header, int64_t recordPos,
                                          const PayloadPart& part,
                                          const format::PayloadHash& after);

// Sets the time of last modification. `present` has hashed the payload.
[[nodiscard]] bool touchProtected(int16_t db, const recordPart1& header, int64_t recordPos,
                                  const format::PayloadHash& present);

}  // namespace qvdbase::engine
