// Hashing of numbers that come from files: identifiers, positions.
//
// Whoever makes a file chooses them. With a hash that is known beforehand they can be chosen so
// that all fall into one place of a table, and a lookup takes as long as a list is. So the hash is
// another one in each process.
#ifndef QVDBASE_SUPPORT_SEEDED_HASH_H
#define QVDBASE_SUPPORT_SEEDED_HASH_H

#include <cstddef>
#include <cstdint>

namespace qvdbase::support {

// Two numbers that no other process knows; drawn at the first call.
struct HashSeed {
  uint64_t before;
  uint64_t between;
};
const HashSeed& hashSeed();

// Every bit of the result depends on every bit of the number and of the seed.
inline uint64_t mixed(uint64_t number, const HashSeed& seed) {
  number ^= seed.before;
  number = (number ^ (number >> 32)) * 0xD6E8FEB86659FD93u;
  number ^= seed.between;
  number = (number ^ (number >> 32)) * 0xD6E8FEB86659FD93u;
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

#endif
