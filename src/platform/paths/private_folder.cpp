// Making and removing the folder.
#include "platform/paths/private_folder.h"

#include <memory>

#include "platform/handles/file_creation.h"
#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"
#include "platform/paths/temporary_name.h"

namespace qvdbase::platform {
namespace {

constexpr mode_t kMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kOfOthers = 0077;
constexpr mode_t kWritableByOthers = 0022;
constexpr uid_t kSuperuser = 0;

bool isForWantOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE;
}

// Whether only `owner` and the superuser can rename what is in the directory.
bool isSafe(const Directory& directory, uid_t owner) {
  struct stat status = {};
  if (systemCalls().status(directory.descriptor(), &status) != 0) return false;
  const bool isTrusted = status.st_uid == owner || status.st_uid == kSuperuser;
  const bool isKept = (status.st_mode & kWritableByOthers) == 0 || (status.st_mode & S_ISVTX) != 0;
  return isTrusted && isKept;
}

// The same for every directory before the last component of the path.
bool isWaySafe(const std::string& path, uid_t owner) {
  Directory directory;
  if (!directory.enterRoot() || !isSafe(directory, owner)) return false;
  const std::string_view all = path;
  size_t start = 1;
  for (size_t slash; (slash = all.find('/', start)) != all.npos; start = slash + 1) {
    const EntryName name(all.substr(start, slash - start));
    if (!directory.enterNoLink(name) || !isSafe(directory, owner)) return false;
  }
  return true;
}

}  // namespace

PrivateFolder::~PrivateFolder() {
  if (!maker_.isOwn()) return;
  if (isOpen_) systemCalls().removeAt(folder_.descriptor(), kFileName, 0);
  if (!name_.empty()) systemCalls().removeAt(parent_.descriptor(), name_.c_str(), AT_REMOVEDIR);
}

bool PrivateFolder::make(const std::string& place) {
  std::string name;
  const bool isMade =
      walkToParent(place, &parent_) != nullptr &&
      makeUnderTemporaryName(&name, [&](const char* each) {
        return systemCalls().makeDirectoryAt(parent_.descriptor(), each, kMode) == 0;
      });
  if (!isMade) return fail();
  name_ = name;
  filePath_ = place.substr(0, place.rfind('/') + 1) + name + "/" + kFileName;
  const bool isEntered = folder_.enterOpen(parent_.descriptor()) &&
                         folder_.enterNoLink(EntryName(std::string_view(name_)));
  if (!isEntered || !isOurs()) return fail();
  isOpen_ = true;
  return choosePath(place) || fail();
}

bool PrivateFolder::fail() {
  noteHostFailure();
  return false;
}

// Between making and opening, its name can be given to another folder. Ours has the owner of a file
// that we make, and is closed to others unless the file system leaves every file open to them.
bool PrivateFolder::isOurs() {
  const EntryName name{std::string_view(kFileName)};
  const int file = createOpenFile(folder_, name, kFileMode);
  if (file < 0) return false;
  struct stat made = {};
  struct stat folder = {};
  const bool isKnown = systemCalls().status(file, &made) == 0 &&
                       systemCalls().status(folder_.descriptor(), &folder) == 0;
  const int error = errno;
  systemCalls().close(file);
  systemCalls().removeAt(folder_.descriptor(), kFileName, 0);
  errno = error;
  if (!isKnown) return false;
  owner_ = made.st_uid;
  const bool isClosed = (folder.st_mode & kOfOthers) == 0 || (made.st_mode & kOfOthers) != 0;
  if (isClosed && folder.st_uid == made.st_uid) return true;
  errno = EACCES;
  return false;
}

bool PrivateFolder::choosePath(const std::string& place) {
  routinePath_ = "/proc/self/fd/" + std::to_string(folder_.descriptor()) + "/" + kFileName;
  errno = 0;
  if (isReachedThrough(routinePath_)) return true;
  if (!isForWantOfDescriptors(errno)) {
    routinePath_ = filePath_;
    if (isReachedThrough(filePath_) && isWaySafe(place, owner_)) return true;
  }
  if (isForWantOfDescriptors(errno)) return false;  // then nothing is known of the path
  isExposed_ = true;
  errno = EACCES;
  return false;
}

bool PrivateFolder::isReachedThrough(const std::string& path) const {
  Directory directory;
  FSRef found = {};
  FSRef wanted = {};
  return walkToParent(path, &directory) != nullptr && directory.identify(&found) &&
         folder_.identify(&wanted) && found.device == wanted.device && found.inode == wanted.inode;
}

FileEntry* PrivateFolder::joinFile() const {
  return joinEntry(folder_, EntryName(std::string_view(kFileName)), Sharing::exclusive);
}

}  // namespace qvdbase::platform
