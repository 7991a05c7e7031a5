// Waiting for the device.
#include "platform/handles/sync.h"

#include <utility>

#include "platform/handles/open_files.h"
#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/paths/placing.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {

bool syncFile(int16_t file) {
  const Turn turn(file);
  const OpenFile* openFile = findOpenFile(file);
  return openFile != nullptr && flushTransfers() && syncDescriptor(openFile->descriptor);
}

namespace {

bool syncData(int descriptor) {
  const bool isSynced = uninterrupted([&] { return systemCalls().syncData(descriptor); }) == 0;
  if (!isSynced) noteHostFailure();
  return isSynced;
}

}  // namespace

bool syncFileData(int16_t file) {
  const Turn turn(file);
  const OpenFile* openFile = findOpenFile(file);
  return openFile != nullptr && flushTransfers() && syncData(openFile->descriptor);
}

SyncOutside::SyncOutside(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || !flushTransfers()) return;
  entry_ = openFile->entry;
  descriptor_ = openFile->descriptor;
  addReader(entry_);
}

SyncOutside::~SyncOutside() {
  leave();
}

void SyncOutside::leave() {
  FileEntry* const left = std::exchange(entry_, nullptr);
  if (left != nullptr) static_cast<void>(leaveEntry(left, Sharing::none));
}

bool SyncOutside::run() const {
  return entry_ != nullptr && syncData(descriptor_);
}

}  // namespace qvdbase::platform
