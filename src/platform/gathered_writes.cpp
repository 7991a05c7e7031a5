// The run of pending bytes, and handing it over.
#include "platform/gathered_writes.h"

#include "platform/plain_transfer.h"

namespace qvdbase::platform {

constinit detail::PendingRun detail::pending = {};

bool flushGathered() {
  detail::PendingRun& pending = detail::pending;
  if (pending.length == 0) return true;
  const size_t length = pending.length;
  pending.length = 0;
  return writePlain(descriptorOf(*pending.entry), pending.position, pending.bytes, length) ==
         length;
}

}  // namespace qvdbase::platform
