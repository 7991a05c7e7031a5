// Whether a path still is that of an open file: another process may have replaced or removed it.
#pragma once

#include <cstdint>
#include <string>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

// Follows an absolute path in the host's form. `anotherOrNone` also when a folder in it is missing
// and for a number that is not in use; after `unknown` the host's failure is noted.
NameOf lookAtPath(int16_t file, const std::string& path);

}  // namespace qvdbase::platform
