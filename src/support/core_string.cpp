// The platform string: a length, and behind it the characters with a terminator.
#include "support/core_string.h"

#include <cstring>

#include "platform/host/memory.h"

using namespace qvdbase::support;

struct __CFString {
  size_t length;
};

namespace qvdbase::support {
namespace {

static_assert(sizeof(__CFString) % alignof(QVWCHAR) == 0);

QVWCHAR* charactersOf(__CFString* string) {
  return reinterpret_cast<QVWCHAR*>(string + 1);
}

}  // namespace

__CFString* createCoreString(const QVWCHAR* characters, size_t length) {
  const size_t byteCount = length * sizeof(QVWCHAR);
  auto* string = static_cast<__CFString*>(
      platform::allocate(sizeof(__CFString) + byteCount + sizeof(QVWCHAR)));
  if (string == nullptr) return nullptr;
  string->length = length;
  std::memcpy(charactersOf(string), characters, byteCount);
  charactersOf(string)[length] = 0;
  return string;
}

size_t coreStringLength(const __CFString* string) {
  return string->length;
}

const QVWCHAR* coreStringCharacters(const __CFString* string) {
  return reinterpret_cast<const QVWCHAR*>(string + 1);
}

}  // namespace qvdbase::support
