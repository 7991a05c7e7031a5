// XXH3. Inputs of up to 240 bytes have a formula for each range of lengths. Longer ones are cut
// into stripes of 64 bytes, 16 of which make a block: eight sums take one word of each stripe, and
// are mixed after each block. The last 64 bytes of the input are one more stripe, wherever they
// begin.
//
// Words are read with the least significant byte first, whatever the host's order. The loops over
// the eight sums are written so that compilers turn them into vector instructions.
#include "support/xxh3.h"

#include <algorithm>
#include <bit>
#include <cstring>

using namespace qvdbase::support;

namespace {

using Byte = unsigned char;
using Sums = Xxh3::Sums;

constexpr uint64_t kPrime32_1 = 0x9E3779B1;
constexpr uint64_t kPrime32_2 = 0x85EBCA77;
constexpr uint64_t kPrime64_1 = 0x9E3779B185EBCA87;
constexpr uint64_t kPrime64_2 = 0xC2B2AE3D27D4EB4F;
constexpr uint64_t kPrime64_3 = 0x165667B19E3779F9;
constexpr uint64_t kPrime64_4 = 0x85EBCA77C2B2AE63;
constexpr uint64_t kMix_1 = 0x165667919E3779F9;
constexpr uint64_t kMix_2 = 0x9FB21C651E98DF25;

constexpr size_t kLongestShort = 240;
constexpr size_t kStripe = 64;
constexpr size_t kWord = sizeof(uint64_t);
constexpr size_t kStripesOfBlock = 16;

// 192 bytes that the algorithm fixes; each stripe of a block begins 8 bytes further in them.
constexpr size_t kSecretSize = 192;
constexpr Byte kSecret[kSecretSize] = {
    0xb8, 0xfe, 0x6c, 0x39, 0x23, 0xa4, 0x4b, 0xbe, 0x7c, 0x01, 0x81, 0x2c, 0xf7, 0x21, 0xad, 0x1c,
    0xde, 0xd4, 0x6d, 0xe9, 0x83, 0x90, 0x97, 0xdb, 0x72, 0x40, 0xa4, 0xa4, 0xb7, 0xb3, 0x67, 0x1f,
    0xcb, 0x79, 0xe6, 0x4e, 0xcc, 0xc0, 0xe5, 0x78, 0x82, 0x5a, 0xd0, 0x7d, 0xcc, 0xff, 0x72, 0x21,
    0xb8, 0x08, 0x46, 0x74, 0xf7, 0x43, 0x24, 0x8e, 0xe0, 0x35, 0x90, 0xe6, 0x81, 0x3a, 0x26, 0x4c,
    0x3c, 0x28, 0x52, 0xbb, 0x91, 0xc3, 0x00, 0xcb, 0x88, 0xd0, 0x65, 0x8b, 0x1b, 0x53, 0x2e, 0xa3,
    0x71, 0x64, 0x48, 0x97, 0xa2, 0x0d, 0xf9, 0x4e, 0x38, 0x19, 0xef, 0x46, 0xa9, 0xde, 0xac, 0xd8,
    0xa8, 0xfa, 0x76, 0x3f, 0xe3, 0x9c, 0x34, 0x3f, 0xf9, 0xdc, 0xbb, 0xc7, 0xc7, 0x0b, 0x4f, 0x1d,
    0x8a, 0x51, 0xe0, 0x4b, 0xcd, 0xb4, 0x59, 0x31, 0xc8, 0x9f, 0x7e, 0xc9, 0xd9, 0x78, 0x73, 0x64,
    0xea, 0xc5, 0xac, 0x83, 0x34, 0xd3, 0xeb, 0xc3, 0xc5, 0x81, 0xa0, 0xff, 0xfa, 0x13, 0x63, 0xeb,
    0x17, 0x0d, 0xdd, 0x51, 0xb7, 0xf0, 0xda, 0x49, 0xd3, 0x16, 0x55, 0x26, 0x29, 0xd4, 0x68, 0x9e,
    0x2b, 0x16, 0xbe, 0x58, 0x7d, 0x47, 0xa1, 0xfc, 0x8f, 0xf8, 0xb8, 0xd1, 0x7a, 0xd0, 0x31, 0xce,
    0x45, 0xcb, 0x3a, 0x8f, 0x95, 0x16, 0x04, 0x28, 0xaf, 0xd7, 0xfb, 0xca, 0xbb, 0x4b, 0x40, 0x7e,
};

constexpr uint32_t swapped(uint32_t word) {
  return word << 24 | (word & 0xFF00) << 8 | (word >> 8 & 0xFF00) | word >> 24;
}
constexpr uint64_t swapped(uint64_t word) {
  return uint64_t{swapped(static_cast<uint32_t>(word))} << 32 |
         swapped(static_cast<uint32_t>(word >> 32));
}

template <typename Word>
Word load(const Byte* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = swapped(word);
  return word;
}
uint32_t load32(const Byte* bytes) {
  return load<uint32_t>(bytes);
}
uint64_t load64(const Byte* bytes) {
  return load<uint64_t>(bytes);
}

// One word of the secret with the next one.
uint64_t secretPair(size_t at) {
  return load64(kSecret + at) ^ load64(kSecret + at + kWord);
}

Hash128 product(uint64_t a, uint64_t b) {
#ifdef __SIZEOF_INT128__
  __extension__ using Wide = unsigned __int128;
  const Wide whole = static_cast<Wide>(a) * b;
  return {static_cast<uint64_t>(whole), static_cast<uint64_t>(whole >> 64)};
#else
  constexpr uint64_t kLowHalf = 0xFFFFFFFF;
  const uint64_t lowLow = (a & kLowHalf) * (b & kLowHalf);
  const uint64_t highLow = (a >> 32) * (b & kLowHalf);
  const uint64_t lowHigh = (a & kLowHalf) * (b >> 32);
  const uint64_t middle = (lowLow >> 32) + (highLow & kLowHalf) + lowHigh;  // below 2^64
  return {middle << 32 | (lowLow & kLowHalf),
          (a >> 32) * (b >> 32) + (highLow >> 32) + (middle >> 32)};
#endif
}

uint64_t foldedProduct(uint64_t a, uint64_t b) {
  const Hash128 whole = product(a, b);
  return whole.low ^ whole.high;
}

uint64_t scattered(uint64_t hash) {
  hash = (hash ^ hash >> 37) * kMix_1;
  return hash ^ hash >> 32;
}

// For the shortest inputs, whose bits need more.
uint64_t scatteredWell(uint64_t hash) {
  hash = (hash ^ hash >> 33) * kPrime64_2;
  hash = (hash ^ hash >> 29) * kPrime64_3;
  return hash ^ hash >> 32;
}

// Up to 16 bytes.

// First, middle and last of one to three bytes, and how many there are.
uint32_t combined(const Byte* in, size_t size) {
  return uint32_t{in[0]} << 16 | uint32_t{in[size / 2]} << 24 | in[size - 1] |
         static_cast<uint32_t>(size) << 8;
}

uint64_t tiny64(const Byte* in, size_t size) {
  if (size > 8) {
    const uint64_t low = load64(in) ^ secretPair(24);
    const uint64_t high = load64(in + size - 8) ^ secretPair(40);
    return scattered(size + swapped(low) + high + foldedProduct(low, high));
  }
  if (size >= 4) {
    const uint64_t both = load32(in + size - 4) + (uint64_t{load32(in)} << 32);
    uint64_t hash = both ^ secretPair(8);
    hash ^= std::rotl(hash, 49) ^ std::rotl(hash, 24);
    hash *= kMix_2;
    hash ^= (hash >> 35) + size;
    hash *= kMix_2;
    return hash ^ hash >> 28;
  }
  if (size == 0) return scatteredWell(secretPair(7 * kWord));
  return scatteredWell(combined(in, size) ^ uint64_t{load32(kSecret) ^ load32(kSecret + 4)});
}

Hash128 tiny128(const Byte* in, size_t size) {
  if (size > 8) {
    const uint64_t low = load64(in);
    uint64_t high = load64(in + size - 8);
    Hash128 first = product(low ^ high ^ secretPair(32), kPrime64_1);
    first.low += uint64_t{size - 1} << 54;
    high ^= secretPair(48);
    first.high += high + (high & 0xFFFFFFFF) * (kPrime32_2 - 1);
    first.low ^= swapped(first.high);
    const Hash128 second = product(first.low, kPrime64_2);
    return {scattered(second.low), scattered(second.high + first.high * kPrime64_2)};
  }
  if (size >= 4) {
    const uint64_t both = load32(in) + (uint64_t{load32(in + size - 4)} << 32);
    Hash128 hash = product(both ^ secretPair(16), kPrime64_1 + (size << 2));
    hash.high += hash.low << 1;
    hash.low ^= hash.high >> 3;
    hash.low = (hash.low ^ hash.low >> 35) * kMix_2;
    return {hash.low ^ hash.low >> 28, scattered(hash.high)};
  }
  if (size == 0) return {scatteredWell(secretPair(64)), scatteredWell(secretPair(80))};
  const uint32_t low = combined(in, size);
  const uint32_t high = std::rotl(swapped(low), 13);
  return {scatteredWell(low ^ uint64_t{load32(kSecret) ^ load32(kSecret + 4)}),
          scatteredWell(high ^ uint64_t{load32(kSecret + 8) ^ load32(kSecret + 12)})};
}

// 17 to 240 bytes: 16 at a time, from both ends towards the middle, and beyond 128 from the front.

uint64_t mixed16(const Byte* in, size_t secret) {
  return foldedProduct(load64(in) ^ load64(kSecret + secret),
                       load64(in + 8) ^ load64(kSecret + secret + 8));
}

void mix32(Hash128& sums, const Byte* one, const Byte* other, size_t secret) {
  sums.low += mixed16(one, secret);
  sums.low ^= load64(other) + load64(other + 8);
  sums.high += mixed16(other, secret + 16);
  sums.high ^= load64(one) + load64(one + 8);
}

constexpr size_t kRounds16 = 8;        // of 16 bytes, before the sum is scattered
constexpr size_t kSecondStart = 3;     // where the rounds after that begin in the secret
constexpr size_t kSecretOfLast = 119;  // the last 16 bytes

uint64_t short64(const Byte* in, size_t size) {
  if (size <= 16) return tiny64(in, size);
  uint64_t sum = size * kPrime64_1;
  if (size <= 128) {
    for (size_t i = (size - 1) / 32 + 1; i-- > 0;) {
      sum += mixed16(in + 16 * i, 32 * i) + mixed16(in + size - 16 * (i + 1), 32 * i + 16);
    }
    return scattered(sum);
  }
  for (size_t i = 0; i < kRounds16; ++i) sum += mixed16(in + 16 * i, 16 * i);
  sum = scattered(sum);
  for (size_t i = kRounds16; i < size / 16; ++i) {
    sum += mixed16(in + 16 * i, 16 * (i - kRounds16) + kSecondStart);
  }
  return scattered(sum + mixed16(in + size - 16, kSecretOfLast));
}

Hash128 short128(const Byte* in, size_t size) {
  if (size <= 16) return tiny128(in, size);
  Hash128 sums = {size * kPrime64_1, 0};
  if (size <= 128) {
    for (size_t i = (size - 1) / 32 + 1; i-- > 0;) {
      mix32(sums, in + 16 * i, in + size - 16 * (i + 1), 32 * i);
    }
  } else {
    constexpr size_t kRounds32 = kRounds16 / 2;
    for (size_t i = 0; i < kRounds32; ++i) mix32(sums, in + 32 * i, in + 32 * i + 16, 32 * i);
    sums = {scattered(sums.low), scattered(sums.high)};
    for (size_t i = kRounds32; i < size / 32; ++i) {
      mix32(sums, in + 32 * i, in + 32 * i + 16, 32 * (i - kRounds32) + kSecondStart);
    }
    mix32(sums, in + size - 16, in + size - 32, kSecretOfLast - 16);
  }
  const uint64_t high = sums.low * kPrime64_1 + sums.high * kPrime64_4 + size * kPrime64_2;
  return {scattered(sums.low + sums.high), 0 - scattered(high)};
}

// More than 240 bytes.

// Each word goes into the sum of its neighbour as it is, and into its own multiplied with itself:
// no bits of it are lost where the product is 0.
void addStripe(Sums& sums, const Byte* in, const Byte* secret) {
  for (size_t i = 0; i < sums.size(); i += 2) {
    const uint64_t first = load64(in + kWord * i);
    const uint64_t second = load64(in + kWord * (i + 1));
    const uint64_t firstKey = first ^ load64(secret + kWord * i);
    const uint64_t secondKey = second ^ load64(secret + kWord * (i + 1));
    sums[i] += second + (firstKey & 0xFFFFFFFF) * (firstKey >> 32);
    sums[i + 1] += first + (secondKey & 0xFFFFFFFF) * (secondKey >> 32);
  }
}

void mixBlock(Sums& sums) {
  const Byte* secret = kSecret + kSecretSize - kStripe;
  for (size_t i = 0; i < sums.size(); ++i) {
    const uint64_t sum = sums[i] ^ sums[i] >> 47 ^ load64(secret + kWord * i);
    sums[i] = sum * kPrime32_1;
  }
}

// Whole stripes that more bytes follow. `inBlock` counts those of the block that they continue.
void addStripes(Sums& target, size_t& inBlock, const Byte* in, size_t stripes) {
  Sums sums = target;
  for (; stripes > 0; --stripes, in += kStripe) {
    addStripe(sums, in, kSecret + kWord * inBlock);
    if (++inBlock < kStripesOfBlock) continue;
    mixBlock(sums);
    inBlock = 0;
  }
  target = sums;
}

void addLastStripe(Sums& sums, const Byte* in) {
  addStripe(sums, in, kSecret + kSecretSize - kStripe - 7);
}

uint64_t merged(const Sums& sums, size_t secret, uint64_t start) {
  for (size_t i = 0; i < sums.size(); i += 2) {
    start += foldedProduct(sums[i] ^ load64(kSecret + secret + kWord * i),
                           sums[i + 1] ^ load64(kSecret + secret + kWord * (i + 1)));
  }
  return scattered(start);
}

constexpr size_t kSecretOfLow = 11;
constexpr size_t kSecretOfHigh = kSecretSize - kStripe - 11;

uint64_t merged64(const Sums& sums, uint64_t size) {
  return merged(sums, kSecretOfLow, size * kPrime64_1);
}

Hash128 merged128(const Sums& sums, uint64_t size) {
  return {merged64(sums, size), merged(sums, kSecretOfHigh, ~(size * kPrime64_2))};
}

}  // namespace

namespace qvdbase::support {

void Xxh3::add(const void* data, size_t size) {
  if (size == 0) return;
  total_ += size;
  const auto* in = static_cast<const Byte*>(data);
  if (size <= kBufferSize - waiting_) {
    std::memcpy(buffer_.data() + waiting_, in, size);
    waiting_ += size;
    return;
  }
  if (waiting_ > 0) {
    const size_t filled = kBufferSize - waiting_;
    std::memcpy(buffer_.data() + waiting_, in, filled);
    in += filled;
    size -= filled;
    addStripes(sums_, stripesInBlock_, buffer_.data(), kBufferSize / kStripe);
  }
  if (size > kBufferSize) {
    const size_t stripes = (size - 1) / kStripe;
    addStripes(sums_, stripesInBlock_, in, stripes);
    in += stripes * kStripe;
    size -= stripes * kStripe;
    std::memcpy(buffer_.data() + kBufferSize - kStripe, in - kStripe, kStripe);
  }
  std::memcpy(buffer_.data(), in, size);
  waiting_ = size;
}

Xxh3::Sums Xxh3::finishedSums() const {
  Sums sums = sums_;
  size_t inBlock = stripesInBlock_;
  addStripes(sums, inBlock, buffer_.data(), (waiting_ - 1) / kStripe);
  if (waiting_ >= kStripe) {
    addLastStripe(sums, buffer_.data() + waiting_ - kStripe);
    return sums;
  }
  Byte last[kStripe];
  const size_t taken = kStripe - waiting_;
  std::memcpy(last, buffer_.data() + kBufferSize - taken, taken);
  std::memcpy(last + taken, buffer_.data(), waiting_);
  addLastStripe(sums, last);
  return sums;
}

uint64_t Xxh3::result64() const {
  if (total_ <= kLongestShort) return short64(buffer_.data(), waiting_);
  return merged64(finishedSums(), total_);
}

Hash128 Xxh3::result128() const {
  if (total_ <= kLongestShort) return short128(buffer_.data(), waiting_);
  return merged128(finishedSums(), total_);
}

uint64_t xxh3_64(const void* data, size_t size) {
  if (size <= kLongestShort) return short64(static_cast<const Byte*>(data), size);
  Xxh3 hash;
  hash.add(data, size);
  return hash.result64();
}

Hash128 xxh3_128(const void* data, size_t size) {
  if (size <= kLongestShort) return short128(static_cast<const Byte*>(data), size);
  Xxh3 hash;
  hash.add(data, size);
  return hash.result128();
}

}  // namespace qvdbase::support
