// The path of an open file through its descriptor, for routines that open a file by its path: it
// leads to that file whatever its name leads to by now.
#pragma once

#include <cstdint>
#include <string>

namespace qvdbase::platform {

// Empty where the host has no such path, or the number is that of no open file.
std::string descriptorPath(int16_t file);

}  // namespace qvdbase::platform
