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

// What kept a new file from being made, from the last failure of the host (host_failure.h), or from
// the code with which the host refused to make a folder.
OpenFailureFound lastCreateFailure();
OpenFailureFound createFailureOf(const std::error_code& code);

}  // namespace qvdbase::platform
