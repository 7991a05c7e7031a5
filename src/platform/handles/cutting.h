// Making an open file shorter.
#pragma once

#include <cstdint>

#include "platform/handles/open_files.h"

namespace qvdbase::platform {

// Cuts the file off at `length`. False, with nothing changed, when the file was not opened
// exclusively (what lies at its end may be another process's), when it is shorter than that, and
// when the host refuses. What was written before is with the host then, what was read is forgotten.
bool cutFile(const OpenFile& file, int64_t length);

}  // namespace qvdbase::platform
