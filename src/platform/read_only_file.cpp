// Read-only files join the process's entry of the file like every opener: a descriptor of their own
// would, where locks belong to the process, take the locks of the others with it when it closes.
#include "platform/read_only_file.h"

#include <algorithm>
#include <vector>

#include "platform/system_calls.h"

namespace qvdbase::platform {
namespace {

constexpr size_t kLargestTransfer = size_t{1} << 30;  // below the limit of every host

int64_t nanoseconds(const struct timespec& time) {
  return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

bool nameFrom(const std::string& component, std::vector<QVWCHAR>* name) {
  name->assign(component.size() + 1, 0);
  return utf16FromUtf8(component.data(), component.size(), name->data(), name->size());
}

// Walks to the directory of the path's last component and hands that component over.
bool walkToParent(const std::string& path, Directory* directory, std::string* last) {
  if (path.empty() || path.front() != '/' || !directory->enterRoot()) return false;
  std::vector<QVWCHAR> name;
  size_t start = 1;
  for (size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
    if (!nameFrom(path.substr(start, slash - start), &name)) return false;
    const EntryName entry(name.data());
    if (!entry.isValid() || !directory->enter(entry)) return false;
  }
  *last = path.substr(start);
  return !last->empty();
}

}  // namespace

PathKind kindOfPath(const std::string& path) {
  Directory directory;
  std::string last;
  std::vector<QVWCHAR> name;
  if (!walkToParent(path, &directory, &last) || !nameFrom(last, &name)) {
    return path == "/" ? PathKind::somethingElse : PathKind::nothing;
  }
  const EntryName entry(name.data());
  struct stat status = {};
  if (!entry.isValid() ||
      systemCalls().statusAt(directory.descriptor(), entry.bytes(), &status, 0) != 0) {
    return PathKind::nothing;
  }
  return S_ISREG(status.st_mode) ? PathKind::regularFile : PathKind::somethingElse;
}

ReadOnlyFile::~ReadOnlyFile() {
  if (entry_ != nullptr) leaveEntry(entry_, Sharing::none);
}

bool ReadOnlyFile::open(const std::string& path) {
  Directory directory;
  std::string last;
  std::vector<QVWCHAR> name;
  if (isOpen() || !walkToParent(path, &directory, &last) || !nameFrom(last, &name)) return false;
  const EntryName entry(name.data());
  if (!entry.isValid()) return false;
  entry_ = joinEntry(directory, entry, Sharing::none);
  return isOpen();
}

size_t ReadOnlyFile::readAt(int64_t position, void* buffer, size_t count) const {
  size_t done = 0;
  while (done < count) {
    const size_t part = std::min(count - done, kLargestTransfer);
    const ssize_t moved = uninterrupted([&] {
      return systemCalls().readAt(descriptorOf(*entry_), static_cast<char*>(buffer) + done, part,
                                  position + static_cast<int64_t>(done));
    });
    if (moved <= 0) break;
    done += static_cast<size_t>(moved);
  }
  return done;
}

bool ReadOnlyFile::stamp(FileStamp* stamp) const {
  struct stat status = {};
  if (systemCalls().status(descriptorOf(*entry_), &status) != 0) return false;
  *stamp = {status.st_size, nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
  return true;
}

bool ReadOnlyFile::isLockedByOthers() const {
  struct flock lock = {};
  lock.l_type = F_WRLCK;  // meets locks of either strength
  lock.l_whence = SEEK_SET;
  if (systemCalls().findLock(descriptorOf(*entry_), &lock) != 0) return false;
  return lock.l_type != F_UNLCK;
}

}  // namespace qvdbase::platform
