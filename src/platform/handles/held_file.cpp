// Holding a file that is going to be replaced.
#include "platform/handles/held_file.h"

#include <memory>
#include <utility>
#include <vector>

#include "platform/handles/lock_trial.h"
#include "platform/handles/open_files.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"

namespace qvdbase::platform {
namespace {

OpenFailureFound whyNot(const std::string& path) {
  std::vector<QVWCHAR> wide(path.size() + 1);
  if (!utf16FromUtf8(path.data(), path.size(), wide.data(), wide.size())) {
    return {OpenFailure::other, {}};
  }
  const OpenFailureFound found = findOpenFailure(wide.data(), kOneWriter);
  if (found.failure == OpenFailure::none) return {OpenFailure::inUse, {}};
  return found;
}

}  // namespace

HeldFile::~HeldFile() {
  if (entry_ != nullptr) leaveEntry(entry_, sharing_);
}

OpenFailureFound HeldFile::hold(const std::string& path) {
  Directory folder;
  const std::unique_ptr<EntryName> name = walkToParent(path, &folder);
  if (!name || !join(folder, *name)) return whyNot(path);
  const char* fileSystem = fileSystemWithoutLocks(*entry_, folder, *name);
  if (fileSystem == nullptr) return {};
  leaveEntry(std::exchange(entry_, nullptr), sharing_);
  return lockWithoutEffect(fileSystem);
}

bool HeldFile::lookAt(const std::string& path) {
  Directory folder;
  const std::unique_ptr<EntryName> name = walkToParent(path, &folder);
  if (!name) return false;
  sharing_ = Sharing::none;
  entry_ = joinEntry(folder, *name, sharing_);
  return entry_ != nullptr;
}

bool HeldFile::holdOpen(int16_t file) {
  const Turn turn(file);
  const OpenFile* const open = findOpenFile(file);
  if (open == nullptr) return false;
  sharing_ = Sharing::none;
  entry_ = open->entry;
  addReader(entry_);
  return true;
}

OpenFailureFound HeldFile::holdEntry(const Directory& folder, const EntryName& name) {
  struct stat status = {};
  if (systemCalls().statusAt(folder.descriptor(), name.bytes(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return {OpenFailure::fileMissing, {}};
  if (S_ISLNK(status.st_mode)) return {OpenFailure::fileMissing, {}};
  if (!S_ISREG(status.st_mode)) return {OpenFailure::notAFile, {}};
  errno = 0;
  if (join(folder, name)) return {};
  const bool isDenied = errno == EACCES || errno == EPERM;
  if (isDenied) return {OpenFailure::accessDenied, {}};
  return {OpenFailure::inUse, {}, findOpenFailureAt(folder, name, kOneWriter).holder};
}

// False also when others in this process write to it.
bool HeldFile::join(const Directory& folder, const EntryName& name) {
  FileEntry* entry = joinEntry(folder, name, Sharing::exclusive);
  if (entry == nullptr) return false;
  const Turn turn(*entry->turn);
  if (entry->sharedOpeners + entry->exclusiveOpeners > 1) {
    leaveEntry(entry, Sharing::exclusive);
    return false;
  }
  entry_ = entry;
  return true;
}

bool HeldFile::isReadHere() const {
  const Turn turn(*entry_->turn);
  return entry_->openers > 1;
}

uint64_t HeldFile::nameCount() const {
  struct stat status = {};
  if (systemCalls().status(descriptorOf(*entry_), &status) != 0) return 0;
  return static_cast<uint64_t>(status.st_nlink);
}

bool HeldFile::isNamed(const Directory& folder, const EntryName& name) const {
  return lookAtLink(folder.descriptor(), name.bytes(), *entry_) == NameOf::thisFile;
}

}  // namespace qvdbase::platform
