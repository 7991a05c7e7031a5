// A folder with backups in pieces.
#include "backup/piece_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <qvdbase/qvdb.hpp>
#include <utility>

#include "command_line/command.h"
#include "streams/failure.h"
#include "streams/sha256.h"

namespace qvdb::tool {
namespace {

constexpr off_t kLargestManifest = off_t{1} << 30;
constexpr int kReading = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

Descriptor openFolder(int at, const char* name, const std::string& path) {
  Descriptor folder(::openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) throw systemFailure(path, "open the folder");
  return folder;
}

void makeFolder(int at, const char* name, const std::string& path) {
  if (::mkdirat(at, name, 0777) != 0 && errno != EEXIST) {
    throw systemFailure(path, "create the folder");
  }
}

// The length of the regular file that is open there, or -1.
off_t lengthOf(int descriptor) {
  struct stat status = {};
  return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

// Reads `size` bytes; fewer at the end of the file. False when they cannot be read.
bool readBytes(int descriptor, size_t size, std::vector<std::byte>* bytes) {
  bytes->resize(size);
  size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(descriptor, bytes->data() + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  bytes->resize(done);
  return true;
}

// Calls visit(name) for every entry of the folder.
void forEachEntry(int folder, const std::string& path,
                  const std::function<void(const std::string&)>& visit) {
  const int own = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const entries = own < 0 ? nullptr : ::fdopendir(own);
  if (entries == nullptr) throw systemFailure(path, "list the folder");
  const std::unique_ptr<DIR, int (*)(DIR*)> closed(entries, ::closedir);
  errno = 0;
  while (const dirent* const entry = ::readdir(entries)) {
    visit(entry->d_name);
    errno = 0;
  }
  if (errno != 0) throw systemFailure(path, "list the folder");
}

bool isTemporaryName(const std::string& name) {
  return name == PieceFolder::kCopyName ||
         (name.size() == 26 && name.starts_with(".qvdb-") && name.ends_with(".tmp"));
}

void removeEntry(int folder, const std::string& name, const std::string& path) {
  if (::unlinkat(folder, name.c_str(), 0) != 0 && errno != ENOENT) {
    throw systemFailure(path, "remove");
  }
}

void syncFolder(int folder, const std::string& path) {
  if (::fsync(folder) != 0 && errno != EINVAL) throw systemFailure(path, "sync");
}

}  // namespace

PieceFolder::PieceFolder(const std::string& path, Use use) : path_(path) {
  if (use == Use::writing) makeFolder(AT_FDCWD, path.c_str(), path);
  folder_ = openFolder(AT_FDCWD, path.c_str(), path);
  lock(use);
  if (use == Use::writing) makeFolder(folder_.number(), "pieces", path + "/pieces");
  pieces_ = openFolder(folder_.number(), "pieces", path + "/pieces");
  if (use == Use::writing) removeTemporaryFiles();
}

// What processes that were killed have left: none is at work here now.
void PieceFolder::removeTemporaryFiles() const {
  for (const int folder : {folder_.number(), pieces_.number()}) {
    std::vector<std::string> left;
    forEachEntry(folder, path_, [&](const std::string& name) {
      if (isTemporaryName(name)) left.push_back(name);
    });
    for (const std::string& name : left) removeEntry(folder, name, path_ + ": " + name);
  }
}

// Where the file system has no such locks, the user has to see to it.
void PieceFolder::lock(Use use) const {
  const int kind = use == Use::writing ? LOCK_EX : LOCK_SH;
  if (::flock(folder_.number(), kind | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
  ErrorDetails details;
  details.path = path_;
  const char* const doing =
      use == Use::writing ? "works with the backups in it" : "writes a backup to it";
  throw Error("use the folder", Reason::in_use,
              path_ + ": cannot use the folder: another process " + doing, std::move(details));
}

std::vector<std::string> PieceFolder::manifests() const {
  std::vector<std::string> names;
  forEachEntry(folder_.number(), path_, [&](const std::string& name) {
    if (isManifestName(name)) names.push_back(name);
  });
  std::sort(names.begin(), names.end());
  return names;
}

Manifest PieceFolder::read(const std::string& name) const {
  const std::string path = path_ + "/" + name;
  const Descriptor file(::openat(folder_.number(), name.c_str(), kReading));
  if (!file) throw systemFailure(path, "open");
  const off_t length = lengthOf(file.number());
  std::vector<std::byte> bytes;
  const bool fits = length >= 0 && length <= kLargestManifest;
  if (fits && !readBytes(file.number(), static_cast<size_t>(length), &bytes)) {
    throw systemFailure(path, "read");
  }
  const std::string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::optional<Manifest> manifest = fits ? parseManifest(text) : std::nullopt;
  const size_t beforeNumber = name.size() - std::string("-000.manifest").size();
  if (manifest &&
      manifestName(manifest->time, 0).substr(0, beforeNumber) == name.substr(0, beforeNumber)) {
    return *manifest;
  }
  throw Failure(path +
                ": cannot read the list of pieces: it is damaged or incomplete; copy it again from "
                "where it was made, or choose an earlier backup with --at");
}

bool PieceFolder::add(const std::string& hash, std::span<const std::byte> bytes, bool isKnown,
                      uint32_t mode) const {
  const Descriptor file(::openat(pieces_.number(), hash.c_str(), kReading));
  if (!file && errno != ENOENT) throw systemFailure(pathOf(hash), "open");
  if (file && lengthOf(file.number()) == static_cast<off_t>(bytes.size())) {
    if (isKnown) return false;
    std::vector<std::byte> found;
    const bool isRead = readBytes(file.number(), bytes.size(), &found);
    if (isRead && std::ranges::equal(found, bytes)) return false;
  }
  write(hash, bytes, static_cast<bool>(file), mode);
  return true;
}

void PieceFolder::write(const std::string& hash, std::span<const std::byte> bytes, bool replaces,
                        uint32_t mode) const {
  OutputFile file(pieces_.number(), hash, pathOf(hash), {.overwrite = replaces, .sync = false});
  file.write(bytes);
  // A piece is never changed; its owner can still read it.
  if (::fchmod(file.descriptor(), (mode & 0444) | 0400) != 0) {
    throw systemFailure(pathOf(hash), "set its permissions");
  }
  file.place();
}

void PieceFolder::readPiece(const std::string& hash, uint64_t size,
                            std::vector<std::byte>* bytes) const {
  const char* const remedy =
      "; copy the folder again from where it was made, or choose an earlier backup with --at";
  const Descriptor file(::openat(pieces_.number(), hash.c_str(), kReading));
  if (!file && errno == ENOENT) {
    throw Failure(pathOf(hash) + ": cannot read a piece of the backup: it is missing" + remedy);
  }
  if (!file) throw systemFailure(pathOf(hash), "open");
  if (lengthOf(file.number()) == static_cast<off_t>(size)) {
    if (!readBytes(file.number(), size, bytes)) throw systemFailure(pathOf(hash), "read");
    if (bytes->size() == size && sha256(*bytes) == hash) return;
  }
  throw Failure(pathOf(hash) + ": cannot use a piece of the backup: its bytes are others" + remedy);
}

void PieceFolder::sync() const {
#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
  if (::syncfs(pieces_.number()) != 0) throw systemFailure(path_ + "/pieces", "sync");
#else
  forEachEntry(pieces_.number(), path_ + "/pieces", [&](const std::string& name) {
    if (!isHash(name)) return;
    const Descriptor file(::openat(pieces_.number(), name.c_str(), kReading));
    if (!file || ::fsync(file.number()) != 0) throw systemFailure(pathOf(name), "sync");
  });
#endif
  syncFolder(pieces_.number(), path_ + "/pieces");
  syncFolder(folder_.number(), path_);
}

std::string PieceFolder::add(const Manifest& manifest, bool sync) const {
  const std::string text = textOf(manifest);
  for (int number = 0;; ++number) {
    const std::string name = manifestName(manifest.time, number);
    struct stat status = {};
    if (::fstatat(folder_.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) continue;
    const std::string path = path_ + "/" + name;
    OutputFile file(folder_.number(), name, path, {.sync = sync});
    file.write(std::as_bytes(std::span(text)));
    if (::fchmod(file.descriptor(), (manifest.mode & 0444) | 0400) != 0) {
      throw systemFailure(path, "set its permissions");
    }
    file.place();
    if (sync) syncFolder(folder_.number(), path_);
    return name;
  }
}

// Nothing is removed unless all that is to be kept is known.
size_t PieceFolder::prune(size_t kept) const {
  std::vector<std::string> names = manifests();
  const size_t surplus = names.size() > kept ? names.size() - kept : 0;
  std::set<std::string> needed;
  for (size_t i = surplus; i < names.size(); ++i) {
    for (std::string& piece : read(names[i]).pieces) needed.insert(std::move(piece));
  }
  for (size_t i = 0; i < surplus; ++i) {
    removeEntry(folder_.number(), names[i], path_ + "/" + names[i]);
  }
  syncFolder(folder_.number(), path_);
  return removeAllBut(needed);
}

size_t PieceFolder::removeAllBut(const std::set<std::string>& kept) const {
  std::vector<std::string> surplus;
  forEachEntry(pieces_.number(), path_ + "/pieces", [&](const std::string& name) {
    if (isHash(name) && !kept.contains(name)) surplus.push_back(name);
  });
  for (const std::string& name : surplus) removeEntry(pieces_.number(), name, pathOf(name));
  return surplus.size();
}

}  // namespace qvdb::tool
