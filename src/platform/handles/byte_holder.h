// Who holds a lock that this process is refused.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_failure.h"

namespace qvdbase::platform {

// Another process that keeps the lock `wanted` from being taken through this descriptor. Empty
// where none does, and where the host does not report it.
LockHolder holderOfLock(int descriptor, const struct stat& status, const struct flock& wanted);

// The same for a lock byte of an open file, which others may hold in either strength.
LockHolder holderOfByte(int16_t file, LockByte byte);

// How a sentence names it: " (4711, backup)", or nothing where it is not known.
std::string inParentheses(const LockHolder& holder);

}  // namespace qvdbase::platform
