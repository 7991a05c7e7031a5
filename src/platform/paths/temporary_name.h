// Names for what is on its way to its place: ".qvdb-", 16 digits, ".tmp".
#pragma once

#include <cerrno>
#include <string>

namespace qvdbase::platform {

// One that this process has not used yet, and another process hardly has.
std::string temporaryName();

// Calls make(name) with such names until it succeeds, or fails for another reason than that the
// name is taken, which errno then holds. Stores the name.
template <typename Make>
bool makeUnderTemporaryName(std::string* name, Make make) {
  constexpr int kAttempts = 100;
  for (int i = 0; i < kAttempts; ++i) {
    *name = temporaryName();
    errno = 0;
    if (make(name->c_str())) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

}  // namespace qvdbase::platform
