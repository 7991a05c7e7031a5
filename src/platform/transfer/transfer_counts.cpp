// The exported counts. They are for the application to read; the library takes nothing else from
// them.
#include "platform/transfer/transfer_counts.h"

#include <qvdbase/qvdbase.h>

#include <atomic>

uint32_t gbl_realReaden = 0;
uint32_t gbl_realWriten = 0;

namespace qvdbase::platform {

constinit QVDBASE_PER_THREAD TransferCounts detail::countsOfThread = {};

namespace {

constinit QVDBASE_PER_THREAD TransferCounts takenOver = {};

uint32_t load(uint32_t& exported) {
  return std::atomic_ref(exported).load(std::memory_order_relaxed);
}

// Only what the call has changed: another thread may have published meanwhile.
void publish(uint32_t& exported, uint32_t count, uint32_t before) {
  if (count != before) std::atomic_ref(exported).store(count, std::memory_order_relaxed);
}

}  // namespace

void takeOverCounts() {
  takenOver = {load(gbl_realReaden), load(gbl_realWriten)};
  transferCounts() = takenOver;
}

void publishCounts() {
  publish(gbl_realReaden, transferCounts().read, takenOver.read);
  publish(gbl_realWriten, transferCounts().written, takenOver.written);
}

}  // namespace qvdbase::platform
