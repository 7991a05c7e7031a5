// Waiting for the device.
#include "platform/handles/sync.h"

#include "platform/handles/open_files.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {

bool syncFile(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || !flushTransfers()) return false;
  return uninterrupted([&] { return systemCalls().sync(openFile->descriptor); }) == 0;
}

}  // namespace qvdbase::platform
