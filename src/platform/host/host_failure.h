// What the host answered when a call failed, for the layer that reports reasons. The operations
// themselves say only that they failed; the code of the last failure is kept until the next
// operation begins.
#pragma once

#include <cstdint>
#include <system_error>

#include "platform/host/threads.h"

namespace qvdbase::platform {

namespace detail {
struct HostFailure {
  int code;       // of the last call that failed
  int writeCode;  // of the last write that was refused
};
extern constinit QVDBASE_PER_THREAD HostFailure hostFailure;
}  // namespace detail

// Called when an operation of the layer above begins.
inline void forgetHostFailure() {
  detail::hostFailure = {};
}

// Keeps the code of the call that has just failed, from errno. `noteHostFailure(code)` keeps that
// code instead. errno is unchanged.
void noteHostFailure();
void noteHostFailure(int code);

// The same for a write that the host has refused.
void noteRefusedWrite(int code);

// The code of the last failure; no error when there was none.
std::error_code lastHostFailure();

// The code of the last write that the host has refused; no error when it refused none.
std::error_code lastRefusedWrite();

// Why a file could not be written, as far as the host reported it.
enum class WriteObstacle : uint8_t {
  unknown,
  full,       // the device, or the user's share of it
  sizeLimit,  // of this process, or of the file system
  readOnlyVolume,
};

struct WriteFailure {
  WriteObstacle obstacle = WriteObstacle::unknown;
  std::error_code code;
};

// Looks at the last refused write, or else at the last failure, after writing failed in a file that
// would have become `length` bytes long. A write that this process is not allowed to make never
// reaches the host.
WriteFailure findWriteFailure(uint64_t length);

}  // namespace qvdbase::platform
