// Locks on the bytes after every file.
#include "platform/handles/lock_bytes.h"

#include <atomic>
#include <cassert>
#include <memory>
#include <optional>

#include "platform/handles/look_count.h"
#include "platform/handles/open_files.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"

namespace qvdbase::platform {
namespace {

struct flock lockOf(LockByte byte, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = kFirstLockByte + static_cast<int64_t>(byte);
  lock.l_len = 1;
  return lock;
}

LockOutcome setLock(int descriptor, LockByte byte, short type) {
  struct flock lock = lockOf(byte, type);
  if (uninterrupted([&] { return systemCalls().setLock(descriptor, &lock); }) == 0) {
    return LockOutcome::taken;
  }
  return errno == EACCES || errno == EAGAIN ? LockOutcome::refused : LockOutcome::impossible;
}

// Shared locks are on the descriptor for reading only where there is one: it stays as long as the
// entry, while the other may come and be replaced. So a lock is given up where it was taken.
int descriptorFor(const FileEntry& entry, Sharing strength) {
  if (strength == Sharing::exclusive || entry.readOnly < 0) return entry.readWrite;
  return entry.readOnly;
}

// The entry of an open file that has its locks, with its turn: of a view that of its file.
class LockedEntry {
 public:
  explicit LockedEntry(int16_t file) : turn_(file) {
    const OpenFile* openFile = findOpenFile(file);
    if (openFile == nullptr) return;
    entry_ = openFile->entry;
    if (entry_->source == nullptr) return;
    entry_ = entry_->source;
    turnOfSource_.emplace(*entry_->turn);
  }

  explicit operator bool() const { return entry_ != nullptr; }
  FileEntry* operator->() const { return entry_; }
  FileEntry& operator*() const { return *entry_; }

 private:
  const Turn turn_;
  std::optional<Turn> turnOfSource_;
  FileEntry* entry_ = nullptr;
};

LockBytesHeld& lockBytesOf(FileEntry& entry) {
  return (entry.source != nullptr ? entry.source : &entry)->lockBytes;
}

// Whether another opener is known to hold a lock that conflicts with this one.
bool isKnownToBeHeld(int descriptor, struct flock lock) {
  const int result = uninterrupted([&] { return systemCalls().findLock(descriptor, &lock); });
  return result == 0 && lock.l_type != F_UNLCK;
}

// Where the host does not answer this question, the lock itself decides.
bool isGateClosed(int descriptor) {
  return isKnownToBeHeld(descriptor, lockOf(LockByte::gate, F_RDLCK));
}

// Whether another opener holds a lock that conflicts with this one; what cannot be found out counts
// as held.
bool isHeld(int descriptor, struct flock lock) {
  if (uninterrupted([&] { return systemCalls().findLock(descriptor, &lock); }) != 0) return true;
  return lock.l_type != F_UNLCK;
}

// The same, where what cannot be found out counts as not held.
bool isSeenHeld(int descriptor, struct flock lock) {
  if (uninterrupted([&] { return systemCalls().findLock(descriptor, &lock); }) != 0) return false;
  return lock.l_type != F_UNLCK;
}

// Puts a new description of the file in the place of the one for reading.
bool openForReaders(FileEntry* entry, const std::string& path) {
  Directory folder;
  const std::unique_ptr<EntryName> name = walkToParent(path, &folder);
  if (name == nullptr || folder.descriptor() < 0) return false;
  struct stat status = {};
  const int descriptor = openRegularFile(folder, *name, O_RDONLY, &status);
  if (descriptor < 0) return false;
  const bool isSame = status.st_dev == entry->device && status.st_ino == entry->inode;
  if (isSame && entry->readOnly < 0) {
    entry->readOnly = descriptor;
    return true;
  }
  const bool isReplaced =
      isSame && systemCalls().replaceDescriptor(descriptor, entry->readOnly) >= 0;
  systemCalls().close(descriptor);
  return isReplaced;
}

bool isAnotherNext(const FileEntry& entry) {
  return entry.lockBytes.nextOwner != nullptr ||
         isKnownToBeHeld(entry.readWrite, lockOf(LockByte::next, F_WRLCK));
}

}  // namespace

LockOutcome takeLockByte(int16_t file, LockByte byte, Sharing strength) {
  const LockedEntry entry(file);
  if (!entry) return LockOutcome::impossible;
  const short type = strength == Sharing::exclusive ? F_WRLCK : F_RDLCK;
  const LockOutcome outcome = setLock(descriptorFor(*entry, strength), byte, type);
  if (byte == LockByte::change && outcome == LockOutcome::taken) noteHeldAgain(Held::changeByte);
  return outcome;
}

void releaseLockByte(int16_t file, LockByte byte, Sharing strength) {
  if (byte == LockByte::change) noteGivenUp(Held::changeByte);
  const LockedEntry entry(file);
  if (entry) setLock(descriptorFor(*entry, strength), byte, F_UNLCK);
}

bool isLockByteHeld(int16_t file, LockByte byte) {
  const LockedEntry entry(file);
  return entry && isHeld(descriptorOf(*entry), lockOf(byte, F_WRLCK));
}

bool isReaderWaiting(int16_t file) {
  const LockedEntry entry(file);
  return entry && isSeenHeld(descriptorOf(*entry), lockOf(LockByte::waiting, F_WRLCK));
}

LockOutcome takeLook(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return LockOutcome::impossible;
  noteHeldAgain(Held::changeByte);
  LockBytesHeld& held = lockBytesOf(*openFile->entry);
  LookCount looks(held.looks);
  if (looks.join()) return LockOutcome::taken;
  if (looks.lasting() == 0) held.lookedOn = descriptorFor(*openFile->entry, Sharing::shared);
  LockOutcome outcome = LockOutcome::taken;
  if (isGateClosed(held.lookedOn)) {
    outcome = LockOutcome::refused;
  } else if (looks.lasting() == 0) {
    outcome = setLock(held.lookedOn, LockByte::change, F_RDLCK);
  }
  looks.settle(outcome == LockOutcome::taken);
  if (outcome != LockOutcome::taken) noteGivenUp(Held::changeByte);
  return outcome;
}

void releaseLook(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return;
  noteGivenUp(Held::changeByte);
  LockBytesHeld& held = lockBytesOf(*openFile->entry);
  LookCount looks(held.looks);
  if (looks.leave()) return;
  setLock(held.lookedOn, LockByte::change, F_UNLCK);
  looks.empty();
}

void askForLook(int16_t file) {
  if (const OpenFile* openFile = findOpenFile(file)) {
    setLock(descriptorFor(*openFile->entry, Sharing::shared), LockByte::waiting, F_RDLCK);
  }
}

void stopAskingForLook(int16_t file) {
  if (const OpenFile* openFile = findOpenFile(file)) {
    setLock(descriptorFor(*openFile->entry, Sharing::shared), LockByte::waiting, F_UNLCK);
  }
}

bool announceReader(int16_t file) {
  const LockedEntry entry(file);
  if (!entry) return false;
  LockBytesHeld& held = entry->lockBytes;
  if (held.announced == 0) {
    std::atomic_ref(held.announcedOn).store(descriptorFor(*entry, Sharing::shared));
    held.announcer = ProcessMark();
    if (setLock(held.announcedOn, LockByte::reader, F_RDLCK) != LockOutcome::taken) return false;
  }
  ++std::atomic_ref(held.announced);
  return true;
}

// A lock that another process may hold together with this one goes with the last descriptor.
void withdrawReader(int16_t file) {
  const LockedEntry entry(file);
  if (!entry || entry->lockBytes.announced == 0) return;
  const LockBytesHeld& held = entry->lockBytes;
  if (--std::atomic_ref(entry->lockBytes.announced) > 0 || held.announcer.maybeShared()) return;
  setLock(held.announcedOn, LockByte::reader, F_UNLCK);
}

void renewAnnouncement(int16_t file) {
  if (locksPassToChildren()) return;
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return;
  // Without the turn: a view does not wait for what the file's own opener is doing. The descriptor
  // stays the one it is for as long as any reader is announced.
  LockBytesHeld& held = lockBytesOf(*openFile->entry);
  if (std::atomic_ref(held.announced).load() == 0) return;
  setLock(std::atomic_ref(held.announcedOn).load(), LockByte::reader, F_RDLCK);
}

void carryAnnouncement(const FileEntry& entry, int descriptor) {
  if (entry.lockBytes.announced == 0 || entry.lockBytes.announcedOn != entry.readWrite) return;
  setLock(descriptor, LockByte::reader, F_RDLCK);
}

bool separateReaders(int16_t file, const std::string& path) {
  const LockedEntry entry(file);
  if (!entry) return false;
  if (entry->lockBytes.forkDepth != forkDepth()) {
    if (locksPassToChildren() && !openForReaders(&*entry, path)) return false;
    entry->lockBytes = {};
    entry->lockBytes.forkDepth = forkDepth();
  }
  OpenFile* openFile = &detail::openFiles[file];
  FileEntry& own = *openFile->entry;  // a view has the descriptor of its source
  if (own.source != nullptr) own.readOnly = descriptorFor(*entry, Sharing::shared);
  // Of a call that a thread of the parent's was at.
  openFile->served = {};
  openFile->mirror = nullptr;
  return true;
}

bool isOpenForWritingElsewhere(int16_t file) {
  const LockedEntry entry(file);
  if (!entry) return false;
  // The lock that a child has got from its parent is the parent's.
  const bool isOwn = entry->locker.isStillOwn();
  if (isOwn && entry->exclusiveOpeners > 0) return false;
  const int descriptor = isOwn ? descriptorOf(*entry) : descriptorFor(*entry, Sharing::shared);
  return isHeld(descriptor, fileLock(Sharing::exclusive));
}

LockOutcome takeWritersTurn(int16_t file, const void* owner) {
  const LockedEntry entry(file);
  if (!entry) return LockOutcome::impossible;
  LockBytesHeld& held = entry->lockBytes;
  if (held.turnOwner == owner) return LockOutcome::taken;
  assert(mayTake(Held::change) && "a turn of writers is wanted within a change or a look");
  if (held.nextOwner != owner && isAnotherNext(*entry)) return LockOutcome::refused;
  LockOutcome outcome = LockOutcome::refused;
  if (held.turnOwner == nullptr) {
    outcome = setLock(entry->readWrite, LockByte::turn, F_WRLCK);
  }
  if (outcome == LockOutcome::taken) held.turnOwner = owner;
  if (outcome != LockOutcome::refused) {
    stopWaitingForTurn(file, owner);
  } else if (held.nextOwner == nullptr &&
             setLock(entry->readWrite, LockByte::next, F_WRLCK) == LockOutcome::taken) {
    held.nextOwner = owner;
  }
  return outcome;
}

void stopWaitingForTurn(int16_t file, const void* owner) {
  const LockedEntry entry(file);
  if (!entry || entry->lockBytes.nextOwner != owner) return;
  entry->lockBytes.nextOwner = nullptr;
  setLock(entry->readWrite, LockByte::next, F_UNLCK);
}

void releaseWritersTurn(int16_t file, const void* owner) {
  const LockedEntry entry(file);
  if (!entry || entry->lockBytes.turnOwner != owner) return;
  entry->lockBytes.turnOwner = nullptr;
  releaseLockByte(file, LockByte::turn, Sharing::exclusive);
}

}  // namespace qvdbase::platform
