// The calls to the host with which a folder of backups is kept.
#include "backup/folder_calls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace qvdb::tool {
namespace {

int openAt(int folder, const char* name, int flags) {
  return ::openat(folder, name, flags);
}

int statusAt(int folder, const char* name, struct stat* status) {
  return ::fstatat(folder, name, status, AT_SYMLINK_NOFOLLOW);
}

int removeAt(int folder, const char* name) {
  return ::unlinkat(folder, name, 0);
}

// Elsewhere each file is synced by itself.
int syncAll(int file) {
#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
  return ::syncfs(file);
#else
  static_cast<void>(file);
  errno = ENOSYS;
  return -1;
#endif
}

}  // namespace

FolderCalls hostFolderCalls() {
  return {.openAt = openAt,
          .makeFolder = ::mkdirat,
          .lock = ::flock,
          .openEntries = ::fdopendir,
          .nextEntry = ::readdir,
          .status = ::fstat,
          .statusAt = statusAt,
          .read = ::read,
          .changeMode = ::fchmod,
          .rename = ::renameat,
          .remove = removeAt,
          .sync = ::fsync,
          .syncAll = syncAll};
}

FolderCalls folderCalls = hostFolderCalls();

}  // namespace qvdb::tool
