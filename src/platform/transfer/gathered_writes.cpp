// Sending the run of pending bytes.
#include "platform/transfer/gathered_writes.h"

#include "platform/transfer/mirror.h"
#include "platform/transfer/plain_transfer.h"

namespace qvdbase::platform {

// The write in which the host has stopped. What it took of unchanged bytes before it is no part of
// it.
RefusedWrite GatheredWrites::stopAt(size_t taken) {
  const PendingWrite* write = buffers_->writes;
  while (write->end <= taken) ++write;
  const size_t written = taken > write->begin ? taken - write->begin : 0;
  file_->position = position_ + static_cast<int64_t>(write->begin + written);
  return {static_cast<uint32_t>(written), write->readBefore};
}

bool GatheredWrites::flush(RefusedWrite* refused) {
  assert(length_ != 0);
  assert(file_->entry == entry_ && "a file was closed before its writes were sent");
  assert(buffers_->writes[writeCount_ - 1].end == length_ &&
         "a run ends with bytes that no call writes");
  const size_t length = length_;
  length_ = 0;
  const size_t taken = writePlain(descriptorOf(*entry_), position_, buffers_->bytes, length);
  noteWritten(entry_, position_, buffers_->bytes, length, taken);
  if (taken == length) return true;
  *refused = stopAt(taken);
  return false;
}

}  // namespace qvdbase::platform
