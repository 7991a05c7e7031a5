// The calls by which the library works on files, locks, time and memory, in a table to be replaced.
//
// The rest of the library makes these calls only through it; the C++ library may make its own. So a
// test can put another table in place, record each call and make each one fail; and another host
// needs only another table. They keep the conventions of POSIX: -1 and errno on failure.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace qvdbase::platform {

static_assert(sizeof(off_t) == 8, "file positions are 64-bit");

struct SystemCalls {
  // Files and directories.
  // Descriptors 0 to 2 are the standard streams: a file must never have one of them, or the next
  // diagnostic would go into it. They are not returned, even where they are closed.
  int (*openAt)(int directory, const char* name, int flags, mode_t mode);
  int (*close)(int descriptor);
  int (*status)(int descriptor, struct stat* result);
  int (*statusAt)(int directory, const char* name, struct stat* result, int flags);
  int (*makeDirectoryAt)(int directory, const char* name, mode_t mode);
  int (*renameAt)(int fromDirectory, const char* from, int toDirectory, const char* to);
  int (*linkAt)(int fromDirectory, const char* from, int toDirectory, const char* to, int flags);
  int (*removeAt)(int directory, const char* name, int flags);
  int (*changeMode)(int descriptor, mode_t mode);
  int (*changeOwner)(int descriptor, uid_t owner, gid_t group);
  // Renames only where nothing has the new name, in one step: fails with EEXIST where something
  // does, with ENOSYS or EINVAL where the host or the file system has no such call.
  int (*renameNewAt)(int fromDirectory, const char* from, int toDirectory, const char* to);
  // Extended attributes, by name: access lists and what users attach to a file. ENOTSUP where the
  // host has none.
  ssize_t (*listAttributes)(int descriptor, char* names, size_t size);
  ssize_t (*readAttribute)(int descriptor, const char* name, void* value, size_t size);
  int (*writeAttribute)(int descriptor, const char* name, const void* value, size_t size);
  int (*removeAttribute)(int descriptor, const char* name);
  // Makes the number `descriptor` name what `from` names, in one step; what it named is closed.
  int (*replaceDescriptor)(int from, int descriptor);

  // Contents.
  ssize_t (*readAt)(int descriptor, void* buffer, size_t count, off_t position);
  ssize_t (*writeAt)(int descriptor, const void* buffer, size_t count, off_t position);
  int (*truncate)(int descriptor, off_t length);
  int (*sync)(int descriptor);
  int (*syncData)(int descriptor);  // without the times of the file, where the host knows that
  // Where the next hole begins, and where the next bytes that are stored do, at or after
  // `position`; the end of the file counts as a hole. -1 also where the host does not know holes.
  off_t (*nextHole)(int descriptor, off_t position);
  off_t (*nextStored)(int descriptor, off_t position);
  // Lets one file share the stored bytes of another, whole: nothing is copied until one of them is
  // written to. Fails where the host or the file system has no such call, and for two file systems.
  int (*cloneFile)(int to, int from);
  // Copies up to `count` bytes within the host, to the same position of another file. Returns how
  // many; 0 at the end of the source. Fails where the host or the file system has no such call.
  ssize_t (*copyRange)(int to, int from, off_t position, size_t count);
  // Gives what is stored of a range back to the file system: it reads as zeros, and the length of
  // the file stays. Fails where the host or the file system has no such call.
  int (*punchHole)(int descriptor, off_t position, off_t length);
  // The length of a regular file or block device, or -1. Not from its status: that has no size of
  // devices, and a host that has reported a file's times must store a new one at the next write,
  // which more than doubles the cost of that.
  int64_t (*lengthOf)(int descriptor);
  // The length that no file of this process may pass; beyond it a write would raise a signal.
  uint64_t (*fileSizeLimit)();

  // Sets or clears a lock without waiting. The lock belongs to the open file description of
  // `descriptor` where the host has such locks, else to the process.
  int (*setLock)(int descriptor, struct flock* lock);
  // Stores a lock of another opener that conflicts with `lock`, or F_UNLCK as its type.
  int (*findLock)(int descriptor, struct flock* lock);
  // Another process that holds a lock on the file which begins before `end`, where the query above
  // does not name it: 0 where the host does not report it. It can take some milliseconds.
  pid_t (*lockHolder)(dev_t device, ino_t inode, off_t end);
  // The kind of file system that the file is on, in one word; null for the usual ones.
  const char* (*fileSystem)(int descriptor);

  // Time.
  time_t (*time)();
  clock_t (*processClock)();
  uint64_t (*microseconds)();            // since some fixed moment of the past; never set back
  void (*pause)(uint64_t microseconds);  // returns early when a signal arrives

  // Memory.
  void* (*allocate)(size_t size);
  void (*release)(void* memory);
  // A range of addresses that takes memory, of zeros, only where it is written to. `large` advises
  // the host to use large pages. Null where there is no space for it: addresses are few, or the
  // process may not have as many as it wants. To be returned by `unreserve`.
  void* (*reserve)(size_t size, bool large);
  // Gives back the memory of a part of it, in whole pages, which are zeros again. The host stops
  // every processor that runs this process for a moment: so not for small parts.
  void (*discard)(void* memory, size_t size);
  void (*unreserve)(void* memory, size_t size);

  // The process.
  pid_t (*processId)();
  // How often this process has made others by fork, since some fixed moment before the first call.
  uint32_t (*forkCount)();
  // Stores the name of a process, which ends with a zero. False where it cannot be obtained.
  bool (*processName)(pid_t process, char* name, size_t size);
};

// Whether a lock passes to a process made by fork, which shares it with its parent from then on:
// with the kind of lock that belongs to an open file description, but not with one that belongs to
// the process.
bool locksPassToChildren();

// The table whose calls go straight to the host.
const SystemCalls& hostSystemCalls();

// Puts `calls` in place of the table in use; null puts the host's back. The table must live as long
// as it is in use. Not to be called while another thread works in the library.
void replaceSystemCalls(const SystemCalls* calls);

namespace detail {
extern const SystemCalls* currentSystemCalls;
}

// The table in use.
inline const SystemCalls& systemCalls() {
  return *detail::currentSystemCalls;
}

// Repeats a call for as long as a signal interrupts it.
template <typename Call>
auto uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace qvdbase::platform
