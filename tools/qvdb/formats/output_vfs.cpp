// SQLite's way to the file that a command makes.
#include "formats/output_vfs.h"

#ifdef QVDB_HAS_SQLITE

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qvdb::tool {
namespace {

struct OpenOutput {
  sqlite3_file base;  // first: SQLite knows the object by it
  int descriptor;
};

int descriptorOf(sqlite3_file* file) {
  return reinterpret_cast<OpenOutput*>(file)->descriptor;
}

int close(sqlite3_file*) {
  return SQLITE_OK;  // the descriptor is the output file's
}

int read(sqlite3_file* file, void* to, int count, sqlite3_int64 from) {
  auto* at = static_cast<char*>(to);
  auto left = static_cast<size_t>(count);
  while (left > 0) {
    const ssize_t got = ::pread(descriptorOf(file), at, left, from);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return SQLITE_IOERR_READ;
    if (got == 0) break;
    at += got;
    from += got;
    left -= static_cast<size_t>(got);
  }
  std::memset(at, 0, left);
  return left == 0 ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 to) {
  const auto* at = static_cast<const char*>(bytes);
  auto left = static_cast<size_t>(count);
  while (left > 0) {
    const ssize_t put = ::pwrite(descriptorOf(file), at, left, to);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno == ENOSPC || errno == EDQUOT ? SQLITE_FULL : SQLITE_IOERR_WRITE;
    at += put;
    to += put;
    left -= static_cast<size_t>(put);
  }
  return SQLITE_OK;
}

int truncate(sqlite3_file* file, sqlite3_int64 size) {
  return ::ftruncate(descriptorOf(file), size) == 0 ? SQLITE_OK : SQLITE_IOERR_TRUNCATE;
}

int sync(sqlite3_file*, int) {
  return SQLITE_OK;
}

int fileSize(sqlite3_file* file, sqlite3_int64* size) {
  struct stat status = {};
  if (::fstat(descriptorOf(file), &status) != 0) return SQLITE_IOERR_FSTAT;
  *size = status.st_size;
  return SQLITE_OK;
}

int lock(sqlite3_file*, int) {
  return SQLITE_OK;
}

int checkReservedLock(sqlite3_file*, int* isReserved) {
  *isReserved = 0;
  return SQLITE_OK;
}

int control(sqlite3_file*, int, void*) {
  return SQLITE_NOTFOUND;
}

int sectorSize(sqlite3_file*) {
  return 4096;
}

int characteristics(sqlite3_file*) {
  return 0;
}

constexpr sqlite3_io_methods methodsOfOutput() {
  sqlite3_io_methods methods = {};
  methods.iVersion = 1;
  methods.xClose = close;
  methods.xRead = read;
  methods.xWrite = write;
  methods.xTruncate = truncate;
  methods.xSync = sync;
  methods.xFileSize = fileSize;
  methods.xLock = lock;
  methods.xUnlock = lock;
  methods.xCheckReservedLock = checkReservedLock;
  methods.xFileControl = control;
  methods.xSectorSize = sectorSize;
  methods.xDeviceCharacteristics = characteristics;
  return methods;
}

constexpr sqlite3_io_methods kOutputMethods = methodsOfOutput();

int open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  if ((flags & SQLITE_OPEN_MAIN_DB) == 0) {
    sqlite3_vfs* usual = sqlite3_vfs_find(nullptr);
    return usual->xOpen(usual, name, file, flags, outFlags);
  }
  auto* output = reinterpret_cast<OpenOutput*>(file);
  output->base.pMethods = &kOutputMethods;
  output->descriptor = static_cast<const OutputFile*>(vfs->pAppData)->descriptor();
  if (outFlags != nullptr) *outFlags = flags;
  return SQLITE_OK;
}

// Beside the one file there is none, a journal of its name least of all.
int access(sqlite3_vfs*, const char*, int, int* isThere) {
  *isThere = 0;
  return SQLITE_OK;
}

int remove(sqlite3_vfs*, const char*, int) {
  return SQLITE_OK;
}

int fullName(sqlite3_vfs*, const char* name, int capacity, char* full) {
  sqlite3_snprintf(capacity, full, "%s", name);
  return SQLITE_OK;
}

}  // namespace

OutputVfs::OutputVfs(OutputFile& file) : file_(file), vfs_(*sqlite3_vfs_find(nullptr)) {
  vfs_.zName = "qvdb-output";
  vfs_.pAppData = &file_;
  vfs_.pNext = nullptr;
  vfs_.szOsFile = std::max(vfs_.szOsFile, static_cast<int>(sizeof(OpenOutput)));
  vfs_.xOpen = open;
  vfs_.xAccess = access;
  vfs_.xDelete = remove;
  vfs_.xFullPathname = fullName;
  if (sqlite3_vfs_register(&vfs_, 0) != SQLITE_OK) throw std::bad_alloc();
}

OutputVfs::~OutputVfs() {
  sqlite3_vfs_unregister(&vfs_);
}

}  // namespace qvdb::tool

#endif
