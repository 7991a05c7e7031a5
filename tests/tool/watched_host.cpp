// Loaded into a program before the host's library: writes down, in order, what the program syncs
// and what it renames, a line each, into the file that WATCHED_HOST_LOG names.
//
//   sync NAME            the last part of the file's name, or of the folder's
//   rename FROM TO       likewise
//
// Where WATCHED_HOST_HAS_NO_HOLES is set, no file system can have holes in files.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

void note(const std::string& line) {
  const char* path = std::getenv("WATCHED_HOST_LOG");
  if (path == nullptr) return;
  const int log = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (log < 0) return;
  static_cast<void>(!::write(log, line.data(), line.size()));
  ::close(log);
}

std::string lastPart(const std::string& path) {
  return path.substr(path.find_last_of('/') + 1);
}

std::string nameOf(int descriptor) {
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t size = ::readlink(link.c_str(), path, sizeof path);
  return size < 0 ? "?" : lastPart(std::string(path, static_cast<size_t>(size)));
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int fsync(int descriptor) {
  note("sync " + nameOf(descriptor) + "\n");
  return next<int(int)>("fsync")(descriptor);
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept {
  note("rename " + lastPart(from) + " " + lastPart(to) + "\n");
  return next<int(int, const char*, int, const char*)>("renameat")(fromFolder, from, toFolder, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
              unsigned int flags) noexcept {
  note("rename " + lastPart(from) + " " + lastPart(to) + "\n");
  return next<int(int, const char*, int, const char*, unsigned int)>("renameat2")(
      fromFolder, from, toFolder, to, flags);
}

int fallocate(int descriptor, int mode, off_t position, off_t length) {
  if (mode != 0 && std::getenv("WATCHED_HOST_HAS_NO_HOLES") != nullptr) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return next<int(int, int, off_t, off_t)>("fallocate")(descriptor, mode, position, length);
}

}  // extern "C"
