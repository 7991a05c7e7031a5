// The counts of bytes that the last transfers have moved. A call has counts of its own, taken over
// from the exported ones when its turn begins and published when it ends or pauses: these are then
// the counts of the call that ended last.
#pragma once

#include <cstdint>

#include "platform/host/threads.h"

namespace qvdbase::platform {

struct TransferCounts {
  uint32_t read = 0;
  uint32_t written = 0;
};

namespace detail {
extern constinit QVDBASE_PER_THREAD TransferCounts countsOfThread;
}

inline TransferCounts& transferCounts() {
  return detail::countsOfThread;
}

void takeOverCounts();
void publishCounts();

}  // namespace qvdbase::platform
