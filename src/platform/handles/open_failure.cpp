// Finding why a file could not be opened.
#include "platform/handles/open_failure.h"

#include <algorithm>

#include "platform/handles/byte_holder.h"
#include "platform/handles/open_files.h"
#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/paths/directory.h"
#include "platform/paths/utf8_names.h"

namespace qvdbase::platform {
namespace {

OpenFailure causeOf(int error) {
  switch (error) {
    case ENOENT:
      return OpenFailure::fileMissing;
    case ENOTDIR:
      return OpenFailure::notAFolder;
    case EISDIR:
    case ENXIO:
      return OpenFailure::notAFile;
    case ENAMETOOLONG:
      return OpenFailure::nameTooLong;
    case EACCES:
    case EPERM:
      return OpenFailure::accessDenied;
    case EROFS:
      return OpenFailure::readOnlyVolume;
    case ETXTBSY:
      return OpenFailure::isRunning;
    case EMFILE:
    case ENFILE:
      return OpenFailure::tooManyOpen;
    case ENOSPC:
    case EDQUOT:
      return OpenFailure::noSpace;
    default:
      return OpenFailure::other;
  }
}

OpenFailureFound failureOf(int error) {
  return {causeOf(error), {error, std::system_category()}};
}

// A lock is refused while another process holds one; anything else says that there are none here.
OpenFailureFound lockFailureOf(int error, int descriptor, const struct stat& status,
                               Sharing wanted) {
  OpenFailureFound found;
  found.code = {error, std::system_category()};
  if (error == EACCES || error == EAGAIN) {
    found.failure = OpenFailure::inUse;
    found.holder = holderOf(descriptor, status, wanted);
  } else {
    found.failure = OpenFailure::cannotLock;
    found.fileSystem = systemCalls().fileSystem(descriptor);
  }
  return found;
}

struct Place {
  Directory folder;
  QVWCHAR name[kMaxPathCharacters + 1] = {};  // the last component
};

// Follows the path to its last component.
OpenFailureFound walk(const QVWCHAR* path, Place* place) {
  if (!place->folder.enterRoot()) return failureOf(errno);
  while (*path == '/') ++path;
  for (;;) {
    size_t length = 0;
    while (path[length] != 0 && path[length] != '/') {
      if (length == kMaxPathCharacters) return failureOf(ENAMETOOLONG);
      place->name[length] = path[length];
      ++length;
    }
    place->name[length] = 0;
    if (path[length] == 0) return {};
    errno = 0;
    if (!place->folder.enter(EntryName(place->name))) {
      OpenFailureFound found = failureOf(errno);
      if (found.failure == OpenFailure::fileMissing) found.failure = OpenFailure::folderMissing;
      return found;
    }
    if (place->folder.descriptor() < 0) return failureOf(ENOTDIR);
    path += length + 1;
  }
}

// Opens the file for itself, to see what the host answers, and tries the lock. Not where this
// process has it open for writing: on some hosts closing a second descriptor gives up the file's
// lock.
OpenFailureFound tryToOpen(const Directory& folder, const EntryName& name, int access,
                           Sharing sharing) {
  struct stat status = {};
  errno = 0;
  const int descriptor = openRegularFile(folder, name, access, &status);
  if (descriptor < 0) return failureOf(errno);
  OpenFailureFound found;
  if (sharing != Sharing::none && !setFileLock(descriptor, sharing)) {
    found = lockFailureOf(errno, descriptor, status, sharing);
  }
  systemCalls().close(descriptor);
  return found;
}

// With a descriptor for writing at hand, only another opener or the lock can have refused.
OpenFailureFound lookAtEntry(const FileEntry& entry, const struct stat& status, Sharing sharing) {
  if (sharing == Sharing::none) return {};
  OpenFailureFound found;
  found.failure = OpenFailure::inUse;
  if (sharing == Sharing::shared || entry.exclusiveOpeners == 0) {
    found.holder = holderOf(entry.readWrite, status, sharing);
  }
  found.holder.isThisProcess = found.holder.process == 0;
  return found;
}

}  // namespace

LockHolder holderOf(int descriptor, const struct stat& status, Sharing wanted) {
  return holderOfLock(descriptor, status, fileLock(wanted));
}

OpenFailureFound findOpenFailure(const QVWCHAR* path, int permission) {
  Place place;
  const OpenFailureFound onTheWay = walk(path, &place);
  if (onTheWay.failure != OpenFailure::none) return onTheWay;
  return findOpenFailureAt(place.folder, EntryName(place.name), permission);
}

OpenFailureFound findOpenFailureAt(const Directory& folder, const EntryName& name, int permission) {
  const Sharing sharing = sharingOf(permission).value_or(Sharing::none);
  struct stat status = {};
  if (!name.isValid()) return {OpenFailure::other, {}};
  if (systemCalls().statusAt(folder.descriptor(), name.bytes(), &status, 0) != 0) {
    return failureOf(errno);
  }
  if (!S_ISREG(status.st_mode)) return {OpenFailure::notAFile, {}};
  const EntryTurn turn(status.st_dev, status.st_ino);
  const FileEntry* entry = turn.entry();
  if (entry != nullptr && entry->readWrite >= 0) return lookAtEntry(*entry, status, sharing);
  return tryToOpen(folder, name, sharing == Sharing::none ? O_RDONLY : O_RDWR, sharing);
}

OpenFailureFound lockWithoutEffect(const char* fileSystem) {
  OpenFailureFound found;
  found.failure = OpenFailure::cannotLock;
  found.fileSystem = fileSystem;
  return found;
}

OpenFailureFound lastCreateFailure() {
  return createFailureOf(lastHostFailure());
}

// That there is no such file means that the host makes none there.
OpenFailureFound createFailureOf(const std::error_code& code) {
  OpenFailureFound found = failureOf(code.value());
  if (!code || code.value() == ENOENT) found.failure = OpenFailure::other;
  return found;
}

}  // namespace qvdbase::platform
