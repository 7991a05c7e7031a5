// Renaming and waiting.
#include "platform/paths/placing.h"

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"

namespace qvdbase::platform {
namespace {

bool isTaken(const NamedIn& place) {
  struct stat status = {};
  return systemCalls().statusAt(place.folder, place.name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// Whether the host or the file system lacks the call, as opposed to refusing it.
bool lacksCall(int error) {
  return error == ENOSYS || error == EINVAL || error == ENOTSUP || error == EOPNOTSUPP;
}

}  // namespace

// An ordinary rename would replace silently. Where there is none that refuses to, the file gets a
// second name first, which a file that is there forbids; a process that is killed then leaves both
// names of the whole file. Some file systems have no second names either: there a look must do.
Placing renameWhereNothingIs(const NamedIn& from, const NamedIn& to) {
  const SystemCalls& calls = systemCalls();
  if (calls.renameNewAt(from.folder, from.name, to.folder, to.name) == 0) return Placing::done;
  if (errno == EEXIST) return Placing::occupied;
  if (!lacksCall(errno)) return Placing::failed;
  if (calls.linkAt(from.folder, from.name, to.folder, to.name, 0) == 0) {
    if (calls.removeAt(from.folder, from.name, 0) == 0) return Placing::done;
    // A file of two names would be refused by whatever replaces it later.
    return calls.removeAt(to.folder, to.name, 0) == 0 ? Placing::failed : Placing::done;
  }
  if (errno == EEXIST || isTaken(to)) return Placing::occupied;
  return renameOver(from, to);
}

Placing renameOver(const NamedIn& from, const NamedIn& to) {
  const int result = systemCalls().renameAt(from.folder, from.name, to.folder, to.name);
  return result == 0 ? Placing::done : Placing::failed;
}

bool syncDescriptor(int descriptor) {
  return uninterrupted([&] { return systemCalls().sync(descriptor); }) == 0;
}

bool syncFolder(const Directory& folder) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  const int descriptor =
      uninterrupted([&] { return systemCalls().openAt(folder.descriptor(), ".", flags, 0); });
  const bool isSynced = descriptor >= 0 && syncDescriptor(descriptor);
  if (!isSynced) noteHostFailure();
  // Some file systems cannot sync a directory. Those errors count as success: nothing more can be
  // done.
  const bool isMoot = errno == EINVAL || errno == ENOTSUP || errno == EACCES;
  if (descriptor >= 0) systemCalls().close(descriptor);
  return isSynced || isMoot;
}

}  // namespace qvdbase::platform
