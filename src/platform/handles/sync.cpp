// Waiting for the device.
#include "platform/handles/sync.h"

#include "platform/handles/open_files.h"
#include "platform/paths/placing.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {

bool syncFile(int16_t file) {
  const Turn turn(file);
  const OpenFile* openFile = findOpenFile(file);
  return openFile != nullptr && flushTransfers() && syncDescriptor(openFile->descriptor);
}

}  // namespace qvdbase::platform
