// Waiting for the device.
#pragma once

#include <cstdint>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

// Waits until the device has everything that was written to the file. False for a number that is
// not in use and when the host reports a failure.
bool syncFile(int16_t file);

// The same, but what the host keeps besides the bytes and the length of the file, its times, may be
// missing: one transfer to the device less on many file systems.
bool syncFileData(int16_t file);

// A sync of a file for which no turn is held while it lasts. The file stays open meanwhile,
// whatever happens to its number.
class SyncOutside {
 public:
  // Under the file's turn. What was written before is with the host then.
  explicit SyncOutside(int16_t file);
  ~SyncOutside();
  SyncOutside(const SyncOutside&) = delete;
  SyncOutside& operator=(const SyncOutside&) = delete;

  // Without the turn. As syncFileData().
  bool run() const;

  // Keeps the file open no longer; not while it is run. For a process made by fork, in which the
  // thread is not that runs it.
  void leave();

 private:
  FileEntry* entry_ = nullptr;
  int descriptor_ = -1;
};

}  // namespace qvdbase::platform
