// Transfers at a position, straight to the host.
#include "platform/transfer/plain_transfer.h"

#include <algorithm>

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"

namespace qvdbase::platform {
namespace {

constexpr size_t kLargestTransfer = size_t{1} << 30;  // below the limit of every host

}  // namespace

ptrdiff_t readOnce(int descriptor, int64_t position, void* buffer, size_t count) {
  return uninterrupted([&] {
    return systemCalls().readAt(descriptor, buffer, std::min(count, kLargestTransfer), position);
  });
}

size_t readPlain(int descriptor, int64_t position, void* buffer, size_t count, bool* failed) {
  auto* bytes = static_cast<char*>(buffer);
  const size_t wanted = bytesBelow(UINT64_MAX, position, count);
  size_t done = 0;
  while (done < wanted) {
    const ptrdiff_t got =
        readOnce(descriptor, position + static_cast<int64_t>(done), bytes + done, wanted - done);
    if (got < 0) *failed = true;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  return done;
}

size_t writePlain(int descriptor, int64_t position, const void* buffer, size_t count) {
  const auto* bytes = static_cast<const char*>(buffer);
  size_t done = 0;
  while (done < count) {
    const size_t part = std::min(count - done, kLargestTransfer);
    const ssize_t put = uninterrupted([&] {
      return systemCalls().writeAt(descriptor, bytes + done, part,
                                   position + static_cast<off_t>(done));
    });
    if (put <= 0) {
      noteRefusedWrite(put < 0 ? errno : ENOSPC);
      break;
    }
    done += static_cast<size_t>(put);
  }
  return done;
}

}  // namespace qvdbase::platform
