// The entries of the open files: descriptors, locks, and who shares with whom.
#include "platform/handles/file_entries.h"

#include <algorithm>
#include <new>

#include "platform/handles/file_views.h"
#include "platform/handles/lock_bytes.h"
#include "platform/host/memory.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/mirror.h"

#if !defined(QVDBASE_NO_THREADS)
#include <pthread.h>
#endif

namespace qvdbase::platform {

struct SurplusDescriptor {
  int descriptor;
  SurplusDescriptor* next;
};

namespace {

// Never destroyed: static objects of the application may still close files in their destructors.
constinit FileEntry* firstEntry = nullptr;

// A FIFO or a terminal under the name must neither block the call nor become ours.
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// A read that follows a write makes the host store a new time of access in the file's inode, which
// costs more than the read. Where the host lets the owner do without, we do; others get EPERM.
#if defined(O_NOATIME) && !defined(QVDBASE_PORTABLE_POSIX)
constexpr int kNoAccessTime = O_NOATIME;
#else
constexpr int kNoAccessTime = 0;
#endif

// An entry that is not in the list yet.
FileEntry newEntry(const struct stat& status) {
  FileEntry entry = {};  // marked as this process's
  entry.device = status.st_dev;
  entry.inode = status.st_ino;
  entry.readWrite = -1;
  entry.readOnly = -1;
  entry.lockBytes.forkDepth = forkDepth();
  return entry;
}

FileEntry* entryOf(dev_t device, ino_t inode) {
  FileEntry* entry = firstEntry;
  while (entry != nullptr && (entry->device != device || entry->inode != inode)) {
    entry = entry->next;
  }
  return entry;
}

// The file's entry with its turn, made if there is none. Null when there is no memory for it.
FileEntry* enterOrAdd(const struct stat& status, EntryTurn* turn) {
  if (FileEntry* entry = turn->find(status.st_dev, status.st_ino)) return entry;
  void* memory = allocate(sizeof(FileEntry));
  if (memory == nullptr) return nullptr;
  auto* fresh = new (memory) FileEntry(newEntry(status));
  FileEntry* entry = turn->findOrAdd(fresh);
  if (entry != fresh) release(fresh);
  return entry;
}

// Takes the entry out of the list. Its turn stays with whoever has it.
void unlinkEntry(FileEntry* entry) {
  {
    const SharedLock lock(Shared::handles);
    FileEntry** link = &firstEntry;
    while (*link != entry) link = &(*link)->next;
    *link = entry->next;
  }
  releaseTurn(*entry->turn);
}

// A close that a signal interrupts has closed: to repeat it could hit another file.
bool closeDescriptor(int descriptor) {
  return descriptor < 0 || systemCalls().close(descriptor) == 0 || errno == EINTR;
}

// The entry goes last: who finds it waits for its turn, and opens the file when this has closed it.
bool removeEntry(FileEntry* entry) {
  // The lock goes with the descriptors. It is not cleared by a call of its own: a process made by
  // fork that closes a file it inherited would take the lock from its parent.
  bool closed = true;
  dropMirror(entry);
  for (SurplusDescriptor* surplus = entry->surplus; surplus != nullptr;) {
    SurplusDescriptor* next = surplus->next;
    closed &= closeDescriptor(surplus->descriptor);
    release(surplus);
    surplus = next;
  }
  closed &= closeDescriptor(entry->readOnly);
  closed &= closeDescriptor(entry->readWrite);
  unlinkEntry(entry);
  release(entry);
  return closed;
}

// The descriptor is that of the file's entry, which may go now.
bool removeView(FileEntry* view) {
  FileEntry* source = view->source;
  releaseTurn(*view->turn);
  release(view);
  const Turn turn(*source->turn);
  --source->views;
  return leaveEntry(source, Sharing::none);
}

Sharing strongestNeed(const FileEntry& entry) {
  if (entry.exclusiveOpeners > 0) return Sharing::exclusive;
  return entry.sharedOpeners > 0 ? Sharing::shared : Sharing::none;
}

// Whether another process may hold the lock together with this one, or in its place.
bool mayBelongToOthers(const FileEntry& entry) {
  return locksPassToChildren() ? entry.locker.maybeShared() : !entry.locker.isOwn();
}

bool changeLock(FileEntry* entry, Sharing strength) {
  if (strength == entry->lock) return true;
  if (!setFileLock(entry->readWrite, strength)) return false;
  entry->lock = strength;
  return true;
}

bool hasDescriptor(const FileEntry& entry, bool writable) {
  return entry.readWrite >= 0 || (!writable && entry.readOnly >= 0);
}

// The file's entry with its turn, made if there is none, with a descriptor of the wanted kind.
// *added says whether the entry got that descriptor just now.
FileEntry* entryWithDescriptor(const Directory& directory, const EntryName& name, bool writable,
                               EntryTurn* turn, bool* added) {
  *added = false;
  struct stat status = {};
  if (!regularFileStatus(directory, name, &status)) return nullptr;
  FileEntry* entry = turn->find(status.st_dev, status.st_ino);
  if (entry != nullptr && hasDescriptor(*entry, writable)) return entry;

  // The name may be that of another file by now: what counts is what was opened.
  const int descriptor = openRegularFile(directory, name, writable ? O_RDWR : O_RDONLY, &status);
  if (descriptor < 0) return nullptr;
  entry = enterOrAdd(status, turn);
  if (entry == nullptr) {
    closeDescriptor(descriptor);
    return nullptr;
  }
  int& place = writable ? entry->readWrite : entry->readOnly;
  if (place < 0) {
    place = descriptor;
    if (writable) entry->locker = ProcessMark();
    *added = true;
  } else {
    keepDescriptor(entry, descriptor);
  }
  return entry;
}

// Whether the lock is not this process's to rely on for one more opener.
bool needsLockOfItsOwn(const FileEntry& entry, Sharing sharing) {
  if (sharing == Sharing::none || !mayBelongToOthers(entry)) return false;
  return !entry.locker.isOwn() || sharing > entry.lock;
}

// Opens the entry's file once more, with a lock as strong as its openers need, and puts that in the
// place of the description that another process may share. It cannot be obtained while the shared
// lock is exclusive: whoever holds that excludes this process, too.
bool reopenWithLock(const Directory& directory, const EntryName& name, const FileEntry& entry) {
  struct stat status = {};
  const int descriptor = openRegularFile(directory, name, O_RDWR, &status);
  if (descriptor < 0) return false;
  const bool isSame = status.st_dev == entry.device && status.st_ino == entry.inode;
  if (isSame) carryAnnouncement(entry, descriptor);
  const bool replaced = isSame && setFileLock(descriptor, strongestNeed(entry)) &&
                        systemCalls().replaceDescriptor(descriptor, entry.readWrite) >= 0;
  closeDescriptor(descriptor);
  return replaced;
}

// Looks through views may have a lock on the description that is replaced.
bool takeLockOfItsOwn(const Directory& directory, const EntryName& name, FileEntry* entry) {
  const Sharing needed = strongestNeed(*entry);
  beginChange(entry);
  const bool taken = locksPassToChildren() ? reopenWithLock(directory, name, *entry)
                                           : setFileLock(entry->readWrite, needed);
  endChange(entry);
  if (!taken) return false;
  entry->lock = needed;
  entry->locker = ProcessMark();
  return true;
}

bool admit(const Directory& directory, const EntryName& name, FileEntry* entry, Sharing sharing) {
  if (sharing == Sharing::exclusive && entry->exclusiveOpeners > 0) return false;
  if (needsLockOfItsOwn(*entry, sharing) && !takeLockOfItsOwn(directory, name, entry)) return false;
  if (!changeLock(entry, std::max(entry->lock, sharing))) return false;
  ++entry->openers;
  if (sharing == Sharing::shared) ++entry->sharedOpeners;
  if (sharing == Sharing::exclusive) ++entry->exclusiveOpeners;
  return true;
}

void countOff(FileEntry* entry, Sharing sharing) {
  --entry->openers;
  if (sharing == Sharing::shared) --entry->sharedOpeners;
  if (sharing == Sharing::exclusive) --entry->exclusiveOpeners;
}

// Lets the lock fall back to what the openers need. One that does not weaken only keeps others out.
void relaxLock(FileEntry* entry) {
  if (!mayBelongToOthers(*entry)) changeLock(entry, strongestNeed(*entry));
}

// Undoes what was done for an opener that was not admitted.
void withdraw(FileEntry* entry, bool added) {
  if (entry->openers == 0) {
    removeEntry(entry);
  } else if (added) {
    // All who have the file open only read it: the lock is given up with the descriptor.
    closeDescriptor(entry->readWrite);
    entry->readWrite = -1;
    entry->lock = Sharing::none;
  } else {
    relaxLock(entry);
  }
}

// One try. *wasReplaced is set when it failed because the name is another file's by now.
FileEntry* tryToJoin(const Directory& directory, const EntryName& name, Sharing sharing,
                     bool* wasReplaced) {
  EntryTurn turn;
  bool added = false;
  FileEntry* entry = entryWithDescriptor(directory, name, sharing != Sharing::none, &turn, &added);
  if (entry == nullptr) return nullptr;
  const bool admitted = admit(directory, name, entry, sharing);
  if (sharing == Sharing::none && admitted) return entry;
  const NameOf found = lookAtName(directory, name, entry->device, entry->inode);
  if (admitted && found == NameOf::thisFile) return entry;
  *wasReplaced = found == NameOf::anotherOrNone;
  if (admitted) countOff(entry, sharing);
  withdraw(entry, added);
  return nullptr;
}

#if !defined(QVDBASE_NO_THREADS)
// The threads that looked through views, or made a change meanwhile, are not in the child.
void endLooksInChild() {
  for (FileEntry* entry = firstEntry; entry != nullptr; entry = entry->next) {
    entry->viewLooks = entry->lockBytes.looks = 0;
  }
  noteGivenUp(Held::change);
  noteGivenUp(Held::changeByte);
}

[[maybe_unused]] const int areEndedInChild = ::pthread_atfork(nullptr, nullptr, endLooksInChild);
#endif

}  // namespace

FileEntry* findEntry(dev_t device, ino_t inode) {
  const SharedLock lock(Shared::handles);
  return entryOf(device, inode);
}

// Looks again once it has the turn: meanwhile the entry may have gone.
FileEntry* EntryTurn::find(dev_t device, ino_t inode) {
  for (;;) {
    turn_.reset();
    FileTurn* found = nullptr;
    {
      const SharedLock lock(Shared::handles);
      entry_ = entryOf(device, inode);
      if (entry_ == nullptr) return nullptr;
      found = entry_->turn;
    }
    turn_.emplace(*found);
    const SharedLock lock(Shared::handles);
    if (entryOf(device, inode) == entry_ && entry_->turn == found) return entry_;
  }
}

FileEntry* EntryTurn::findOrAdd(FileEntry* fresh) {
  for (;;) {
    if (find(fresh->device, fresh->inode) != nullptr) return entry_;
    fresh->turn = &reserveTurn();
    turn_.emplace(*fresh->turn);
    {
      const SharedLock lock(Shared::handles);
      if (entryOf(fresh->device, fresh->inode) == nullptr) {
        fresh->next = firstEntry;
        return entry_ = firstEntry = fresh;
      }
    }
    turn_.reset();
    releaseTurn(*fresh->turn);
  }
}

ClosedFile::ClosedFile(const struct stat& status) : placeholder_(newEntry(status)) {
  turn_.findOrAdd(&placeholder_);
}

ClosedFile::~ClosedFile() {
  if (opened() == nullptr) unlinkEntry(&placeholder_);
}

FileEntry* joinEntry(const Directory& directory, const EntryName& name, Sharing sharing) {
  FileEntry* entry = nullptr;
  for (int i = 0; i < kOpeningTries; ++i) {
    bool wasReplaced = false;
    entry = tryToJoin(directory, name, sharing, &wasReplaced);
    if (!wasReplaced) break;
  }
  return entry;
}

FileEntry* enterNewFile(int descriptor) {
  struct stat status = {};
  EntryTurn turn;
  FileEntry* entry = nullptr;
  if (systemCalls().status(descriptor, &status) == 0) entry = enterOrAdd(status, &turn);
  if (entry == nullptr) {
    closeDescriptor(descriptor);
    return nullptr;
  }
  if (entry->openers != 0) {  // another thread has found its name already
    keepDescriptor(entry, descriptor);
    return nullptr;
  }
  entry->readWrite = descriptor;
  if (!changeLock(entry, Sharing::exclusive)) {
    removeEntry(entry);
    return nullptr;
  }
  entry->openers = entry->exclusiveOpeners = 1;
  return entry;
}

bool leaveEntry(FileEntry* entry, Sharing sharing) {
  const Turn turn(*entry->turn);
  countOff(entry, sharing);
  if (entry->openers == 0) return entry->source != nullptr ? removeView(entry) : removeEntry(entry);
  relaxLock(entry);
  return true;
}

void keepDescriptor(FileEntry* entry, int descriptor) {
  auto* surplus = static_cast<SurplusDescriptor*>(allocate(sizeof(SurplusDescriptor)));
  // Without memory to remember it the descriptor stays open: better lost than the file's lock.
  if (surplus == nullptr) return;
  entry->surplus = new (surplus) SurplusDescriptor{descriptor, entry->surplus};
}

bool regularFileStatus(const Directory& directory, const EntryName& name, struct stat* status) {
  if (directory.descriptor() < 0 || !name.isValid()) return false;
  const int result = systemCalls().statusAt(directory.descriptor(), name.bytes(), status, 0);
  return result == 0 && S_ISREG(status->st_mode);
}

NameOf lookAtName(const Directory& directory, const EntryName& name, dev_t device, ino_t inode) {
  struct stat status = {};
  if (systemCalls().statusAt(directory.descriptor(), name.bytes(), &status, 0) != 0) {
    return errno == ENOENT ? NameOf::anotherOrNone : NameOf::unknown;
  }
  const bool isSame = status.st_dev == device && status.st_ino == inode && status.st_nlink > 0;
  return isSame ? NameOf::thisFile : NameOf::anotherOrNone;
}

NameOf lookAtLink(int directory, const char* name, const FileEntry& entry) {
  struct stat status = {};
  if (systemCalls().statusAt(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return NameOf::unknown;
  }
  const bool isSame = status.st_dev == entry.device && status.st_ino == entry.inode;
  return isSame ? NameOf::thisFile : NameOf::anotherOrNone;
}

int openRegularFile(const Directory& directory, const EntryName& name, int access,
                    struct stat* status) {
  const auto open = [&](int flags) {
    return uninterrupted(
        [&] { return systemCalls().openAt(directory.descriptor(), name.bytes(), flags, 0); });
  };
  int descriptor = open(access | kOpenFlags | kNoAccessTime);
  if (descriptor < 0 && errno == EPERM && kNoAccessTime != 0)
    descriptor = open(access | kOpenFlags);
  if (descriptor < 0) return -1;
  if (systemCalls().status(descriptor, status) == 0 && S_ISREG(status->st_mode)) return descriptor;
  closeDescriptor(descriptor);
  return -1;
}

struct flock fileLock(Sharing strength) {
  struct flock lock = {};
  lock.l_whence = SEEK_SET;
  lock.l_len = kLockedBytes;
  lock.l_type = F_UNLCK;
  if (strength == Sharing::shared) lock.l_type = F_RDLCK;
  if (strength == Sharing::exclusive) lock.l_type = F_WRLCK;
  return lock;
}

bool setFileLock(int descriptor, Sharing strength) {
  struct flock lock = fileLock(strength);
  return uninterrupted([&] { return systemCalls().setLock(descriptor, &lock); }) == 0;
}

}  // namespace qvdbase::platform
