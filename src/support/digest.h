// A sum of bytes by which it shows whether bytes that were written can be read back, without
// keeping them. Any change inside of one word of 8 bytes changes it, and any other change but for a
// chance of 2^-64. Who knows how it is made can make other bytes with the same one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qvdbase::support {

using Digest = std::array<uint64_t, 8>;

// Eight sums side by side, so that none of them waits for its own last step.
inline Digest digestOf(const unsigned char* bytes, size_t count) {
  constexpr uint64_t kFactor = 0xD6E8FEB86659FD93u;
  constexpr size_t kWord = sizeof(uint64_t);
  Digest sums = {1, 2, 3, 4, 5, 6, 7, count};
  const auto add = [&](uint64_t& sum, uint64_t word) {
    sum = (sum ^ word) * kFactor;
    sum ^= sum >> 32;
  };
  for (; count >= sums.size() * kWord; count -= sums.size() * kWord) {
    for (uint64_t& sum : sums) {
      uint64_t word;
      std::memcpy(&word, bytes, kWord);
      add(sum, word);
      bytes += kWord;
    }
  }
  for (size_t i = 0; i < count; ++i) add(sums[i % sums.size()], bytes[i]);
  return sums;
}

}  // namespace qvdbase::support
