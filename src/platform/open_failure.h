// Why a file could not be opened, for the layer that tells people. The operations themselves report
// only that they failed; this looks at the path again, afterwards, and changes nothing.
#ifndef QVDBASE_PLATFORM_OPEN_FAILURE_H
#define QVDBASE_PLATFORM_OPEN_FAILURE_H

#include <qvdbase/base.h>

#include <cstdint>

namespace qvdbase::platform {

enum class OpenFailure : uint8_t {
  none,           // nothing stands in the way now
  folderMissing,  // a folder on the way is not there, or is no folder
  fileMissing,
  notAFile,
  nameTooLong,  // for the host
  accessDenied,
  readOnlyVolume,
  inUse,
  tooManyOpen,
  other,
};

// Looks what keeps the file at an absolute path from being opened with a permission (openFile).
// `path` has single '/' between its components.
OpenFailure findOpenFailure(const QVWCHAR* path, int permission);

// Looks what keeps the file from being created or emptied there. Missing folders are no hindrance:
// creating makes them.
OpenFailure findCreateFailure(const QVWCHAR* path);

}  // namespace qvdbase::platform

#endif
