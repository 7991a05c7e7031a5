// Why a file could not be opened, for the layer that reports reasons. The operations themselves
// report only that they failed; this looks at the path again, afterwards, and changes nothing.
#pragma once

#include <qvdbase/base.h>

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <system_error>

#include "platform/handles/file_entries.h"
#include "platform/paths/directory.h"

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
  inUse,       // by this process or another; see LockHolder
  isRunning,   // as a program
  cannotLock,  // the file system has no locks
  tooManyOpen,
  noSpace,  // for one more file
  other,
};

// Who keeps a file from being opened for writing.
struct LockHolder {
  bool isThisProcess = false;
  int64_t process = 0;  // another one, or 0 where the host does not report it
  std::string name;     // of that process; empty where it cannot be obtained
};

// Who holds the lock that keeps another one of this strength from being taken: an empty answer
// where no other process does.
LockHolder holderOf(int descriptor, const struct stat& status, Sharing wanted);

struct OpenFailureFound {
  OpenFailure failure = OpenFailure::none;
  std::error_code code;              // the host's, where a call to it failed
  LockHolder holder = {};            // of inUse
  const char* fileSystem = nullptr;  // of cannotLock: its kind, unless that is a usual one
};

// Finds what keeps the file at an absolute path from being opened with a permission (openFile).
// `path` has single '/' between its components.
OpenFailureFound findOpenFailure(const QVWCHAR* path, int permission);

// The same for an entry of a folder.
OpenFailureFound findOpenFailureAt(const Directory& folder, const EntryName& name, int permission);

// That locks are granted on this kind of file system and have no effect.
OpenFailureFound lockWithoutEffect(const char* fileSystem);

// What kept a new file from being made, from the last failure of the host (host_failure.h), or from
// the code with which the host refused to make a folder.
OpenFailureFound lastCreateFailure();
OpenFailureFound createFailureOf(const std::error_code& code);

}  // namespace qvdbase::platform
