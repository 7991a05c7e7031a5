// The files that this process has open: one entry for each device and inode, however often and
// under whatever names the file was opened.
//
// An entry owns the file's descriptors and its lock. Both belong to the file as a whole:
//   - a lock of each opener's own would conflict with those of the others in this process;
//   - a plain POSIX lock is lost as soon as the process closes any descriptor of the file, so no
//     descriptor may be closed before the last opener leaves.
// An entry exists exactly as long as it has an opener. It is looked up, made and dropped under the
// lock of the handles; everything in it is read and changed under its turn, which is the turn of
// the file's calls too. Views have entries of their own and look without that turn: what they use
// of the file's entry meanwhile is atomic.
//
// After a fork both processes have the entry. Where locks belong to open file descriptions they
// then hold one lock together, which either could weaken or strengthen for the other; where locks
// belong to the process, the child holds none. So:
//   - a lock that may be held together is not weakened: it goes with the last descriptor of both;
//   - before it would be strengthened, and before a child admits a writer of its own, the entry
//     gets a new description with a lock of this process alone, or the opener is refused.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>

#include "platform/handles/turns.h"
#include "platform/host/process_mark.h"
#include "platform/paths/directory.h"

namespace qvdbase::platform {

// What an opener demands of the others; the order is that of strength. It is also the strength of
// the lock that makes other processes respect it.
enum class Sharing : uint8_t {
  none,       // reads only: takes no lock and ignores those of others
  shared,     // reads and writes beside others
  exclusive,  // reads and writes, the only one of its kind here, alone among processes
};

struct SurplusDescriptor;
class Mirror;

// What this process holds of the bytes after the file; see lock_bytes.h.
struct LockBytesHeld {
  uint32_t announced;     // openers that have announced themselves as readers; atomic
  int announcedOn;        // the descriptor of their lock; atomic
  ProcessMark announcer;  // who took it
  uint32_t looks;         // of any reader here, that last; atomic, see look_count.h
  int lookedOn;           // the descriptor of their lock
  const void* turnOwner;  // the writer here that has the turn of shared writers, or null
  const void* nextOwner;  // the one here whose turn is next, or null
  uint32_t forkDepth;     // of the process that has taken them
};

struct FileEntry {
  dev_t device;
  ino_t inode;
  int readWrite;               // descriptor, or -1
  int readOnly;                // descriptor, or -1
  SurplusDescriptor* surplus;  // unused descriptors that must not be closed yet
  uint32_t openers;
  uint32_t sharedOpeners;
  uint32_t exclusiveOpeners;
  Sharing lock;        // the lock that is held
  ProcessMark locker;  // who opened readWrite, to which the lock belongs
  LockBytesHeld lockBytes;
  uint32_t views;      // through which threads read it; see file_views.h
  uint32_t viewLooks;  // looks through them that last, and whether a change excludes them; atomic
  FileEntry* source;   // of a view: the entry of the file; then it is not in the list
  size_t writes;       // that this process has made to it, and cuts; atomic, see file_changes.h
  Mirror* mirror;      // what is remembered of it, or null; see transfer/mirror.h
  FileTurn* turn;
  FileEntry* next;
};

// The entry of that file, or null when this process does not have it open. Another thread may
// close it meanwhile.
FileEntry* findEntry(dev_t device, ino_t inode);

// The turn of a file that this process may have open, for as long as this exists.
class EntryTurn {
 public:
  EntryTurn() = default;
  EntryTurn(dev_t device, ino_t inode) { find(device, inode); }

  // Takes the turn of that file, instead of the one before. Returns its entry, or null.
  FileEntry* find(dev_t device, ino_t inode);
  // The same; a file without entry gets `fresh`, which has no turn yet.
  FileEntry* findOrAdd(FileEntry* fresh);

  FileEntry* entry() const { return entry_; }

 private:
  FileEntry* entry_ = nullptr;
  std::optional<Turn> turn_;
};

// Keeps a file that this process does not have open from being opened here, for as long as this
// exists.
class ClosedFile {
 public:
  explicit ClosedFile(const struct stat& status);
  ~ClosedFile();
  ClosedFile(const ClosedFile&) = delete;
  ClosedFile& operator=(const ClosedFile&) = delete;

  // The file's entry, with its turn, if the process has it open after all; else null.
  FileEntry* opened() const { return turn_.entry() != &placeholder_ ? turn_.entry() : nullptr; }

 private:
  FileEntry placeholder_;
  EntryTurn turn_;
};

// Counts one more opener of the regular file `name`, with everything that it needs: the entry, a
// descriptor (one for writing unless `sharing` is none), the lock. A file that is locked then still
// is the one of that name: where another has taken its place between opening and locking, the
// opening begins again, a limited number of times. Returns null, and changes nothing, when one of
// these cannot be obtained.
FileEntry* joinEntry(const Directory& directory, const EntryName& name, Sharing sharing);

// The entry of a file that this process has just made, with an exclusive opener. Takes over the
// descriptor, which is open for reading and writing. Null when the file cannot be locked, or memory
// is short; the descriptor is closed then.
FileEntry* enterNewFile(int descriptor);

// Counts one more opener, who only reads. Cannot fail.
inline void addReader(FileEntry* entry) {
  const Turn turn(*entry->turn);
  ++entry->openers;
}

// Counts one opener less. The lock falls back to what the others need; the last one takes the entry
// with it. Returns false when the host reports that closing failed (the opener is gone anyway).
bool leaveEntry(FileEntry* entry, Sharing sharing);

// The descriptor through which every opener may read, and those that share or exclude may write.
inline int descriptorOf(const FileEntry& entry) {
  return entry.readWrite >= 0 ? entry.readWrite : entry.readOnly;
}

// Takes over a descriptor that turned out to be one of this entry's file, until the entry goes.
void keepDescriptor(FileEntry* entry, int descriptor);

// Stores the status of what `name` names. False when that is nothing, or not a regular file.
bool regularFileStatus(const Directory& directory, const EntryName& name, struct stat* status);

// Opens the regular file `name` with these access flags, never waiting for anything, and stores
// its status. Returns the descriptor or -1.
int openRegularFile(const Directory& directory, const EntryName& name, int access,
                    struct stat* status);

// Whether `name` still is the name of that file. Call it while its lock is held: whoever
// replaces a file by another one holds that lock meanwhile.
enum class NameOf : uint8_t { thisFile, anotherOrNone, unknown };
NameOf lookAtName(const Directory& directory, const EntryName& name, dev_t device, ino_t inode);

// The same for what the name itself is, links not followed; unknown also when it does not exist.
NameOf lookAtLink(int directory, const char* name, const FileEntry& entry);

// How often an opening begins again because the file was replaced meanwhile.
inline constexpr int kOpeningTries = 100;

// The lock of a file covers all bytes that a file can have but the last ones of the number range,
// which are left free for locks of other kinds.
inline constexpr off_t kLockedBytes = std::numeric_limits<off_t>::max() - 63;

// The range of that lock, with its strength: the question, or the order, for the host.
struct flock fileLock(Sharing strength);

// Sets the lock on a file, or clears it; never waits.
bool setFileLock(int descriptor, Sharing strength);

}  // namespace qvdbase::platform
