// Looking why a file could not be opened.
#include "platform/open_failure.h"

#include <algorithm>

#include "platform/directory.h"
#include "platform/file_entries.h"
#include "platform/system_calls.h"
#include "platform/utf8_names.h"

namespace qvdbase::platform {
namespace {

OpenFailure failureOf(int error) {
  switch (error) {
    case ENOENT:
      return OpenFailure::fileMissing;
    case ENOTDIR:
      return OpenFailure::folderMissing;
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
      return OpenFailure::inUse;
    case EMFILE:
    case ENFILE:
      return OpenFailure::tooManyOpen;
    default:
      return OpenFailure::other;
  }
}

struct Place {
  Directory folder;
  QVWCHAR name[kMaxPathCharacters + 1] = {};  // the last component
};

// Follows the path to its last component.
OpenFailure walk(const QVWCHAR* path, Place* place) {
  if (!place->folder.enterRoot()) return failureOf(errno);
  while (*path == '/') ++path;
  for (;;) {
    size_t length = 0;
    while (path[length] != 0 && path[length] != '/') {
      if (length == kMaxPathCharacters) return OpenFailure::nameTooLong;
      place->name[length] = path[length];
      ++length;
    }
    place->name[length] = 0;
    if (path[length] == 0) return OpenFailure::none;
    errno = 0;
    if (!place->folder.enter(EntryName(place->name))) {
      return errno == ENOENT ? OpenFailure::folderMissing : failureOf(errno);
    }
    if (place->folder.descriptor() < 0) return OpenFailure::folderMissing;
    path += length + 1;
  }
}

// Opens the file for itself, to see what the host says, and tries the lock. Where this process has
// it open for writing that is known already: a second descriptor must not be closed then, because
// with some hosts the file's lock would go with it.
OpenFailure tryToOpen(const Place& place, const EntryName& name, int access, Sharing sharing) {
  struct stat status = {};
  errno = 0;
  const int descriptor = openRegularFile(place.folder, name, access, &status);
  if (descriptor < 0) return failureOf(errno);
  const bool free = sharing == Sharing::none || setFileLock(descriptor, sharing);
  systemCalls().close(descriptor);
  return free ? OpenFailure::none : OpenFailure::inUse;
}

OpenFailure lookAtFile(const Place& place, Sharing sharing, bool forEmptying) {
  const EntryName name(place.name);
  struct stat status = {};
  if (!name.isValid()) return OpenFailure::other;
  if (systemCalls().statusAt(place.folder.descriptor(), name.bytes(), &status, 0) != 0) {
    return failureOf(errno);
  }
  if (!S_ISREG(status.st_mode)) return OpenFailure::notAFile;
  const FileEntry* entry = findEntry(status.st_dev, status.st_ino);
  if (entry != nullptr && forEmptying) return OpenFailure::inUse;
  if (entry != nullptr && entry->readWrite >= 0) {
    // With a descriptor for writing at hand, only another opener or the lock can have refused.
    return sharing == Sharing::none ? OpenFailure::none : OpenFailure::inUse;
  }
  return tryToOpen(place, name, sharing == Sharing::none ? O_RDONLY : O_RDWR, sharing);
}

Sharing sharingOf(int permission) {
  switch (static_cast<int8_t>(permission)) {
    case 2:
    case 3:
      return Sharing::exclusive;
    case 4:
      return Sharing::shared;
    default:
      return Sharing::none;
  }
}

}  // namespace

OpenFailure findOpenFailure(const QVWCHAR* path, int permission) {
  Place place;
  const OpenFailure onTheWay = walk(path, &place);
  if (onTheWay != OpenFailure::none) return onTheWay;
  return lookAtFile(place, sharingOf(permission), false);
}

OpenFailure findCreateFailure(const QVWCHAR* path) {
  Place place;
  const OpenFailure onTheWay = walk(path, &place);
  // Creating makes missing folders, so where one is missing still it was not allowed to.
  if (onTheWay == OpenFailure::folderMissing) return OpenFailure::accessDenied;
  if (onTheWay != OpenFailure::none) return onTheWay;
  const OpenFailure atFile = lookAtFile(place, Sharing::exclusive, true);
  return atFile == OpenFailure::fileMissing ? OpenFailure::accessDenied : atFile;
}

}  // namespace qvdbase::platform
