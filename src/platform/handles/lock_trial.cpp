// Trying the lock on a file from outside.
#include "platform/handles/lock_trial.h"

#include <memory>
#include <string_view>

#include "platform/handles/open_files.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"

namespace qvdbase::platform {
namespace {

// The kind of file system, where it is one whose locks depend on others than this host. An overlay
// has the locks of this host.
const char* foreignFileSystem(const FileEntry& entry) {
  if (!locksPassToChildren() || entry.lock == Sharing::none) return nullptr;
  const char* kind = systemCalls().fileSystem(entry.readWrite);
  return kind != nullptr && kind != std::string_view("overlay") ? kind : nullptr;
}

// Where the question is not answered, the lock itself is tried. It goes with the descriptor.
bool isKeptOut(int descriptor) {
  struct flock lock = fileLock(Sharing::exclusive);
  const int result = uninterrupted([&] { return systemCalls().findLock(descriptor, &lock); });
  if (result == 0 && lock.l_type != F_UNLCK) return true;
  return !setFileLock(descriptor, Sharing::exclusive) && (errno == EACCES || errno == EAGAIN);
}

bool excludesStrangers(const FileEntry& entry, const Directory& directory, const EntryName& name) {
  struct stat status = {};
  const int stranger = openRegularFile(directory, name, O_RDWR, &status);
  if (stranger < 0) return true;
  const bool isSame = status.st_dev == entry.device && status.st_ino == entry.inode;
  const bool isExcluded = !isSame || isKeptOut(stranger);
  systemCalls().close(stranger);
  return isExcluded;
}

}  // namespace

const char* fileSystemWithoutLocks(const FileEntry& entry, const Directory& directory,
                                   const EntryName& name) {
  const Turn turn(*entry.turn);
  const char* kind = foreignFileSystem(entry);
  return kind == nullptr || excludesStrangers(entry, directory, name) ? nullptr : kind;
}

const char* fileSystemWithoutLocks(int16_t file, const std::string& path) {
  const Turn turn(file);
  const OpenFile* open = findOpenFile(file);
  if (open == nullptr || !open->isWritable()) return nullptr;
  const char* kind = foreignFileSystem(*open->entry);
  if (kind == nullptr) return nullptr;
  Directory folder;
  const std::unique_ptr<EntryName> name = walkToParent(path, &folder);
  if (name == nullptr || folder.descriptor() < 0) return nullptr;
  return excludesStrangers(*open->entry, folder, *name) ? nullptr : kind;
}

}  // namespace qvdbase::platform
