// The exported counts. They are for the application to read; the library takes nothing else from
// them.
#include "platform/transfer/transfer_counts.h"

uint32_t gbl_realReaden = 0;
uint32_t gbl_realWriten = 0;

namespace qvdbase::platform {

constinit QVDBASE_PER_THREAD TransferCounts detail::countsOfThread = {};
constinit QVDBASE_PER_THREAD TransferCounts detail::takenOver = {};

}  // namespace qvdbase::platform
