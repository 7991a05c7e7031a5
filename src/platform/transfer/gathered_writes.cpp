// The run of pending bytes, and handing it over.
#include "platform/transfer/gathered_writes.h"

#include "platform/transfer/plain_transfer.h"

namespace qvdbase::platform {
namespace {

// The write in which the host has stopped. What it took of unchanged bytes before it is no part of
// it.
RefusedWrite stopAt(size_t taken) {
  detail::PendingRun& pending = detail::pending;
  const detail::PendingWrite* write = pending.writes;
  while (write->end <= taken) ++write;
  const size_t written = taken > write->begin ? taken - write->begin : 0;
  pending.file->position = pending.position + static_cast<int64_t>(write->begin + written);
  return {static_cast<uint32_t>(written), write->readBefore};
}

}  // namespace

constinit detail::PendingRun detail::pending = {};

bool flushGathered(RefusedWrite* refused) {
  detail::PendingRun& pending = detail::pending;
  if (pending.length == 0) return true;
  const size_t length = pending.length;
  pending.length = 0;
  const size_t taken =
      writePlain(descriptorOf(*pending.entry), pending.position, pending.bytes, length);
  if (taken == length) return true;
  *refused = stopAt(taken);
  return false;
}

}  // namespace qvdbase::platform
