// Identifiers of databases, tables and records: eight identity bytes and their 16-bit sum, and the
// 64-bit number by which callers know them.
#pragma once

#include <cstdint>

#include "format/big_endian.h"

// Writes a new 10-byte identifier to `id`. Returns 1.
int GenerateUuID(unsigned char* id);

// The identity bytes read most significant first; the sum is not examined. Returns 1.
int internal_ConvertUuID_2Int64(const unsigned char* id, uint64_t* value);

// The inverse, with the right sum. Returns 1, or 0 when `id` is null.
int internal_ConvertInt64_2UuID(uint64_t value, unsigned char* id);

// Seeds the generator that identifiers draw on. Runs by itself when the library is loaded.
void Initializer();

namespace qvdbase::format {

// The 64-bit number of a 10-byte identifier.
inline uint64_t identifierNumber(const unsigned char* id) {
  return loadBigEndian<uint64_t>(id);
}

// Whether the last two bytes of a 10-byte identifier are the sum of the others.
bool identifierSumIsRight(const unsigned char* id);

// New identifiers for many records made in a row, made like the others but for what would cost more
// than laying out a small record. The C library's generator, which is locked for each number, gives
// the seed of a generator of the series' own; and the clock is asked once for a few identifiers,
// which take the microseconds that follow.
class IdentifierSeries {
 public:
  IdentifierSeries();
  void next(unsigned char* id);

 private:
  static constexpr unsigned kForOneAsking = 16;
  int random();

  uint64_t state_ = 0;
  uint64_t counter_ = 0;
  uint32_t seconds_ = 0;
  unsigned left_ = 0;
};

}  // namespace qvdbase::format
