// The run of pending bytes.
#include "platform/gathered_writes.h"

#include <cstring>

#include "platform/plain_transfer.h"

namespace qvdbase::platform {
namespace {

struct PendingRun {
  const FileEntry* entry;
  int64_t position;
  size_t length;  // 0 while nothing is pending
  uint8_t bytes[kGatherRoom];

  bool continuesAt(const FileEntry* file, int64_t at, size_t count) const {
    return entry == file && at == position + static_cast<int64_t>(length) &&
           count <= kGatherRoom - length;
  }
};

constinit PendingRun pending = {};

}  // namespace

bool canGather(const FileEntry* file, int64_t position, size_t count) {
  if (count > kGatherRoom / 2) return false;
  return pending.length == 0 || pending.continuesAt(file, position, count);
}

void gatherWrite(const FileEntry* file, int64_t position, const void* buffer, size_t count) {
  if (pending.length == 0) {
    pending.entry = file;
    pending.position = position;
  }
  std::memcpy(pending.bytes + pending.length, buffer, count);
  pending.length += count;
}

bool isPending(const FileEntry* file) {
  return pending.length != 0 && pending.entry == file;
}

bool isPending(const FileEntry* file, int64_t position, size_t count) {
  if (!isPending(file)) return false;
  const int64_t end = pending.position + static_cast<int64_t>(pending.length);
  return position < end && (position >= pending.position ||
                            static_cast<uint64_t>(pending.position - position) < count);
}

int64_t pendingEnd(const FileEntry* file) {
  return isPending(file) ? pending.position + static_cast<int64_t>(pending.length) : -1;
}

bool flushGathered() {
  if (pending.length == 0) return true;
  const size_t length = pending.length;
  pending.length = 0;
  return writePlain(descriptorOf(*pending.entry), pending.position, pending.bytes, length) ==
         length;
}

}  // namespace qvdbase::platform
