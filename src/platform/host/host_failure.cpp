// What the host answered when a call failed.
#include "platform/host/host_failure.h"

#include "platform/host/system_calls.h"

namespace qvdbase::platform {

constinit QVDBASE_PER_THREAD detail::HostFailure detail::hostFailure = {};

namespace {

using detail::hostFailure;

WriteObstacle obstacleOf(int code) {
  switch (code) {
    case ENOSPC:
    case EDQUOT:
      return WriteObstacle::full;
    case EFBIG:
      return WriteObstacle::sizeLimit;
    case EROFS:
      return WriteObstacle::readOnlyVolume;
    default:
      return WriteObstacle::unknown;
  }
}

}  // namespace

void noteHostFailure() {
  hostFailure.code = errno;
}

void noteHostFailure(int code) {
  hostFailure.code = code;
}

void noteRefusedWrite(int code) {
  hostFailure.code = code;
  hostFailure.writeCode = code;
}

std::error_code lastHostFailure() {
  return {hostFailure.code, std::system_category()};
}

std::error_code lastRefusedWrite() {
  return {hostFailure.writeCode, std::system_category()};
}

WriteFailure findWriteFailure(uint64_t length) {
  if (hostFailure.code == 0 && length > systemCalls().fileSizeLimit()) noteHostFailure(EFBIG);
  if (hostFailure.writeCode != 0) return {obstacleOf(hostFailure.writeCode), lastRefusedWrite()};
  return {obstacleOf(hostFailure.code), lastHostFailure()};
}

}  // namespace qvdbase::platform
