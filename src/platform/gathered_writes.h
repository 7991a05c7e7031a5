// Gathered writes: neighbouring small writes of one call, handed to the host as one.
//
// There is one run of pending bytes for the whole process. A write that does not follow it, on the
// same file and right behind its end, sends it off first: so the order in which writes reach a file
// is the order in which they were made, across files too.
#ifndef QVDBASE_PLATFORM_GATHERED_WRITES_H
#define QVDBASE_PLATFORM_GATHERED_WRITES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/file_entries.h"

namespace qvdbase::platform {

inline constexpr size_t kGatherRoom = size_t{64} << 10;

namespace detail {
struct PendingRun {
  const FileEntry* entry;
  int64_t position;
  size_t length;  // 0 while nothing is pending
  uint8_t bytes[kGatherRoom];

  int64_t end() const { return position + static_cast<int64_t>(length); }
};
extern PendingRun pending;
}  // namespace detail

// Whether there are pending bytes of this file, in all or in a part of it.
inline bool isPending(const FileEntry* file) {
  return detail::pending.length != 0 && detail::pending.entry == file;
}
inline bool isPending(const FileEntry* file, int64_t position, size_t count) {
  const detail::PendingRun& pending = detail::pending;
  if (!isPending(file)) return false;
  return position < pending.end() && (position >= pending.position ||
                                      static_cast<uint64_t>(pending.position - position) < count);
}

// Where the pending bytes of this file end, or -1 when there are none.
inline int64_t pendingEnd(const FileEntry* file) {
  return isPending(file) ? detail::pending.end() : -1;
}

// Whether a write can join the pending bytes: it continues them, or there are none, and it is
// small.
inline bool canGather(const FileEntry* file, int64_t position, size_t count) {
  const detail::PendingRun& pending = detail::pending;
  if (count > kGatherRoom / 2) return false;
  return pending.length == 0 || (pending.entry == file && position == pending.end() &&
                                 count <= kGatherRoom - pending.length);
}

// Takes in a write for which canGather holds.
inline void gatherWrite(const FileEntry* file, int64_t position, const void* buffer, size_t count) {
  detail::PendingRun& pending = detail::pending;
  if (pending.length == 0) {
    pending.entry = file;
    pending.position = position;
  }
  std::memcpy(pending.bytes + pending.length, buffer, count);
  pending.length += count;
}

// Hands the pending bytes to the host. False when it did not take them all; they are gone then.
bool flushGathered();

}  // namespace qvdbase::platform

#endif
