#include "platform/paths/temporary_name.h"

#include <atomic>

#include "platform/host/system_calls.h"

namespace qvdbase::platform {

// A name need not be a secret: files are made only where nothing has the name.
std::string temporaryName() {
  static std::atomic<uint32_t> used = 0;
  uint64_t number = static_cast<uint64_t>(systemCalls().time()) << 32;
  number ^= systemCalls().microseconds() * 0x9E3779B97F4A7C15u;
  number += ++used;
  std::string digits(16, '0');
  for (size_t i = digits.size(); i-- > 0; number >>= 4) digits[i] = "0123456789abcdef"[number & 15];
  return ".qvdb-" + digits + ".tmp";
}

}  // namespace qvdbase::platform
