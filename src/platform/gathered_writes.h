// Gathered writes: neighbouring small writes of one call, handed to the host as one.
//
// There is one run of pending bytes for the whole process. A write that does not follow it, on the
// same file and right behind its end, sends it off first: so the order in which writes reach a file
// is the order in which they were made, across files too.
#ifndef QVDBASE_PLATFORM_GATHERED_WRITES_H
#define QVDBASE_PLATFORM_GATHERED_WRITES_H

#include <cstddef>
#include <cstdint>

#include "platform/file_entries.h"

namespace qvdbase::platform {

inline constexpr size_t kGatherRoom = size_t{64} << 10;

// Whether a write can join the pending bytes: it continues them, or there are none, and it is
// small.
bool canGather(const FileEntry* file, int64_t position, size_t count);

// Takes in a write for which canGather holds.
void gatherWrite(const FileEntry* file, int64_t position, const void* buffer, size_t count);

// Whether there are pending bytes of this file, in all or in a part of it.
bool isPending(const FileEntry* file);
bool isPending(const FileEntry* file, int64_t position, size_t count);

// Where the pending bytes of this file end, or -1 when there are none.
int64_t pendingEnd(const FileEntry* file);

// Hands the pending bytes to the host. False when it did not take them all; they are gone then.
bool flushGathered();

}  // namespace qvdbase::platform

#endif
