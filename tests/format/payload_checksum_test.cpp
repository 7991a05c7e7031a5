// The checksum of a payload as bytes.
#include "format/payload_checksum.h"

#include <gtest/gtest.h>

#include <limits>

#include "kit/bytes.h"
#include "support/xxh3.h"

namespace qvdbase::test {
namespace {

using format::PayloadHash;
using format::PayloadIdentity;
using format::PayloadState;

constexpr PayloadIdentity kIdentity = {0x1102030405060708, 0xA1A2A3A4A5A6A7A8, 0x50000001, 4};

Bytes checksumOf(const PayloadIdentity& identity, const Bytes& payload) {
  PayloadHash hash;
  hash.add(payload.data(), payload.size());
  Bytes sum(format::checksum::kSize);
  format::encodeChecksum(identity, hash.of(identity), sum.data());
  return sum;
}

PayloadState stateOf(const Bytes& sum, const PayloadIdentity& identity, const Bytes& payload) {
  return format::stateOfPayload(sum.data(), identity, payload.data());
}

TEST(PayloadChecksum, IsMadeOfThePayloadAndOfWhoseItIs) {
  Bytes hashed = bytesOf("text");
  hashed.add(hex("1102030405060708 A1A2A3A4A5A6A7A8 50000001 00000004"));
  const support::Hash128 hash = support::xxh3_128(hashed.data(), hashed.size());
  Bytes expected = hex("C5515663 50000001 00000004");
  expected.be(8, hash.high).be(8, hash.low);
  const Bytes sum = checksumOf(kIdentity, bytesOf("text"));
  EXPECT_TRUE(sameBytes(sum, expected));
  EXPECT_EQ(stateOf(sum, kIdentity, bytesOf("text")), PayloadState::verified);
}

TEST(PayloadChecksum, IsThatOfTheWholeForAnyPieces) {
  const Bytes payload = pattern(1000);
  PayloadIdentity identity = kIdentity;
  identity.dataLength = 1000;
  PayloadHash pieces;
  for (size_t i = 0; i < payload.size(); i += 10) pieces.add(&payload[i], 10);
  EXPECT_EQ(pieces.size(), 1000u);
  EXPECT_EQ(format::stateOfPayload(checksumOf(identity, payload).data(), identity, pieces),
            PayloadState::verified);
}

// All that is around the payload, too: the payload of another record is not verified.
TEST(PayloadChecksum, NoticesWhatHasChanged) {
  const Bytes sum = checksumOf(kIdentity, bytesOf("text"));
  EXPECT_EQ(stateOf(sum, kIdentity, bytesOf("tExt")), PayloadState::rotten);
  PayloadIdentity other = kIdentity;
  other.table ^= 1;
  EXPECT_EQ(stateOf(sum, other, bytesOf("text")), PayloadState::rotten);
  other = kIdentity;
  other.record ^= uint64_t{1} << 63;
  EXPECT_EQ(stateOf(sum, other, bytesOf("text")), PayloadState::rotten);
  other = kIdentity;
  ++other.modifyTime;
  EXPECT_EQ(stateOf(sum, other, bytesOf("text")), PayloadState::changedElsewhere);
  other = kIdentity;
  --other.dataLength;
  EXPECT_EQ(stateOf(sum, other, bytesOf("tex")), PayloadState::changedElsewhere);
  for (size_t bit = 0; bit < sum.size() * 8; ++bit) {
    Bytes flipped = sum;
    flipped[bit / 8] = static_cast<uint8_t>(flipped[bit / 8] ^ 1u << bit % 8);
    const PayloadState expected = bit < 32   ? PayloadState::unprotected
                                  : bit < 96 ? PayloadState::changedElsewhere
                                             : PayloadState::rotten;
    ASSERT_EQ(stateOf(flipped, kIdentity, bytesOf("text")), expected) << bit;
  }
}

TEST(PayloadChecksum, NeedsItsBytesAfterThePayload) {
  EXPECT_TRUE(format::hasChecksumSpace(0, 28));
  EXPECT_TRUE(format::hasChecksumSpace(100, 128));
  EXPECT_FALSE(format::hasChecksumSpace(100, 127));
  EXPECT_FALSE(format::hasChecksumSpace(100, 20));
  constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max();
  EXPECT_TRUE(format::hasChecksumSpace(0, kMost));
  EXPECT_FALSE(format::hasChecksumSpace(kMost, kMost));
  EXPECT_FALSE(format::hasChecksumSpace(kMost, 0));
}

TEST(PayloadChecksum, TakesThirtyTwoBytesOfCapacity) {
  constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max();
  EXPECT_EQ(format::capacityWithChecksum(0, 0), 32u);
  EXPECT_EQ(format::capacityWithChecksum(10, 4), 42u);
  EXPECT_EQ(format::capacityWithChecksum(10, 100), 132u);
  EXPECT_EQ(format::capacityWithChecksum(10, kMost), kMost);
  EXPECT_EQ(format::capacityWithChecksum(kMost - 32, 0), kMost);
  EXPECT_TRUE(format::hasChecksumSpace(kMost - 32, kMost));
}

// A block at a position that no file has makes no sum overflow.
TEST(PayloadChecksum, IsNowhereInABlockBeyondAllFiles) {
  EXPECT_EQ(format::checksumPosition(5000, 40), 5000 + 55 + 40 - 28);
  EXPECT_LT(format::checksumPosition(std::numeric_limits<int64_t>::max(), 1000), 0);
}

}  // namespace
}  // namespace qvdbase::test
