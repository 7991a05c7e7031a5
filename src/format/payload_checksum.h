// The checksum of a record's payload, in the spare capacity of its block: how it is made, and what
// it says of the payload that is there.
//
// To those who do not know it, it is spare capacity like any other: a writer may write over it, or
// change the payload and leave it. So it repeats the time and the length that the header had when
// it was made. Where these differ from the header's, the payload was changed by a writer that does
// not know it, or a change was cut off; where they agree and the hash does not, bytes have changed
// without having been written.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>

#include "format/layout.h"
#include "support/xxh3.h"

namespace qvdbase::format {

// What the hash covers after the payload: whose it is, and the fields of its header.
struct PayloadIdentity {
  uint64_t table;  // as numbers, without their sums
  uint64_t record;
  uint32_t modifyTime;
  uint32_t dataLength;
};

// That of a record with this header.
PayloadIdentity payloadIdentity(const recordPart1& header);

// The hash of a payload that comes whole or in pieces.
class PayloadHash {
 public:
  void add(const void* bytes, size_t count) { hash_.add(bytes, count); }

  // Of what was added, as the payload of that record. More may be added afterwards.
  support::Hash128 of(const PayloadIdentity& identity) const;

  // The bytes that were added.
  uint64_t size() const { return hash_.size(); }

 private:
  support::Xxh3 hash_;
};

enum class PayloadState : uint8_t {
  verified,          // it is what was stored
  unprotected,       // there is no checksum
  changedElsewhere,  // the checksum is of another time or length: it says nothing of this payload
  rotten,            // the checksum is of this time and length, and of other bytes
};

// Whether a block of these lengths has the space; the sums of lengths from a file are never formed.
inline bool hasChecksumSpace(uint32_t dataLength, uint32_t dataCapacity) {
  return dataLength <= dataCapacity && dataCapacity - dataLength >= checksum::kSize;
}

// Where it is in the file, in a block that has the space; negative where no file is that long.
inline int64_t checksumPosition(int64_t recordPos, uint32_t dataCapacity) {
  const uint64_t inBlock = uint64_t{record::kData} + dataCapacity - checksum::kSize;
  return static_cast<int64_t>(static_cast<uint64_t>(recordPos) + inBlock);
}

// The capacity of a new block with a checksum for a payload of this length, which is at most
// kMostWithChecksum.
inline constexpr uint32_t kMostWithChecksum =
    std::numeric_limits<uint32_t>::max() - kChecksumCapacity;
inline uint32_t capacityWithChecksum(uint32_t dataLength, uint32_t reserve) {
  return std::min(std::max(dataLength, reserve), kMostWithChecksum) + kChecksumCapacity;
}

// Makes the checksum: checksum::kSize bytes.
void encodeChecksum(const PayloadIdentity& identity, const support::Hash128& hash,
                    unsigned char* bytes);

// Whether these bytes are a checksum, of whatever payload.
bool isChecksum(const unsigned char* bytes);

// What it says as far as that is known without the payload: nothing where its hash decides.
std::optional<PayloadState> stateWithoutHash(const unsigned char* bytes,
                                             const PayloadIdentity& identity);

// What it says of a payload with that hash.
PayloadState stateOfPayload(const unsigned char* bytes, const PayloadIdentity& identity,
                            const PayloadHash& hash);

// The same of a payload in memory.
PayloadState stateOfPayload(const unsigned char* bytes, const PayloadIdentity& identity,
                            const void* payload);

}  // namespace qvdbase::format
