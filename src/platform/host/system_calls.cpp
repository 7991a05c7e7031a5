// The host's side of the table of system calls.
//
// QVDBASE_PORTABLE_POSIX selects, wherever a Linux call is used, its plain POSIX counterpart. Here
// that is the kind of lock, which Linux can tie to one open file description and POSIX only to the
// process; renaming without replacing; extended attributes; and sharing, copying and giving back
// what files have stored.
#include "platform/host/system_calls.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#if !defined(QVDBASE_PORTABLE_POSIX) && defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#define QVDBASE_HAS_ATTRIBUTES 1
#endif
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "platform/host/lock_holder.h"

namespace qvdbase::platform {
namespace {

int hostOpenAt(int directory, const char* name, int flags, mode_t mode) {
  const int descriptor = ::openat(directory, name, flags, mode);
  if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
  const int kept = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  ::close(descriptor);
  errno = error;
  return kept;
}

int hostRenameNewAt(int fromDirectory, const char* from, int toDirectory, const char* to) {
#if defined(RENAME_NOREPLACE) && !defined(QVDBASE_PORTABLE_POSIX)
  return ::renameat2(fromDirectory, from, toDirectory, to, RENAME_NOREPLACE);
#else
  static_cast<void>(fromDirectory);
  static_cast<void>(from);
  static_cast<void>(toDirectory);
  static_cast<void>(to);
  errno = ENOSYS;
  return -1;
#endif
}

#if defined(QVDBASE_HAS_ATTRIBUTES)
int hostWriteAttribute(int descriptor, const char* name, const void* value, size_t size) {
  return ::fsetxattr(descriptor, name, value, size, 0);
}
#else
// The arguments do not matter: there is nothing to list, read or write.
template <typename Result, typename... Arguments>
Result noAttributes(Arguments...) {
  errno = ENOTSUP;
  return -1;
}
#endif

int hostReplaceDescriptor(int from, int descriptor) {
#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
  return ::dup3(from, descriptor, O_CLOEXEC);
#else
  const int result = ::dup2(from, descriptor);
  if (result >= 0) static_cast<void>(::fcntl(descriptor, F_SETFD, FD_CLOEXEC));
  return result;
#endif
}

// Both move the position of the descriptor, which nothing here relies on.
off_t hostNextHole(int descriptor, off_t position) {
#if defined(SEEK_HOLE) && !defined(QVDBASE_PORTABLE_POSIX)
  return ::lseek(descriptor, position, SEEK_HOLE);
#else
  static_cast<void>(descriptor);
  static_cast<void>(position);
  return -1;
#endif
}

off_t hostNextStored(int descriptor, off_t position) {
#if defined(SEEK_DATA) && !defined(QVDBASE_PORTABLE_POSIX)
  return ::lseek(descriptor, position, SEEK_DATA);
#else
  static_cast<void>(descriptor);
  static_cast<void>(position);
  return -1;
#endif
}

#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
int hostCloneFile(int to, int from) {
  return ::ioctl(to, FICLONE, from);
}

ssize_t hostCopyRange(int to, int from, off_t position, size_t count) {
  off_t target = position;
  return ::copy_file_range(from, &position, to, &target, count, 0);
}

int hostPunchHole(int descriptor, off_t position, off_t length) {
  return ::fallocate(descriptor, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, position, length);
}
#else
int hostCloneFile(int, int) {
  errno = ENOTSUP;
  return -1;
}

ssize_t hostCopyRange(int, int, off_t, size_t) {
  errno = ENOTSUP;
  return -1;
}

int hostPunchHole(int, off_t, off_t) {
  errno = ENOTSUP;
  return -1;
}
#endif

// Every transfer names its position, so the descriptor's own does not matter.
int64_t hostLengthOf(int descriptor) {
  return static_cast<int64_t>(::lseek(descriptor, 0, SEEK_END));
}

// The host library asks by a newer call, which has to find the process first.
int readFileSizeLimit(struct rlimit* limit) {
#if defined(SYS_getrlimit) && defined(__x86_64__) && !defined(__ILP32__) && \
    !defined(QVDBASE_PORTABLE_POSIX)
  if (::syscall(SYS_getrlimit, RLIMIT_FSIZE, limit) == 0) return 0;
#endif
  return ::getrlimit(RLIMIT_FSIZE, limit);
}

uint64_t hostFileSizeLimit() {
  struct rlimit limit = {};
  if (readFileSizeLimit(&limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return std::numeric_limits<uint64_t>::max();
  }
  return static_cast<uint64_t>(limit.rlim_cur);
}

#if defined(F_OFD_SETLK) && !defined(QVDBASE_PORTABLE_POSIX)
constexpr bool kLocksBelongToDescriptions = true;
#else
constexpr bool kLocksBelongToDescriptions = false;
#endif

int hostSetLock(int descriptor, struct flock* lock) {
#if defined(F_OFD_SETLK) && !defined(QVDBASE_PORTABLE_POSIX)
  lock->l_pid = 0;  // required by this call
  return ::fcntl(descriptor, F_OFD_SETLK, lock);
#else
  return ::fcntl(descriptor, F_SETLK, lock);
#endif
}

int hostFindLock(int descriptor, struct flock* lock) {
#if defined(F_OFD_GETLK) && !defined(QVDBASE_PORTABLE_POSIX)
  lock->l_pid = 0;  // required by this call
  return ::fcntl(descriptor, F_OFD_GETLK, lock);
#else
  return ::fcntl(descriptor, F_GETLK, lock);
#endif
}

time_t hostTime() {
  return ::time(nullptr);
}

uint64_t hostMicroseconds() {
  struct timespec now = {};
  if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000u +
         static_cast<uint64_t>(now.tv_nsec) / 1'000u;
}

std::atomic<uint32_t> forks = 0;

void countFork() {
  forks.fetch_add(1, std::memory_order_relaxed);
}

// Counting begins with the first question: before it there is nothing that a child could share.
uint32_t hostForkCount() {
  static const int unused = ::pthread_atfork(countFork, nullptr, nullptr);
  static_cast<void>(unused);
  return forks.load(std::memory_order_relaxed);
}

#if defined(MAP_ANONYMOUS) && defined(MAP_NORESERVE) && !defined(QVDBASE_PORTABLE_POSIX)
bool isUnlimited(decltype(RLIMIT_AS) resource) {
  struct rlimit limit = {};
  return ::getrlimit(resource, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY;
}

// What is reserved counts towards these limits in full: the application would miss it.
void* hostReserve(size_t size, bool large) {
  if (sizeof(void*) < 8 || !isUnlimited(RLIMIT_AS) || !isUnlimited(RLIMIT_DATA)) return nullptr;
  void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
#if defined(MADV_HUGEPAGE)
  if (large) static_cast<void>(::madvise(memory, size, MADV_HUGEPAGE));
#endif
  return memory;
}

void hostDiscard(void* memory, size_t size) {
  static_cast<void>(::madvise(memory, size, MADV_DONTNEED));
}

void hostUnreserve(void* memory, size_t size) {
  ::munmap(memory, size);
}
#else
void* hostReserve(size_t, bool) {
  return nullptr;
}
void hostDiscard(void*, size_t) {}
void hostUnreserve(void*, size_t) {}
#endif

void hostPause(uint64_t microseconds) {
  struct timespec length = {};
  length.tv_sec = static_cast<time_t>(microseconds / 1'000'000u);
  length.tv_nsec = static_cast<long>(microseconds % 1'000'000u * 1'000u);
  ::nanosleep(&length, nullptr);
}

constexpr SystemCalls kHostCalls = {
    .openAt = hostOpenAt,
    .close = ::close,
    .status = ::fstat,
    .statusAt = ::fstatat,
    .makeDirectoryAt = ::mkdirat,
    .renameAt = ::renameat,
    .linkAt = ::linkat,
    .removeAt = ::unlinkat,
    .changeMode = ::fchmod,
    .changeOwner = ::fchown,
    .renameNewAt = hostRenameNewAt,
#if defined(QVDBASE_HAS_ATTRIBUTES)
    .listAttributes = ::flistxattr,
    .readAttribute = ::fgetxattr,
    .writeAttribute = hostWriteAttribute,
    .removeAttribute = ::fremovexattr,
#else
    .listAttributes = noAttributes<ssize_t, int, char*, size_t>,
    .readAttribute = noAttributes<ssize_t, int, const char*, void*, size_t>,
    .writeAttribute = noAttributes<int, int, const char*, const void*, size_t>,
    .removeAttribute = noAttributes<int, int, const char*>,
#endif
    .replaceDescriptor = hostReplaceDescriptor,
    .readAt = ::pread,
    .writeAt = ::pwrite,
    .truncate = ::ftruncate,
    .sync = ::fsync,
#if defined(_POSIX_SYNCHRONIZED_IO) && _POSIX_SYNCHRONIZED_IO > 0
    .syncData = ::fdatasync,
#else
    .syncData = ::fsync,
#endif
    .nextHole = hostNextHole,
    .nextStored = hostNextStored,
    .cloneFile = hostCloneFile,
    .copyRange = hostCopyRange,
    .punchHole = hostPunchHole,
    .lengthOf = hostLengthOf,
    .fileSizeLimit = hostFileSizeLimit,
    .setLock = hostSetLock,
    .findLock = hostFindLock,
    .lockHolder = hostLockHolder,
    .fileSystem = hostFileSystem,
    .time = hostTime,
    .processClock = ::clock,
    .microseconds = hostMicroseconds,
    .pause = hostPause,
    .allocate = std::malloc,
    .release = std::free,
    .reserve = hostReserve,
    .discard = hostDiscard,
    .unreserve = hostUnreserve,
    .processId = ::getpid,
    .forkCount = hostForkCount,
    .processName = hostProcessName,
};

}  // namespace

constinit const SystemCalls* detail::currentSystemCalls = &kHostCalls;

bool locksPassToChildren() {
  return kLocksBelongToDescriptions;
}

const SystemCalls& hostSystemCalls() {
  return kHostCalls;
}

void replaceSystemCalls(const SystemCalls* calls) {
  detail::currentSystemCalls = calls != nullptr ? calls : &kHostCalls;
}

}  // namespace qvdbase::platform
