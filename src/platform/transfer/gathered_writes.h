// Gathered writes: neighbouring small writes of one call, handed to the host as one.
//
// There is one run of pending bytes for the whole process. A write that does not follow it, through
// the same file number and right after its end, sends it off first: so the order in which writes
// reach a file is the order in which they were made, across files too. The run remembers where each
// of its writes begins, so that a run which the host takes only in part ends as they would have,
// one by one.
#ifndef QVDBASE_PLATFORM_GATHERED_WRITES_H
#define QVDBASE_PLATFORM_GATHERED_WRITES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/handles/open_files.h"

namespace qvdbase::platform {

inline constexpr size_t kGatherRoom = size_t{64} << 10;
inline constexpr size_t kMostGathered = 64;  // a new database is 38 writes, a record 12

// The counts of bytes moved, as they were when a write was refused.
struct RefusedWrite {
  uint32_t written;  // by that write
  uint32_t read;     // by the last read before it
};

namespace detail {
struct PendingWrite {
  size_t begin;  // within the pending bytes
  size_t end;
  uint32_t readBefore;
};
struct PendingRun {
  OpenFile* file;
  const FileEntry* entry;
  int64_t position;
  size_t length;  // 0 while nothing is pending
  size_t writeCount;
  PendingWrite writes[kMostGathered];
  uint8_t bytes[kGatherRoom];

  int64_t end() const { return position + static_cast<int64_t>(length); }
};
extern PendingRun pending;
}  // namespace detail

// Whether there are pending bytes of this file, in all or in a part of it.
inline bool isPending(const FileEntry* entry) {
  return detail::pending.length != 0 && detail::pending.entry == entry;
}
inline bool isPending(const FileEntry* entry, int64_t position, size_t count) {
  const detail::PendingRun& pending = detail::pending;
  if (!isPending(entry)) return false;
  return position < pending.end() && (position >= pending.position ||
                                      static_cast<uint64_t>(pending.position - position) < count);
}

// Whether pending bytes, written through this number, end at its position.
inline bool continuesPending(const OpenFile& file) {
  const detail::PendingRun& pending = detail::pending;
  return pending.length != 0 && pending.file == &file && file.position == pending.end();
}

// Whether a write at the file's position can join the pending bytes: it continues them, or there
// are none, and it is small.
inline bool canGather(const OpenFile& file, size_t count) {
  const detail::PendingRun& pending = detail::pending;
  if (count > kGatherRoom / 2) return false;
  return pending.length == 0 || (continuesPending(file) && count <= kGatherRoom - pending.length &&
                                 pending.writeCount < kMostGathered);
}

// Takes in a write at the file's position for which canGather holds. `readBefore` is what the last
// read before it has moved.
inline void gatherWrite(OpenFile& file, const void* buffer, size_t count, uint32_t readBefore) {
  detail::PendingRun& pending = detail::pending;
  if (pending.length == 0) {
    pending.file = &file;
    pending.entry = file.entry;
    pending.position = file.position;
    pending.writeCount = 0;
  }
  const size_t begin = pending.length;
  std::memcpy(pending.bytes + begin, buffer, count);
  pending.length += count;
  pending.writes[pending.writeCount++] = {begin, pending.length, readBefore};
}

// Takes in bytes that no call writes, between two writes. There are pending bytes before them, and
// canGather holds for them and the write after them together, which must follow.
inline void gatherUnchanged(const void* bytes, size_t count) {
  detail::PendingRun& pending = detail::pending;
  std::memcpy(pending.bytes + pending.length, bytes, count);
  pending.length += count;
}

// Hands the pending bytes to the host. False when it did not take them all: the rest is gone, the
// file's position is where the write that was refused has stopped, and *refused is stored.
bool flushGathered(RefusedWrite* refused);

}  // namespace qvdbase::platform

#endif
