// Making and judging the checksum of a payload.
#include "format/payload_checksum.h"

#include <cstring>

#include "format/big_endian.h"
#include "format/identifiers.h"

namespace qvdbase::format {

PayloadIdentity payloadIdentity(const recordPart1& header) {
  return {identifierNumber(header.tableID), identifierNumber(header.recordID), header.modifyTime,
          header.dataLength};
}

// The payload first, so that it can be hashed before its length is known.
support::Hash128 PayloadHash::of(const PayloadIdentity& identity) const {
  constexpr size_t kRecord = kIdentitySize;
  constexpr size_t kTime = kRecord + kIdentitySize;
  constexpr size_t kLength = kTime + 4;
  unsigned char bytes[kLength + 4];
  storeBigEndian(bytes, identity.table);
  storeBigEndian(bytes + kRecord, identity.record);
  storeBigEndian(bytes + kTime, identity.modifyTime);
  storeBigEndian(bytes + kLength, identity.dataLength);
  support::Xxh3 whole = hash_;
  whole.add(bytes, sizeof bytes);
  return whole.result128();
}

void encodeChecksum(const PayloadIdentity& identity, const support::Hash128& hash,
                    unsigned char* bytes) {
  std::memcpy(bytes + checksum::kMagic, kChecksumMagic, sizeof kChecksumMagic);
  storeBigEndian(bytes + checksum::kModifyTime, identity.modifyTime);
  storeBigEndian(bytes + checksum::kDataLength, identity.dataLength);
  storeBigEndian(bytes + checksum::kHashHigh, hash.high);
  storeBigEndian(bytes + checksum::kHashLow, hash.low);
}

bool isChecksum(const unsigned char* bytes) {
  return std::memcmp(bytes + checksum::kMagic, kChecksumMagic, sizeof kChecksumMagic) == 0;
}

std::optional<PayloadState> stateWithoutHash(const unsigned char* bytes,
                                             const PayloadIdentity& identity) {
  if (!isChecksum(bytes)) return PayloadState::unprotected;
  const bool isOfThis =
      loadBigEndian<uint32_t>(bytes + checksum::kModifyTime) == identity.modifyTime &&
      loadBigEndian<uint32_t>(bytes + checksum::kDataLength) == identity.dataLength;
  if (!isOfThis) return PayloadState::changedElsewhere;
  return std::nullopt;
}

PayloadState stateOfPayload(const unsigned char* bytes, const PayloadIdentity& identity,
                            const PayloadHash& hash) {
  if (const auto known = stateWithoutHash(bytes, identity)) return *known;
  const support::Hash128 stored = {loadBigEndian<uint64_t>(bytes + checksum::kHashLow),
                                   loadBigEndian<uint64_t>(bytes + checksum::kHashHigh)};
  return hash.of(identity) == stored ? PayloadState::verified : PayloadState::rotten;
}

PayloadState stateOfPayload(const unsigned char* bytes, const PayloadIdentity& identity,
                            const void* payload) {
  if (const auto known = stateWithoutHash(bytes, identity)) return *known;
  PayloadHash hash;
  hash.add(payload, identity.dataLength);
  return stateOfPayload(bytes, identity, hash);
}

}  // namespace qvdbase::format
