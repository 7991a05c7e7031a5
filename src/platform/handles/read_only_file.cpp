// Read-only files join the process's entry of the file like every opener: a descriptor of their own
// would, where locks belong to the process, take the locks of the others with it when it closes.
// Block devices, on which no database is opened, have one of their own.
#include "platform/handles/read_only_file.h"

#include <memory>

#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"
#include "platform/transfer/plain_transfer.h"

namespace qvdbase::platform {
namespace {

// Without O_NONBLOCK: with it, a drive that holds no medium opens too, as an empty one.
int openBlockDevice(const Directory& directory, const EntryName& name) {
  struct stat status = {};
  if (directory.descriptor() < 0 || !name.isValid()) return -1;
  const int found = systemCalls().statusAt(directory.descriptor(), name.bytes(), &status, 0);
  if (found != 0 || !S_ISBLK(status.st_mode)) return -1;
  const int descriptor = uninterrupted([&] {
    return systemCalls().openAt(directory.descriptor(), name.bytes(), O_RDONLY | O_CLOEXEC, 0);
  });
  if (descriptor < 0) return -1;
  if (systemCalls().status(descriptor, &status) == 0 && S_ISBLK(status.st_mode)) return descriptor;
  systemCalls().close(descriptor);
  return -1;
}

}  // namespace

PathKind kindOfPath(const std::string& path) {
  Directory directory;
  const std::unique_ptr<EntryName> name = walkToParent(path, &directory);
  if (!name) return path == "/" ? PathKind::somethingElse : PathKind::nothing;
  struct stat status = {};
  const int found = systemCalls().statusAt(directory.descriptor(), name->bytes(), &status, 0);
  if (found != 0) return PathKind::nothing;
  if (S_ISBLK(status.st_mode)) return PathKind::blockDevice;
  return S_ISREG(status.st_mode) ? PathKind::regularFile : PathKind::somethingElse;
}

ReadOnlyFile::~ReadOnlyFile() {
  if (entry_ != nullptr) leaveEntry(entry_, Sharing::none);
  if (device_ >= 0) systemCalls().close(device_);
}

bool ReadOnlyFile::open(const std::string& path) {
  Directory directory;
  const std::unique_ptr<EntryName> name = walkToParent(path, &directory);
  if (isOpen() || !name) return false;
  FileEntry* entry = joinEntry(directory, *name, Sharing::none);
  if (entry != nullptr) use(entry);
  if (entry == nullptr) device_ = openBlockDevice(directory, *name);
  return isOpen();
}

void ReadOnlyFile::share(FileEntry* entry) {
  addReader(entry);
  use(entry);
}

// The descriptor that an entry reads through may be another one later; this one stays open.
void ReadOnlyFile::use(FileEntry* entry) {
  const Turn turn(*entry->turn);
  entry_ = entry;
  descriptor_ = descriptorOf(*entry);
}

size_t ReadOnlyFile::readAt(int64_t position, void* buffer, size_t count) const {
  bool failed = false;
  return readPlain(descriptor(), position, buffer, count, &failed);
}

bool ReadOnlyFile::nextHole(int64_t position, int64_t size, FileHole* hole) const {
  const off_t begin = systemCalls().nextHole(descriptor(), position);
  if (begin < position || begin >= size) return false;
  const off_t end = systemCalls().nextStored(descriptor(), begin);
  *hole = {begin, end > begin && end < size ? end : size};  // no bytes after the last hole
  return true;
}

bool ReadOnlyFile::stamp(FileStamp* stamp) const {
  if (!stampOfDescriptor(descriptor(), stamp)) return false;
  if (device_ < 0) return true;
  *stamp = {systemCalls().lengthOf(device_), 0, 0};  // its status has no size
  return stamp->size >= 0;
}

bool ReadOnlyFile::isLockedByOthers() const {
  struct flock lock = fileLock(Sharing::exclusive);  // conflicts with locks of either strength
  if (systemCalls().findLock(descriptor(), &lock) != 0) return false;
  return lock.l_type != F_UNLCK;
}

std::optional<LockHolder> ReadOnlyFile::writer() const {
  struct stat status = {};
  if (isLockedByOthers() && systemCalls().status(descriptor(), &status) == 0) {
    return holderOf(descriptor(), status, Sharing::exclusive);
  }
  if (entry_ == nullptr) return std::nullopt;
  const Turn turn(*entry_->turn);
  if (entry_->sharedOpeners + entry_->exclusiveOpeners == 0) return std::nullopt;
  LockHolder holder;
  holder.isThisProcess = true;
  return holder;
}

}  // namespace qvdbase::platform
