// Making and converting identifiers.
//
// The seeding of the generator is in this file, with its only user: a program linked statically
// gets this object, and with it the seeding, exactly when something in it makes identifiers.
#include "format/identifiers.h"

#include <cstdlib>

#include "format/layout.h"
#include "platform/host/clock.h"
#include "platform/host/lock.h"

using namespace qvdbase;
using namespace qvdbase::format;

using platform::Shared;
using platform::SharedLock;

namespace {

unsigned sumOfIdentityBytes(uint64_t number) {
  unsigned sum = 0;
  for (; number != 0; number >>= 8) sum += static_cast<unsigned>(number & 0xFF);
  return sum;
}

void storeIdentifier(uint64_t number, unsigned char* id) {
  format::storeBigEndian(id, number);
  format::storeBigEndian(id + format::kIdentitySize,
                         static_cast<uint16_t>(sumOfIdentityBytes(number)));
}

[[maybe_unused]] const bool seededAtLoad = (Initializer(), true);

// Four random bytes, four of the clocks, and the sum. `random` makes numbers as std::rand does.
template <typename Random>
void composeIdentifier(Random random, uint64_t counter, uint32_t seconds, unsigned char* id) {
  uint64_t number = 0;
  for (int i = 0; i < 4; ++i) {
    const int r = random();
    // The added quotient makes the bytes slightly uneven; identifiers have always been made so.
    const unsigned mixed = static_cast<unsigned>(r) + static_cast<unsigned>(r / 255);
    number = number << 8 | (mixed & 0xFF);
  }
  const auto low = static_cast<uint32_t>(counter);
  const auto high = static_cast<uint32_t>(counter >> 32);
  storeIdentifier(number << 32 | static_cast<uint32_t>(seconds + low + high), id);
}

}  // namespace

void Initializer() {
  std::srand(static_cast<unsigned>(platform::processClock()) + platform::secondsSinceEpoch());
}

int GenerateUuID(unsigned char* id) {
  const SharedLock lock(Shared::identifiers);
  const uint64_t counter = platform::microsecondCounter();
  composeIdentifier(std::rand, counter, platform::secondsSinceEpoch(), id);
  return 1;
}

int internal_ConvertUuID_2Int64(const unsigned char* id, uint64_t* value) {
  *value = format::identifierNumber(id);
  return 1;
}

int internal_ConvertInt64_2UuID(uint64_t value, unsigned char* id) {
  if (id == nullptr) return 0;
  storeIdentifier(value, id);
  return 1;
}

namespace qvdbase::format {

IdentifierSeries::IdentifierSeries() {
  const SharedLock lock(Shared::identifiers);
  for (int i = 0; i < 4; ++i) state_ = state_ << 16 ^ static_cast<uint64_t>(std::rand());
}

// SplitMix64, of which the upper bits are taken.
int IdentifierSeries::random() {
  state_ += 0x9E37'79B9'7F4A'7C15u;
  uint64_t mixed = state_;
  mixed = (mixed ^ mixed >> 30) * 0xBF58'476D'1CE4'E5B9u;
  mixed = (mixed ^ mixed >> 27) * 0x94D0'49BB'1331'11EBu;
  return static_cast<int>((mixed ^ mixed >> 31) >> 33);
}

void IdentifierSeries::next(unsigned char* id) {
  if (left_ == 0) {
    counter_ = platform::microsecondCounter();
    seconds_ = platform::secondsSinceEpoch();
    left_ = kForOneAsking;
  }
  --left_;
  composeIdentifier([this] { return random(); }, counter_++, seconds_, id);
}

bool identifierSumIsRight(const unsigned char* id) {
  return sumOfIdentityBytes(identifierNumber(id)) == loadBigEndian<uint16_t>(id + kIdentitySize);
}

}  // namespace qvdbase::format
