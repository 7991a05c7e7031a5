// Making files and emptying them.
#include "platform/handles/file_creation.h"

#include "platform/handles/file_entries.h"
#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"

namespace qvdbase::platform {
namespace {

constexpr mode_t kFileMode = 0666;  // less what the process masks out

// Locking comes first: what another process writes under its lock must not be cut off. Then the
// name is looked at, for a file that another one has replaced is not the one to empty.
bool lockAndEmpty(const Directory& directory, const EntryName& name, int descriptor,
                  const struct stat& status, bool* wasReplaced) {
  const bool isLocked = setFileLock(descriptor, Sharing::exclusive);
  const NameOf found = lookAtName(directory, name, status.st_dev, status.st_ino);
  *wasReplaced = found == NameOf::anotherOrNone;
  if (!isLocked || found != NameOf::thisFile) return false;
  return uninterrupted([&] { return systemCalls().truncate(descriptor, 0); }) == 0;
}

// One try. *wasReplaced is set when it failed because the name is another file's by now.
bool tryToEmpty(const Directory& directory, const EntryName& name, bool* wasReplaced) {
  // Asked before opening: where locks are the process's, closing would drop those of the openers.
  struct stat status = {};
  if (!regularFileStatus(directory, name, &status)) return false;
  if (findEntry(status.st_dev, status.st_ino) != nullptr) return false;

  const int descriptor = openRegularFile(directory, name, O_WRONLY, &status);
  if (descriptor < 0) return false;
  const ClosedFile file(status);
  if (file.opened() != nullptr) {
    keepDescriptor(file.opened(), descriptor);
    return false;
  }
  const bool emptied = lockAndEmpty(directory, name, descriptor, status, wasReplaced);
  systemCalls().close(descriptor);
  return emptied;
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
  if (descriptor < 0) {
    noteHostFailure();
    return false;
  }
  systemCalls().close(descriptor);
  return true;
}

int createOpenFile(const Directory& directory, const EntryName& name, mode_t mode) {
  if (directory.descriptor() < 0 || !name.isValid()) return -1;
  constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
  return uninterrupted(
      [&] { return systemCalls().openAt(directory.descriptor(), name.bytes(), flags, mode); });
}

bool emptyFile(const Directory& directory, const EntryName& name) {
  for (int i = 0; i < kOpeningTries; ++i) {
    bool wasReplaced = false;
    if (tryToEmpty(directory, name, &wasReplaced)) return true;
    if (!wasReplaced) return false;
  }
  return false;
}

bool isEmptyFile(const Directory& directory, const EntryName& name) {
  struct stat status = {};
  return regularFileStatus(directory, name, &status) && status.st_size == 0;
}

}  // namespace qvdbase::platform
