// The counts of bytes that the last transfers have moved. A call has counts of its own, taken over
// from the exported ones when its turn begins and published when it ends or pauses: these are then
// the counts of the call that ended last.
#pragma once

#include <qvdbase/qvdbase.h>

#include <atomic>
#include <cstdint>

#include "platform/host/threads.h"

namespace qvdbase::platform {

struct TransferCounts {
  uint32_t read = 0;
  uint32_t written = 0;
};

namespace detail {
extern constinit QVDBASE_PER_THREAD TransferCounts countsOfThread;
extern constinit QVDBASE_PER_THREAD TransferCounts takenOver;

// Only what the call has changed: another thread may have published meanwhile.
inline void publish(uint32_t& exported, uint32_t count, uint32_t before) {
  if (count != before) std::atomic_ref(exported).store(count, std::memory_order_relaxed);
}
}  // namespace detail

inline TransferCounts& transferCounts() {
  return detail::countsOfThread;
}

inline void takeOverCounts() {
  const uint32_t read = std::atomic_ref(gbl_realReaden).load(std::memory_order_relaxed);
  const uint32_t written = std::atomic_ref(gbl_realWriten).load(std::memory_order_relaxed);
  detail::takenOver = {read, written};
  transferCounts() = {read, written};  // a copy would wait for both stores
}

inline void publishCounts() {
  detail::publish(gbl_realReaden, transferCounts().read, detail::takenOver.read);
  detail::publish(gbl_realWriten, transferCounts().written, detail::takenOver.written);
}

}  // namespace qvdbase::platform
