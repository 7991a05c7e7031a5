// Making files and emptying them.
#include "platform/file_creation.h"

#include "platform/file_entries.h"
#include "platform/system_calls.h"

namespace qvdbase::platform {
namespace {

constexpr mode_t kFileMode = 0666;  // less what the process masks out

// Locking comes first: what another process writes under its lock must not be cut off.
bool lockAndEmpty(int descriptor) {
  if (!setFileLock(descriptor, Sharing::exclusive)) return false;
  return uninterrupted([&] { return systemCalls().truncate(descriptor, 0); }) == 0;
}

}  // namespace

bool entryExists(const Directory& directory, const EntryName& name) {
  if (directory.descriptor() < 0 || !name.isValid()) return false;
  struct stat status = {};
  return systemCalls().statusAt(directory.descriptor(), name.bytes(), &status, 0) == 0;
}

bool createFile(const Directory& directory, const EntryName& name) {
  if (directory.descriptor() < 0 || !name.isValid()) return false;
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY;
  const int descriptor = uninterrupted(
      [&] { return systemCalls().openAt(directory.descriptor(), name.bytes(), flags, kFileMode); });
  if (descriptor < 0) return false;
  systemCalls().close(descriptor);
  return true;
}

bool emptyFile(const Directory& directory, const EntryName& name) {
  // Asked before opening: where locks are the process's, closing would drop those of the openers.
  struct stat status = {};
  if (!regularFileStatus(directory, name, &status)) return false;
  if (findEntry(status.st_dev, status.st_ino) != nullptr) return false;

  const int descriptor = openRegularFile(directory, name, O_WRONLY, &status);
  if (descriptor < 0) return false;
  if (FileEntry* entry = findEntry(status.st_dev, status.st_ino); entry != nullptr) {
    keepDescriptor(entry, descriptor);
    return false;
  }
  const bool emptied = lockAndEmpty(descriptor);
  systemCalls().close(descriptor);
  return emptied;
}

bool isEmptyFile(const Directory& directory, const EntryName& name) {
  struct stat status = {};
  return regularFileStatus(directory, name, &status) && status.st_size == 0;
}

}  // namespace qvdbase::platform
