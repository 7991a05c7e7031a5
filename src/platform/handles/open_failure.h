// Why a file could not be opened, for the layer that tells people. The operations themselves report
// only that they failed; this looks at the path again, afterwards, and changes nothing.
#ifndef QVDBASE_PLATFORM_OPEN_FAILURE_H
#define QVDBASE_PLATFORM_OPEN_FAILURE_H

#include <qvdbase/base.h>

#include <cstdint>
#include <system_error>

namespace qvdbase::platform {

enum class OpenFailure : uint8_t {
  none,           // nothing stands in the way now
  folderMissing,  // a folder on the way is not there
  notAFolder,     // something on the way is not a folder
  fileMissing,
  notAFile,
  nameTooLong,  // for the host
  accessDenied,
  readOnlyVolume,
  inUse,
  cannotLock,  // the file system has no locks
  tooManyOpen,
  noSpace,  // for one more file
  other,
};

struct OpenFailureFound {
  OpenFailure failure = OpenFailure::none;
  std::error_code code;  // the host's, where a call to it failed
};

// Looks what keeps the file at an absolute path from being opened with a permission (openFile).
// `path` has single '/' between its components.
OpenFailureFound findOpenFailure(const QVWCHAR* path, int permission);

// Looks what kept the file from being created or emptied there: at the path, and, for what cannot
// be seen from outside, at the last failure of the host (host_failure.h). Missing folders are no
// hindrance: creating makes them.
OpenFailureFound findCreateFailure(const QVWCHAR* path);

// The same from the last failure of the host alone, after a new file could not be made, and from
// the code with which the host refused to make a folder.
OpenFailureFound lastCreateFailure();
OpenFailureFound createFailureOf(const std::error_code& code);

}  // namespace qvdbase::platform

#endif
