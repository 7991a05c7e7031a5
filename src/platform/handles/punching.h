// Giving parts of an open file back to the file system.
#pragma once

#include <cstdint>

#include "platform/handles/open_files.h"

namespace qvdbase::platform {

// Whether the file system can have holes in this file. Asked beyond its end, where no byte
// changes; its times may.
bool canPunch(const OpenFile& file);

// Gives what is stored of a range back: it reads as zeros, and the file keeps its length. False
// when the file was not opened exclusively, and when the host refuses. What was written before is
// with the host then, what was read is forgotten.
bool punchFile(const OpenFile& file, int64_t position, int64_t length);

}  // namespace qvdbase::platform
