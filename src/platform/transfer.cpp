// Reading and writing at a file's position: one system call for each transfer, more only when the
// host moves fewer bytes than it was asked to.
#include "platform/transfer.h"

#include <algorithm>
#include <limits>

#include "platform/system_calls.h"

namespace qvdbase::platform {
namespace {

// How many of `count` bytes may lie between `position` and `limit`.
size_t bytesBelow(uint64_t limit, uint64_t position, size_t count) {
  return position >= limit ? 0 : static_cast<size_t>(std::min<uint64_t>(count, limit - position));
}

constexpr auto kLargestPosition = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());

}  // namespace

bool readAtPosition(OpenFile& file, void* buffer, uint32_t count, uint32_t* moved) {
  auto* bytes = static_cast<char*>(buffer);
  const auto start = static_cast<uint64_t>(file.position);
  const size_t wanted = bytesBelow(kLargestPosition, start, count);
  size_t done = 0;
  while (done < wanted) {
    const ssize_t got = uninterrupted([&] {
      return systemCalls().readAt(file.descriptor, bytes + done, wanted - done,
                                  static_cast<off_t>(start + done));
    });
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  file.position = static_cast<int64_t>(start + done);
  *moved = static_cast<uint32_t>(done);
  return done == count;
}

bool writeAtPosition(OpenFile& file, const void* buffer, uint32_t count, uint32_t* moved) {
  *moved = 0;
  if (!file.isWritable()) return false;
  if (count == 0) return true;
  const auto* bytes = static_cast<const char*>(buffer);
  const auto start = static_cast<uint64_t>(file.position);
  // A write that passes the process's limit would raise a signal that ends it.
  const uint64_t limit = std::min(kLargestPosition, systemCalls().fileSizeLimit());
  const size_t wanted = bytesBelow(limit, start, count);
  size_t done = 0;
  while (done < wanted) {
    const ssize_t put = uninterrupted([&] {
      return systemCalls().writeAt(file.descriptor, bytes + done, wanted - done,
                                   static_cast<off_t>(start + done));
    });
    if (put <= 0) break;
    done += static_cast<size_t>(put);
  }
  file.position = static_cast<int64_t>(start + done);
  *moved = static_cast<uint32_t>(done);
  return done == count;
}

bool fileLength(const OpenFile& file, int64_t* length) {
  struct stat status = {};
  if (systemCalls().status(file.descriptor, &status) != 0) return false;
  *length = static_cast<int64_t>(status.st_size);
  return true;
}

void beginTransferScope(int16_t) {}

bool endTransferScope(int16_t) {
  return true;
}

bool flushTransfers() {
  return true;
}

}  // namespace qvdbase::platform
