// Hashing of numbers that come from files: identifiers, positions.
//
// Whoever makes a file chooses them. With a hash that is known beforehand they can be chosen so
// that all of them fall into one place of a table, and each lookup goes through them all. So each
// process has a hash of its own.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvdbase::support {

// Two numbers that no other process knows; drawn at the first call.
struct HashSeed {
  uint64_t before;
  uint64_t between;
};
const HashSeed& hashSeed();

// A number that was not drawn before, and that only this process could guess.
uint64_t drawnNumber();

// Flipping any bit of the number or of the seed flips each bit of the result half of the time. A
// product passes its bits upwards only, so this takes two of them after the last of the seed.
inline uint64_t mixed(uint64_t number, const HashSeed& seed) {
  constexpr uint64_t kFactor = 0xD6E8FEB86659FD93u;
  number ^= seed.before;
  number = (number ^ (number >> 32)) * kFactor;
  number ^= seed.between;
  number = (number ^ (number >> 32)) * kFactor;
  number = (number ^ (number >> 32)) * kFactor;
  return number ^ (number >> 32);
}

// For the unordered containers of the standard library.
struct SeededHash {
  template <typename Number>
  size_t operator()(Number number) const {
    return static_cast<size_t>(mixed(static_cast<uint64_t>(number), hashSeed()));
  }
};

}  // namespace qvdbase::support
