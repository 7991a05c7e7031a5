// XXH3, a published hash of bytes, in its forms of 64 and of 128 bits, without a seed: the same
// numbers as from any other implementation of it, on every machine. It finds damage, also damage of
// a single bit, with a chance of 2^-64 or 2^-128 to miss it. It is no protection against someone
// who wants to deceive: who knows it can make other bytes with the same hash.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qvdbase::support {

struct Hash128 {
  uint64_t low;
  uint64_t high;

  friend bool operator==(const Hash128&, const Hash128&) = default;
};

uint64_t xxh3_64(const void* data, size_t size);
Hash128 xxh3_128(const void* data, size_t size);

// The same hashes of bytes that come in pieces, whatever the pieces. Both results can be asked for
// at any time, and more bytes added afterwards.
class Xxh3 {
 public:
  void add(const void* data, size_t size);

  uint64_t result64() const;
  Hash128 result128() const;

  // Begins again with no bytes.
  void clear() { *this = Xxh3(); }

  // Bytes added so far.
  uint64_t size() const { return total_; }

  // The inside of the hash: eight sums side by side.
  using Sums = std::array<uint64_t, 8>;

 private:
  // Waiting bytes are taken in when more come: the last ones of all are treated differently. The
  // end of the buffer keeps the last bytes that were taken in, because the last 64 of all are
  // hashed once more together.
  static constexpr size_t kBufferSize = 256;

  Sums finishedSums() const;

  Sums sums_ = {0xC2B2AE3D,         0x9E3779B185EBCA87, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9,
                0x85EBCA77C2B2AE63, 0x85EBCA77,         0x27D4EB2F165667C5, 0x9E3779B1};
  size_t stripesInBlock_ = 0;
  size_t waiting_ = 0;
  uint64_t total_ = 0;
  std::array<unsigned char, kBufferSize> buffer_ = {};
};

}  // namespace qvdbase::support
