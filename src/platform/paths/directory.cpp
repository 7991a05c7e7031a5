// Walking from directory to directory.
#include "platform/paths/directory.h"

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"

namespace qvdbase::platform {
namespace {

// To pass through a directory takes only the right to search it, not to list it.
#if defined(O_PATH) && !defined(QVDBASE_PORTABLE_POSIX)
constexpr int kSearch = O_PATH;
#elif defined(O_SEARCH)
constexpr int kSearch = O_SEARCH;
#else
constexpr int kSearch = O_RDONLY;
#endif

constexpr mode_t kDirectoryMode = 0777;  // less what the process masks out

int openDirectory(int from, const char* name, int more = 0) {
  constexpr int kFlags = kSearch | O_DIRECTORY | O_CLOEXEC;
  return uninterrupted([&] { return systemCalls().openAt(from, name, kFlags | more, 0); });
}

FSRef refOf(const struct stat& status) {
  FSRef ref = {};
  ref.device = static_cast<uint64_t>(status.st_dev);
  ref.inode = static_cast<uint64_t>(status.st_ino);
  return ref;
}

}  // namespace

Directory::~Directory() {
  if (descriptor_ >= 0) systemCalls().close(descriptor_);
}

bool Directory::moveTo(int descriptor) {
  if (descriptor < 0) return false;
  if (descriptor_ >= 0) systemCalls().close(descriptor_);
  descriptor_ = descriptor;
  isLeaf_ = false;
  return true;
}

bool Directory::moveToLeaf(const EntryName& name) {
  struct stat status = {};
  if (systemCalls().statusAt(descriptor_, name.bytes(), &status, 0) != 0) return false;
  systemCalls().close(descriptor_);
  descriptor_ = -1;
  isLeaf_ = true;
  leaf_ = refOf(status);
  return true;
}

bool Directory::enterRoot() {
  return moveTo(openDirectory(AT_FDCWD, "/"));
}

bool Directory::enter(const EntryName& name) {
  if (descriptor_ < 0 || !name.isValid()) return false;
  if (name.isEmpty()) return true;
  const int next = openDirectory(descriptor_, name.bytes());
  if (next < 0 && errno == ENOTDIR) return moveToLeaf(name);
  return moveTo(next);
}

bool Directory::enterNoLink(const EntryName& name) {
  if (descriptor_ < 0 || !name.isValid() || name.isEmpty()) return false;
  return moveTo(openDirectory(descriptor_, name.bytes(), O_NOFOLLOW));
}

bool Directory::enterOpen(int descriptor) {
  return moveTo(openDirectory(descriptor, "."));
}

bool Directory::makeDirectory(const EntryName& name) const {
  if (descriptor_ < 0 || !name.isValid()) return false;
  if (systemCalls().makeDirectoryAt(descriptor_, name.bytes(), kDirectoryMode) == 0) return true;
  if (errno != EEXIST) noteHostFailure();
  return false;
}

bool Directory::identify(FSRef* ref) const {
  if (isLeaf_) {
    *ref = leaf_;
    return true;
  }
  struct stat status = {};
  if (descriptor_ < 0 || systemCalls().status(descriptor_, &status) != 0) return false;
  *ref = refOf(status);
  return true;
}

}  // namespace qvdbase::platform
