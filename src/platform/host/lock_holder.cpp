// Who holds a lock on a file, as far as the host lets this process know.
//
// A lock of an open file description belongs to no process: the query for locks reports none, and
// neither does the list of all locks. But for each descriptor of a process there is a file that
// lists the locks of its description:
//
//   /proc/4711/fdinfo/5:    lock:   1: OFDLCK  ADVISORY  WRITE 4711 fe:00:1234 0
//   9223372036854775743
//
// So all processes whose files this one may read are gone through. Who waits for a lock asks again
// and again: the process that was found is looked at first, and after a search in vain there is
// none for a while.
#include "platform/host/lock_holder.h"

#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
#define QVDBASE_HAS_PROC 1
#include <dirent.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#endif
#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>

namespace qvdbase::platform {

#if defined(QVDBASE_HAS_PROC)

namespace {

constexpr int kMostDescriptors = 50'000;  // in all processes together
constexpr off_t kFirstLockByte = std::numeric_limits<off_t>::max() - 63;  // handles/lock_bytes.h
constexpr time_t kSecondsBetweenScans = 1;                                // that find nothing

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

// A file whose locks are looked for: those that begin before `end`. Where that is after one of the
// lock bytes at the end of the range, those on this byte, also as a part of more.
struct Wanted {
  dev_t device;
  ino_t inode;
  off_t end;
  bool operator==(const Wanted&) const = default;

  bool holds(int64_t first, int64_t last) const {
    return end > kFirstLockByte ? first < end && last >= end - 1 : first < end;
  }
};

// Reads the beginning of a small file as text. Returns its length, 0 where it cannot be read.
size_t readText(const char* path, char* text, size_t size) {
  text[0] = 0;
  const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return 0;
  const ssize_t got = ::read(descriptor, text, size - 1);
  ::close(descriptor);
  const size_t length = got > 0 ? static_cast<size_t>(got) : 0;
  text[length] = 0;
  return length;
}

// Some file systems show another device number here than in the status of a file; the inode's is
// the same.
bool isWanted(const char* line, const Wanted& wanted) {
  unsigned major = 0;
  unsigned minor = 0;
  uint64_t inode = 0;
  int64_t first = 0;
  int64_t last = 0;  // not a number, but "EOF", for a lock without an end
  const int fields =
      std::sscanf(line, "lock:%*s %*s %*s %*s %*s %x:%x:%" SCNu64 " %" SCNd64 " %" SCNd64, &major,
                  &minor, &inode, &first, &last);
  if (fields == 4) last = std::numeric_limits<int64_t>::max();
  const bool isSameDevice = major == ::major(wanted.device) && minor == ::minor(wanted.device);
  const bool isAnonymous = major == 0 || ::major(wanted.device) == 0;
  return fields >= 4 && inode == wanted.inode && (isSameDevice || isAnonymous) &&
         wanted.holds(first, last);
}

bool holdsLock(const char* descriptorInfo, const Wanted& wanted) {
  char text[4096];
  if (readText(descriptorInfo, text, sizeof text) == 0) return false;
  for (const char* line = std::strstr(text, "lock:"); line != nullptr;
       line = std::strstr(line + 1, "lock:")) {
    if (isWanted(line, wanted)) return true;
  }
  return false;
}

// Counts the descriptors that it looks at off *left.
bool isHolder(pid_t process, const Wanted& wanted, int* left) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/fdinfo", static_cast<int>(process));
  const Folder folder(::opendir(path));
  if (folder == nullptr) return false;
  while (const dirent* entry = ::readdir(folder.get())) {
    if (entry->d_name[0] == '.') continue;
    if ((*left)-- <= 0) return false;
    char file[64 + sizeof entry->d_name];
    std::snprintf(file, sizeof file, "%s/%s", path, entry->d_name);
    if (holdsLock(file, wanted)) return true;
  }
  return false;
}

pid_t scan(const Wanted& wanted) {
  const Folder processes(::opendir("/proc"));
  int left = kMostDescriptors;
  while (processes != nullptr && left > 0) {
    const dirent* entry = ::readdir(processes.get());
    if (entry == nullptr) break;
    const auto process = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (process > 0 && process != ::getpid() && isHolder(process, wanted, &left)) return process;
  }
  return 0;
}

// What the last scan of this thread has found.
struct LastScan {
  Wanted wanted = {};
  pid_t process = 0;
  time_t when = 0;
};
thread_local LastScan lastScan;

time_t secondsNow() {
  struct timespec now = {};
  return ::clock_gettime(CLOCK_MONOTONIC, &now) == 0 ? now.tv_sec : 0;
}

struct KnownFileSystem {
  unsigned long type;
  const char* name;
};

// Those of which a user may have to know that they are others than usual.
constexpr KnownFileSystem kFileSystems[] = {
    {0x6969, "nfs"},         {0xFF534D42, "cifs"},   {0xFE534D42, "smb2"},
    {0x517B, "smbfs"},       {0x65735546, "fuse"},   {0x01021997, "9p"},
    {0x00C36400, "ceph"},    {0x5346414F, "afs"},    {0x0BD00BD0, "lustre"},
    {0x47504653, "gpfs"},    {0x01161970, "gfs2"},   {0x7461636F, "ocfs2"},
    {0x794C7630, "overlay"}, {0x786F4256, "vboxsf"}, {0xBACBACBC, "vmhgfs"},
    {0x6B414653, "afs"},     {0x73757245, "coda"},   {0x20030528, "orangefs"},
    {0x19830326, "beegfs"},  {0x53464846, "wslfs"},
};

}  // namespace

pid_t hostLockHolder(dev_t device, ino_t inode, off_t end) {
  const Wanted wanted{device, inode, end};
  const time_t now = secondsNow();
  int left = kMostDescriptors;
  if (lastScan.wanted == wanted) {
    if (lastScan.process == 0 && now - lastScan.when < kSecondsBetweenScans) return 0;
    if (lastScan.process != 0 && isHolder(lastScan.process, wanted, &left)) return lastScan.process;
  }
  lastScan = {wanted, scan(wanted), now};
  return lastScan.process;
}

bool hostProcessName(pid_t process, char* name, size_t size) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/comm", static_cast<int>(process));
  const size_t length = readText(path, name, size);
  if (length > 0 && name[length - 1] == '\n') name[length - 1] = 0;
  return name[0] != 0;
}

const char* hostFileSystem(int descriptor) {
  struct statfs status = {};
  if (::fstatfs(descriptor, &status) != 0) return nullptr;
  const auto type = static_cast<unsigned long>(status.f_type) & 0xFFFFFFFF;
  for (const KnownFileSystem& known : kFileSystems) {
    if (known.type == type) return known.name;
  }
  return nullptr;
}

#else

pid_t hostLockHolder(dev_t, ino_t, off_t) {
  return 0;
}

bool hostProcessName(pid_t, char*, size_t) {
  return false;
}

const char* hostFileSystem(int) {
  return nullptr;
}

#endif

}  // namespace qvdbase::platform
