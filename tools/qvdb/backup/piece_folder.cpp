// A folder with backups in pieces.
#include "backup/piece_folder.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <qvdbase/qvdb.hpp>
#include <utility>

#include "backup/folder_calls.h"
#include "command_line/command.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/sha256.h"

namespace qvdb::tool {
namespace {

constexpr off_t kLargestManifest = off_t{1} << 30;
constexpr size_t kReadAtOnce = size_t{64} << 10;
constexpr int kReading = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// The copy of the database while it is cut, and a list that is not complete.
constexpr const char* kCopyName = ".copy.tmp";
constexpr const char* kListName = ".list.tmp";

Descriptor openFolder(int at, const char* name, const std::string& path, int more = 0) {
  Descriptor folder(folderCalls.openAt(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | more));
  if (!folder) throw systemFailure(path, "open the folder");
  return folder;
}

void makeFolder(int at, const char* name, const std::string& path) {
  if (folderCalls.makeFolder(at, name, 0777) != 0 && errno != EEXIST) {
    throw systemFailure(path, "create the folder");
  }
}

// The length of the regular file that is open there, or -1.
off_t lengthOf(int descriptor) {
  struct stat status = {};
  return folderCalls.status(descriptor, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size
                                                                                 : -1;
}

// Reads `size` bytes; fewer at the end of the file. False when they cannot be read.
bool readBytes(int descriptor, size_t size, std::vector<std::byte>* bytes) {
  bytes->resize(size);
  size_t done = 0;
  while (done < size) {
    const ssize_t got = folderCalls.read(descriptor, bytes->data() + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  bytes->resize(done);
  return true;
}

// Reads no further than the file looks like a manifest. Throws Failure when it cannot be read.
std::optional<Manifest> parsed(int descriptor, uint64_t length, const std::string& path) {
  ManifestParser parser(length);
  std::vector<std::byte> bytes;
  do {
    throwIfInterrupted();
    if (!readBytes(descriptor, kReadAtOnce, &bytes)) throw systemFailure(path, "read");
  } while (!bytes.empty() &&
           parser.add({reinterpret_cast<const char*>(bytes.data()), bytes.size()}));
  return parser.finish();
}

// Calls visit(name) for every entry of the folder.
void forEachEntry(int folder, const std::string& path,
                  const std::function<void(const std::string&)>& visit) {
  const int own = folderCalls.openAt(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const entries = own < 0 ? nullptr : folderCalls.openEntries(own);
  if (entries == nullptr) {
    const Failure failure = systemFailure(path, "list the folder");
    const Descriptor closed(own);
    throw failure;
  }
  const std::unique_ptr<DIR, int (*)(DIR*)> closed(entries, ::closedir);
  errno = 0;
  while (const dirent* const entry = folderCalls.nextEntry(entries)) {
    visit(entry->d_name);
    errno = 0;
  }
  if (errno != 0) throw systemFailure(path, "list the folder");
}

bool isTemporaryName(const std::string& name) {
  return name == kCopyName || name == kListName ||
         (name.size() == 26 && name.starts_with(".qvdb-") && name.ends_with(".tmp"));
}

void removeEntry(int folder, const std::string& name, const std::string& path) {
  if (folderCalls.remove(folder, name.c_str()) != 0 && errno != ENOENT) {
    throw systemFailure(path, "remove");
  }
}

Failure changedMeanwhile(const std::string& path) {
  return Failure(path +
                 ": cannot use it: another program has put something else there meanwhile; end "
                 "that program, or choose another folder");
}

void syncFolder(int folder, const std::string& path) {
  if (folderCalls.sync(folder) != 0 && errno != EINVAL) throw systemFailure(path, "sync");
}

}  // namespace

PieceFolder::PieceFolder(const std::string& path, Use use) : path_(path) {
  if (use == Use::writing) makeFolder(AT_FDCWD, path.c_str(), path);
  folder_ = openFolder(AT_FDCWD, path.c_str(), path);
  lock(use);
  if (use == Use::writing) makeFolder(folder_.number(), "pieces", path + "/pieces");
  pieces_ = openFolder(folder_.number(), "pieces", path + "/pieces", O_NOFOLLOW);
  if (use == Use::writing) removeTemporaryFiles();
}

// What processes that were killed have left: none is at work here now. Outside of the folder of the
// pieces such a name may be that of a file which another command is writing.
void PieceFolder::removeTemporaryFiles() const {
  std::vector<std::string> left;
  forEachEntry(pieces_.number(), path_ + "/pieces", [&](const std::string& name) {
    if (isTemporaryName(name)) left.push_back(name);
  });
  for (const std::string& name : left) removeEntry(pieces_.number(), name, pathOf(name));
  removeEntry(folder_.number(), kCopyName, path_ + "/" + kCopyName);
}

// Where the file system has no such locks, the user has to see to it.
void PieceFolder::lock(Use use) const {
  const int kind = use == Use::writing ? LOCK_EX : LOCK_SH;
  if (folderCalls.lock(folder_.number(), kind | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
  ErrorDetails details;
  details.path = path_;
  const char* const doing =
      use == Use::writing ? "works with the backups in it" : "writes a backup to it";
  throw Error("use the folder", Reason::in_use,
              path_ + ": cannot use the folder: another process " + doing, std::move(details));
}

// Whoever owns the folder can rename what is in it.
std::string PieceFolder::copyPath() const {
  const std::string path = path_ + "/pieces";
  const Descriptor found(
      folderCalls.openAt(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!found) throw systemFailure(path, "open the folder");
  struct stat own = {};
  struct stat there = {};
  if (folderCalls.status(pieces_.number(), &own) != 0 ||
      folderCalls.status(found.number(), &there) != 0) {
    throw systemFailure(path, "look at the folder");
  }
  if (own.st_dev != there.st_dev || own.st_ino != there.st_ino) throw changedMeanwhile(path);
  return pathOf(kCopyName);
}

Descriptor PieceFolder::takeCopy(uint64_t length) const {
  const std::string path = pathOf(kCopyName);
  Descriptor file(folderCalls.openAt(pieces_.number(), kCopyName, kReading));
  if (!file) throw systemFailure(path, "open");
  removeEntry(pieces_.number(), kCopyName, path);
  const off_t found = lengthOf(file.number());
  if (found < 0 || static_cast<uint64_t>(found) != length) throw changedMeanwhile(path);
  return file;
}

void PieceFolder::readCopy(const Descriptor& copy, uint64_t size,
                           std::vector<std::byte>* bytes) const {
  const std::string path = pathOf(kCopyName);
  if (!readBytes(copy.number(), static_cast<size_t>(size), bytes)) {
    throw systemFailure(path, "read");
  }
  if (bytes->size() != size) throw changedMeanwhile(path);
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
  const Descriptor file(folderCalls.openAt(folder_.number(), name.c_str(), kReading));
  if (!file) throw systemFailure(path, "open");
  const off_t length = lengthOf(file.number());
  const bool fits = length >= 0 && length <= kLargestManifest;
  const std::optional<Manifest> manifest =
      fits ? parsed(file.number(), static_cast<uint64_t>(length), path) : std::nullopt;
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
  const Descriptor file(folderCalls.openAt(pieces_.number(), hash.c_str(), kReading));
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
  if (folderCalls.changeMode(file.descriptor(), (mode & 0444) | 0400) != 0) {
    throw systemFailure(pathOf(hash), "set its permissions");
  }
  file.place();
}

void PieceFolder::readPiece(const std::string& hash, uint64_t size,
                            std::vector<std::byte>* bytes) const {
  const char* const remedy =
      "; copy the folder again from where it was made, or choose an earlier backup with --at";
  const Descriptor file(folderCalls.openAt(pieces_.number(), hash.c_str(), kReading));
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
  if (folderCalls.syncAll(pieces_.number()) != 0) {
    if (errno != ENOSYS) throw systemFailure(path_ + "/pieces", "sync");
    syncEach();
  }
  syncFolder(pieces_.number(), path_ + "/pieces");
  syncFolder(folder_.number(), path_);
}

void PieceFolder::syncEach() const {
  forEachEntry(pieces_.number(), path_ + "/pieces", [&](const std::string& name) {
    if (!isHash(name)) return;
    const Descriptor file(folderCalls.openAt(pieces_.number(), name.c_str(), kReading));
    if (!file || folderCalls.sync(file.number()) != 0) throw systemFailure(pathOf(name), "sync");
  });
}

// A list gets the first name that is free, in the order in which they are made.
std::string PieceFolder::freeName(Manifest* manifest) const {
  for (int number = 0;; ++number) {
    if (number == 1000) {
      number = 0;
      ++manifest->time;
    }
    const std::string name = manifestName(manifest->time, number);
    if (!isManifestName(name)) {
      throw Failure(path_ +
                    ": cannot add a backup: there is one at the end of the year 9999, after which "
                    "no list has a name; choose another folder");
    }
    struct stat status = {};
    if (folderCalls.statusAt(folder_.number(), name.c_str(), &status) == 0) continue;
    if (errno != ENOENT) throw systemFailure(path_ + "/" + name, "look at");
    return name;
  }
}

// It is written in the folder of the pieces, which has what is unfinished.
std::string PieceFolder::add(Manifest manifest, bool sync) const {
  const std::string name = freeName(&manifest);
  const std::string path = path_ + "/" + name;
  const std::string text = textOf(manifest);
  OutputFile file(pieces_.number(), kListName, path, {.sync = sync});
  file.write(std::as_bytes(std::span(text)));
  if (folderCalls.changeMode(file.descriptor(), (manifest.mode & 0444) | 0400) != 0) {
    throw systemFailure(path, "set its permissions");
  }
  file.place();
  if (folderCalls.rename(pieces_.number(), kListName, folder_.number(), name.c_str()) != 0) {
    const Failure failure = systemFailure(path, "create");
    static_cast<void>(folderCalls.remove(pieces_.number(), kListName));
    throw failure;
  }
  if (sync) syncFolder(folder_.number(), path_);
  return name;
}

// Nothing is removed unless all that is to be kept is known. What is remembered meanwhile are
// pieces that are there, however many a list names.
size_t PieceFolder::prune(size_t kept) const {
  const std::vector<std::string> names = manifests();
  const size_t surplus = names.size() > kept ? names.size() - kept : 0;
  Names unneeded = pieces();
  for (size_t i = surplus; i < names.size(); ++i) {
    const Manifest manifest = read(names[i]);
    for (size_t piece = 0; piece < manifest.pieceCount(); ++piece) {
      const auto found = unneeded.find(manifest.piece(piece));
      if (found != unneeded.end()) unneeded.erase(found);
    }
  }
  for (size_t i = 0; i < surplus; ++i) {
    removeEntry(folder_.number(), names[i], path_ + "/" + names[i]);
  }
  syncFolder(folder_.number(), path_);
  for (const std::string& name : unneeded) removeEntry(pieces_.number(), name, pathOf(name));
  return unneeded.size();
}

PieceFolder::Names PieceFolder::pieces() const {
  Names names;
  forEachEntry(pieces_.number(), path_ + "/pieces", [&](const std::string& name) {
    if (isHash(name)) names.insert(name);
  });
  return names;
}

}  // namespace qvdb::tool
