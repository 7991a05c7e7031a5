// Renaming, linking and removing files.
#include "platform/placing.h"

#include <memory>

#include "platform/host_path.h"
#include "platform/open_files.h"
#include "platform/system_calls.h"

namespace qvdbase::platform {
namespace {

// A path taken apart: a directory and a name in it.
struct Place {
  explicit Place(const std::string& path) : name(walkToParent(path, &directory)) {}
  bool isValid() const { return name != nullptr && directory.descriptor() >= 0; }
  int folder() const { return directory.descriptor(); }

  Directory directory;
  std::unique_ptr<EntryName> name;
};

bool rename(const Place& from, const Place& to) {
  return systemCalls().renameAt(from.folder(), from.name->bytes(), to.folder(), to.name->bytes()) ==
         0;
}

bool isTaken(const Place& place) {
  struct stat status = {};
  return systemCalls().statusAt(place.folder(), place.name->bytes(), &status,
                                AT_SYMLINK_NOFOLLOW) == 0;
}

// Whether the host or the file system lacks the call, as opposed to refusing it.
bool lacksCall(int error) {
  return error == ENOSYS || error == EINVAL || error == ENOTSUP || error == EOPNOTSUPP;
}

// An ordinary rename would replace silently. Where there is none that refuses to, the file gets a
// second name first, which a file that is there forbids; a process that is killed then leaves both
// names of the whole file. Some file systems have no second names either: there a look must do.
Placing placeWhereNothingIs(const Place& from, const Place& to) {
  const SystemCalls& calls = systemCalls();
  if (calls.renameNewAt(from.folder(), from.name->bytes(), to.folder(), to.name->bytes()) == 0) {
    return Placing::done;
  }
  if (errno == EEXIST) return Placing::occupied;
  if (!lacksCall(errno)) return Placing::failed;
  if (calls.linkAt(from.folder(), from.name->bytes(), to.folder(), to.name->bytes(), 0) == 0) {
    calls.removeAt(from.folder(), from.name->bytes(), 0);
    return Placing::done;
  }
  if (errno == EEXIST || isTaken(to)) return Placing::occupied;
  return rename(from, to) ? Placing::done : Placing::failed;
}

bool syncAndClose(int descriptor) {
  if (descriptor < 0) return false;
  const bool synced = uninterrupted([&] { return systemCalls().sync(descriptor); }) == 0;
  const int error = errno;
  systemCalls().close(descriptor);
  errno = error;
  return synced;
}

}  // namespace

Placing placeFile(const std::string& from, const std::string& to, bool replaces) {
  const Place source(from);
  const Place target(to);
  if (!source.isValid() || !target.isValid()) return Placing::failed;
  if (!replaces) return placeWhereNothingIs(source, target);
  return rename(source, target) ? Placing::done : Placing::failed;
}

bool removeFile(const std::string& path) {
  const Place place(path);
  return place.isValid() && systemCalls().removeAt(place.folder(), place.name->bytes(), 0) == 0;
}

bool syncFileAt(const std::string& path) {
  const Place place(path);
  if (!place.isValid()) return false;
  struct stat status = {};
  return syncAndClose(openRegularFile(place.directory, *place.name, O_RDONLY, &status));
}

bool syncFolderOf(const std::string& path) {
  const Place place(path);
  if (!place.isValid()) return false;
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  const int folder =
      uninterrupted([&] { return systemCalls().openAt(place.folder(), ".", flags, 0); });
  // Not every file system can: what it cannot do it has no need of, or nobody can help.
  return syncAndClose(folder) || errno == EINVAL || errno == ENOTSUP || errno == EACCES;
}

uint32_t writersOf(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return 0;
  return openFile->entry->sharedOpeners + openFile->entry->exclusiveOpeners;
}

}  // namespace qvdbase::platform
