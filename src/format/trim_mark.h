// The mark of a payload that was given back to the file system.
//
// It takes the place of the first bytes of a dead block's payload, and is written before any page
// of the payload goes: what is brought back later can then be told from zeros that were stored,
// also in a copy of the file that has no holes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvdbase::format::trimmed {

inline constexpr unsigned char kMark[] = {0xC5, 0x51, 0x56, 0x54, 0x72, 0x69, 0x6D, 0x6D,
                                          0x65, 0x64, 0x9E, 0x3A, 0x07, 0xB1, 0x4C, 0xC5};
inline constexpr int64_t kMarkSize = sizeof kMark;

// What is given back is whole pages of this size, counted from the beginning of the file.
inline constexpr int64_t kPage = 4096;

struct Pages {
  int64_t begin = 0;
  int64_t end = 0;  // not above `begin`: there is none
};

// The whole pages of a payload of `capacity` bytes at `dataPos` that are not needed for the mark.
constexpr Pages pagesOf(int64_t dataPos, int64_t capacity) {
  const int64_t first = (dataPos + kMarkSize + kPage - 1) / kPage * kPage;
  return {first, (dataPos + capacity) / kPage * kPage};
}

}  // namespace qvdbase::format::trimmed
