// Why a file could not be opened, for the layer that reports reasons. The operations themselves
// report only that they failed; this looks at the path again, afterwards, and changes nothing.
#pragma once

#include <qvdbase/base.h>

#include <cstdint>
#include <system_error>

namespace qvdbase::platform {

enum class OpenFailure : uint8_t {
  none,           // nothing prevents it now
  folderMissing,  // a folder in the path does not exist
  notAFolder,     // something in the path is not a folder
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

// Finds what keeps the file at an absolute path from being opened with a permission (openFile).
// `path` has single '/' between its components.
OpenFailureFound findOpenFailure(const QVWCHAR* path, int permission);

// Finds what kept the file from being created or emptied there: at the path, and, for what cannot
// be seen from outside, at the last failure of the host (host_failure.h). Missing folders do
// not prevent it: creating makes them.
OpenFailureFound findCreateFailure(const QVWCHAR* path);

// The same from the last failure of the host alone, after a new file could not be made, and from
// the code with which the host refused to make a folder.
OpenFailureFound lastCreateFailure();
OpenFailureFound createFailureOf(const std::error_code& code);

}  // namespace qvdbase::platform
