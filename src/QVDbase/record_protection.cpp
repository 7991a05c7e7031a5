// Records whose payloads have a checksum.
#include "QVDbase/record_protection.h"

#include <algorithm>
#include <cstring>

#include "QVDbase/position.h"
#include "QVDbase/record_modify.h"
#include "format/fields.h"
#include "platform/host/clock.h"
#include "platform/host/memory.h"

using namespace qvdbase::format;

namespace qvdbase::engine {
namespace {

constexpr uint32_t kPieceSize = 64 * 1024;

bool writeChecksum(int16_t db, const recordPart1& header, int64_t recordPos,
                   const PayloadHash& hash, uint32_t now) {
  PayloadIdentity identity = payloadIdentity(header);
  identity.modifyTime = now;
  identity.dataLength = static_cast<uint32_t>(hash.size());
  unsigned char sum[checksum::kSize];
  encodeChecksum(identity, hash.of(identity), sum);
  return myFileSeek(db, checksumPosition(recordPos, header.dataCapacity), kFromStart) == 0 &&
         writeBytes(db, sum, sizeof sum);
}

// Puts what of the part lies in a piece of the payload over it.
void cover(const PayloadPart& part, uint64_t from, unsigned char* piece, uint32_t count) {
  const uint64_t begin = std::max(from, part.offset);
  const uint64_t end = std::min(from + count, part.offset + part.count);
  if (begin >= end) return;
  std::memcpy(piece + (begin - from), part.bytes + (begin - part.offset),
              static_cast<size_t>(end - begin));
}

}  // namespace

bool readChecksum(int16_t db, int64_t recordPos, uint32_t dataLength, uint32_t dataCapacity,
                  StoredChecksum* stored) {
  stored->isThere = false;
  if (!hasChecksumSpace(dataLength, dataCapacity)) return true;
  if (myFileSeek(db, checksumPosition(recordPos, dataCapacity), kFromStart) != 0 ||
      !readBytes(db, stored->bytes, sizeof stored->bytes)) {
    return false;
  }
  stored->isThere = isChecksum(stored->bytes);
  return true;
}

bool hashStoredPayload(int16_t db, int64_t recordPos, uint32_t dataLength, PayloadHash* present,
                       const PayloadPart& part, PayloadHash* after) {
  platform::Buffer piece(std::min(kPieceSize, dataLength));
  if (dataLength > 0 && !piece) return false;
  if (myFileSeek(db, recordPos + record::kData, kFromStart) != 0) return false;
  for (uint32_t done = 0; done < dataLength;) {
    const uint32_t count = std::min(kPieceSize, dataLength - done);
    if (!readBytes(db, piece.data(), count)) return false;
    present->add(piece.data(), count);
    if (after != nullptr) {
      cover(part, done, piece.data(), count);
      after->add(piece.data(), count);
    }
    done += count;
  }
  return true;
}

bool overwriteProtected(int16_t db, const recordPart1& header, int64_t recordPos,
                        const unsigned char* payload, uint32_t size) {
  const uint32_t now = platform::secondsSinceEpoch();
  PayloadHash hash;
  hash.add(payload, size);
  return overwriteRecordAt(db, recordPos, payload, size, now) &&
         writeChecksum(db, header, recordPos, hash, now);
}

bool overwritePartProtected(int16_t db, const recordPart1& header, int64_t recordPos,
                            const PayloadPart& part, const PayloadHash& after) {
  const uint32_t now = platform::secondsSinceEpoch();
  return overwritePartAt(db, recordPos, static_cast<uint32_t>(part.offset), part.bytes, part.count,
                         now) &&
         writeChecksum(db, header, recordPos, after, now);
}

bool touchProtected(int16_t db, const recordPart1& header, int64_t recordPos,
                    const PayloadHash& present) {
  const uint32_t now = platform::secondsSinceEpoch();
  return myFileSeek(db, recordPos + record::kModifyTime, kFromStart) == 0 && writeUint32(db, now) &&
         writeChecksum(db, header, recordPos, present, now);
}

}  // namespace qvdbase::engine
