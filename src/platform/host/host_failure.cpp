// What the host answered when a call failed.
#include "platform/host/host_failure.h"

#include "platform/host/system_calls.h"

namespace qvdbase::platform {
namespace {

constinit thread_local int lastCode = 0;
constinit thread_local int lastWriteCode = 0;

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

void forgetHostFailure() {
  lastCode = 0;
  lastWriteCode = 0;
}

void noteHostFailure() {
  lastCode = errno;
}

void noteHostFailure(int code) {
  lastCode = code;
}

void noteRefusedWrite(int code) {
  lastCode = code;
  lastWriteCode = code;
}

std::error_code lastHostFailure() {
  return {lastCode, std::system_category()};
}

std::error_code lastRefusedWrite() {
  return {lastWriteCode, std::system_category()};
}

WriteFailure findWriteFailure(uint64_t length) {
  if (lastCode == 0 && length > systemCalls().fileSizeLimit()) noteHostFailure(EFBIG);
  if (lastWriteCode != 0) return {obstacleOf(lastWriteCode), lastRefusedWrite()};
  return {obstacleOf(lastCode), lastHostFailure()};
}

}  // namespace qvdbase::platform
