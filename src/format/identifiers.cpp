// Making and converting identifiers.
//
// The seeding of the generator stands here, beside its only user: a program linked statically gets
// this object, and with it the seeding, exactly when something in it makes identifiers.
#include "format/identifiers.h"

#include <cstdlib>

#include "format/layout.h"
#include "platform/clock.h"

namespace {

unsigned sumOfIdentityBytes(const unsigned char* id) {
  unsigned sum = 0;
  for (int i = 0; i < qvdbase::kIdentitySize; ++i) sum += id[i];
  return sum;
}

void storeSum(unsigned char* id) {
  const unsigned sum = sumOfIdentityBytes(id);
  id[8] = static_cast<unsigned char>(sum >> 8 & 0xFF);
  id[9] = static_cast<unsigned char>(sum & 0xFF);
}

[[maybe_unused]] const bool seededAtLoad = (Initializer(), true);

// Four random bytes, four of the clocks, and the sum.
void composeIdentifier(uint64_t counter, uint32_t seconds, unsigned char* id) {
  for (int i = 0; i < 4; ++i) {
    const int r = std::rand();
    // The added quotient makes the bytes slightly uneven; identifiers have always been made so.
    const unsigned mixed = static_cast<unsigned>(r) + static_cast<unsigned>(r / 255);
    id[i] = static_cast<unsigned char>(mixed & 0xFF);
  }
  const auto low = static_cast<uint32_t>(counter);
  const auto high = static_cast<uint32_t>(counter >> 32);
  qvdbase::storeBigEndian(id + 4, static_cast<uint32_t>(seconds + low + high));
  storeSum(id);
}

}  // namespace

void Initializer() {
  std::srand(static_cast<unsigned>(qvdbase::platform::processClock()) +
             qvdbase::platform::secondsSinceEpoch());
}

int GenerateUuID(unsigned char* id) {
  const uint64_t counter = qvdbase::platform::microsecondCounter();
  composeIdentifier(counter, qvdbase::platform::secondsSinceEpoch(), id);
  return 1;
}

int internal_ConvertUuID_2Int64(const unsigned char* id, uint64_t* value) {
  *value = qvdbase::identifierNumber(id);
  return 1;
}

int internal_ConvertInt64_2UuID(uint64_t value, unsigned char* id) {
  if (id == nullptr) return 0;
  for (int i = qvdbase::kIdentitySize; i-- > 0; value >>= 8) {
    id[i] = static_cast<unsigned char>(value & 0xFF);
  }
  storeSum(id);
  return 1;
}

namespace qvdbase {

void IdentifierSeries::next(unsigned char* id) {
  if (left_ == 0) {
    counter_ = platform::microsecondCounter();
    seconds_ = platform::secondsSinceEpoch();
    left_ = kForOneAsking;
  }
  --left_;
  composeIdentifier(counter_++, seconds_, id);
}

bool identifierSumIsRight(const unsigned char* id) {
  return sumOfIdentityBytes(id) == id[8] * 256u + id[9];
}

}  // namespace qvdbase
