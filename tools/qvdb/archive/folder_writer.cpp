// Writes files into a folder, and nowhere else.
#include "archive/folder_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "streams/failure.h"
#include "streams/text.h"
#include "streams/waiting.h"

namespace qvdb::tool {
namespace {

bool isEmptyFolder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_empty(path, error) && !error;
}

// The umask can only be read by setting it.
mode_t maskOfProcess() {
  const mode_t mask = ::umask(0777);
  ::umask(mask);
  return mask;
}

struct Times {
  timespec values[2] = {};

  explicit Times(const ImportedFile& file) {
    values[0].tv_nsec = UTIME_OMIT;
    values[1].tv_sec = static_cast<time_t>(file.seconds);
    values[1].tv_nsec = static_cast<long>(file.nanoseconds);
  }
};

void setTimes(int folder, const char* name, const ImportedFile& file, const std::string& path) {
  if (::utimensat(folder, name, Times(file).values, AT_SYMLINK_NOFOLLOW) != 0) {
    throw systemFailure(path, "set its time");
  }
}

// The folders that get a new entry when the path is created.
std::vector<std::filesystem::path> changedBy(const std::string& path) {
  std::error_code error;
  std::vector<std::filesystem::path> changed;
  std::filesystem::path at = std::filesystem::absolute(path, error);
  if (!at.has_filename()) at = at.parent_path();
  while (at.has_relative_path() && !std::filesystem::exists(at, error)) {
    at = at.parent_path();
    changed.push_back(at);
  }
  return changed;
}

// Waits until the device has the names in the folder. One that must not be read cannot be synced.
void syncFolder(const std::string& path) {
  const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder && errno == EACCES) return;
  if (!folder) throw systemFailure(path, "open the folder");
  if (::fsync(folder.number()) != 0 && errno != EINVAL) throw systemFailure(path, "sync");
}

// Creates the folder unless it exists. Returns the path.
const std::string& createdFolder(const std::string& path, bool parents) {
  std::error_code error;
  if (parents) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  }
  if (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) return path;
  if (errno != ENOENT || parents) throw systemFailure(path, "create the folder");
  throw Failure(path +
                ": cannot create the folder: a folder in its path does not exist; create it, or "
                "use --parents");
}

}  // namespace

FolderWriter::FolderWriter(const std::string& path, const FolderOptions& options)
    : options_(options),
      masked_(options.samePermissions ? 0 : maskOfProcess()),
      parents_(changedBy(path)),
      walk_(createdFolder(path, options.parents)),
      wasEmpty_(isEmptyFolder(path)),
      fields_(options.fields) {}

// The stored permissions without those that new files do not get. With set-id bits and the sticky
// bit only where all permissions are to be the same; and where it is known to whom the file
// belonged, only if it belongs to them again: a program of one user must not run for another.
mode_t FolderWriter::modeOf(const ImportedFile& file, const struct stat& status) const {
  if (!options_.samePermissions) return file.mode & 0777 & ~masked_;
  constexpr mode_t kSetId = S_ISUID | S_ISGID;
  const auto owner = ownerIn(file.fields);
  const bool hasOther = owner && !options_.fields.owners &&
                        (owner->user != status.st_uid || owner->group != status.st_gid);
  return hasOther ? file.mode & 07777 & ~kSetId : file.mode & 07777;
}

void FolderWriter::setFields(int opened, const ImportedFile& file, const std::string& path) {
  fields_.setOwner(opened, file.fields, path);
  fields_.setAttributes(opened, file.fields, path, options_.samePermissions);
}

FileIdentity FolderWriter::setMode(int opened, const ImportedFile& file, const std::string& path) {
  struct stat status = {};
  if (::fstat(opened, &status) != 0) throw systemFailure(path, "read its properties");
  if (::fchmod(opened, modeOf(file, status)) != 0) throw systemFailure(path, "set its permissions");
  return {status.st_dev, status.st_ino};
}

void FolderWriter::check(const ImportedFile& file) {
  const std::string last = walk_.enterParent(file.name, false);
  if (last.empty()) return;  // its folder does not exist yet
  struct stat status = {};
  if (::fstatat(walk_.parent(), last.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  const bool isFolder = S_ISDIR(status.st_mode);
  if (file.kind == FileKind::folder) {
    if (isFolder) return;
    throw Failure(
        walk_.pathOf(file.name) +
        ": is not a folder, but should become one; nothing was written; choose another folder");
  }
  if (isFolder)
    throw Failure(
        walk_.pathOf(file.name) +
        ": is a folder, but should become a file; nothing was written; choose another folder");
  if (options_.force && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
    throw Failure(walk_.pathOf(file.name) +
                  ": is no file, but a pipe, a socket or a device; nothing was written; choose "
                  "another folder");
  }
  if (options_.force && S_ISREG(status.st_mode) && status.st_nlink > 1) {
    throw Failure(walk_.pathOf(file.name) +
                  ": has several names (hard links), of which only this one would get the new "
                  "file; nothing was written; remove it first");
  }
  if (options_.force && isDatabase(status)) {
    throw Failure(walk_.pathOf(file.name) +
                  ": is the database itself; nothing was written; choose another folder");
  }
  if (!options_.force) {
    throw Failure(walk_.pathOf(file.name) +
                  ": exists already; nothing was written; use --force to replace it");
  }
}

bool FolderWriter::isDatabase(const struct stat& status) const {
  struct stat database = {};
  return ::stat(options_.database.c_str(), &database) == 0 && database.st_dev == status.st_dev &&
         database.st_ino == status.st_ino;
}

// The folders above can be new, too.
void FolderWriter::noteWritten() {
  std::string name = walk_.parentName();
  while (written_.insert(name).second && !name.empty()) {
    name.pop_back();
    name.erase(name.rfind('/') + 1);
  }
}

void FolderWriter::makeFolder(const std::string& name) {
  const std::string last = walk_.enterParent(name, true);
  if (!walk_.openFolder(last, name, true)) {
    throw systemFailure(walk_.pathOf(name), "create the folder");
  }
  noteWritten();
}

FileIdentity FolderWriter::writeFile(const ImportedFile& file, const PieceReader& read) {
  const std::string path = walk_.pathOf(file.name);
  const std::string last = walk_.enterParent(file.name, true);
  OutputFile out = whileInUse([&] {
    return OutputFile(walk_.parent(), last, path,
                      {.overwrite = options_.force, .sync = !options_.noSync});
  });
  writePieces(read, out);
  setFields(out.descriptor(), file, path);
  const FileIdentity identity = setMode(out.descriptor(), file, path);
  if (::futimens(out.descriptor(), Times(file).values) != 0) {
    throw systemFailure(path, "set its time");
  }
  out.place();
  noteWritten();
  return identity;
}

bool FolderWriter::makeHardLink(const ImportedFile& file, const ImportedFile& first,
                                const FileIdentity& identity) {
  const std::string path = walk_.pathOf(file.name);
  const std::string firstLast = walk_.enterParent(first.name, false);
  const Descriptor firstFolder(firstLast.empty() ? -1
                                                 : ::fcntl(walk_.parent(), F_DUPFD_CLOEXEC, 3));
  if (!firstFolder) return false;
  const std::string last = walk_.enterParent(file.name, true);
  const int folder = walk_.parent();
  const std::string made = ".qvdb-" + to_string(new_id()).substr(2) + ".tmp";
  if (::linkat(firstFolder.number(), firstLast.c_str(), folder, made.c_str(), 0) != 0) {
    if (refusedLinks_ == 0) {
      complain(path + ": cannot be made another name of '" + escaped(first.name) +
               "': " + std::strerror(errno) + "; such files are written as files of their own");
    }
    ++refusedLinks_;
    return false;
  }
  struct stat status = {};
  const bool isIt = ::fstatat(folder, made.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                    status.st_dev == identity.device && status.st_ino == identity.inode;
  const bool isPlaced =
      isIt && (options_.force ? ::renameat(folder, made.c_str(), folder, last.c_str())
                              : ::linkat(folder, made.c_str(), folder, last.c_str(), 0)) == 0;
  const Failure failure = systemFailure(path, "create");
  ::unlinkat(folder, made.c_str(), 0);  // after renameat() it is gone already
  if (isIt && !isPlaced) throw failure;
  if (isIt) noteWritten();
  return isIt;
}

// A link that exists is replaced in one step, as a file is.
void FolderWriter::makeLink(const ImportedFile& file) {
  const std::string path = walk_.pathOf(file.name);
  const std::string last = walk_.enterParent(file.name, true);
  const int folder = walk_.parent();
  const std::string made =
      options_.force ? ".qvdb-" + to_string(new_id()).substr(2) + ".tmp" : last;
  if (::symlinkat(file.target.c_str(), folder, made.c_str()) != 0) {
    throw systemFailure(path, "create the symbolic link");
  }
  try {
    fields_.setOwnerOfLink(folder, made.c_str(), file.fields, path);
    setTimes(folder, made.c_str(), file, path);
  } catch (const Failure&) {
    ::unlinkat(folder, made.c_str(), 0);
    throw;
  }
  if (made != last && ::renameat(folder, made.c_str(), folder, last.c_str()) != 0) {
    const Failure failure = systemFailure(path, "replace");
    ::unlinkat(folder, made.c_str(), 0);
    throw failure;
  }
  noteWritten();
}

void FolderWriter::sync() {
  if (options_.noSync) return;
  for (const std::string& name : written_) {
    walk_.enterParent(name + "x", false);  // any name in it leads there
    if (::fsync(walk_.parent()) != 0 && errno != EINVAL)
      throw systemFailure(walk_.pathOf(name), "sync");
  }
  if (::fsync(walk_.root()) != 0 && errno != EINVAL) throw systemFailure(walk_.path(), "sync");
  for (const std::filesystem::path& parent : parents_) syncFolder(parent.native());
}

void FolderWriter::finishFolder(const ImportedFile& file) {
  const std::string last = walk_.enterParent(file.name, true);
  const Descriptor folder = walk_.openFolder(last, file.name, false);
  if (!folder) throw systemFailure(walk_.pathOf(file.name), "open the folder");
  const std::string path = walk_.pathOf(file.name);
  setFields(folder.number(), file, path);
  setTimes(walk_.parent(), last.c_str(), file, path);
  setMode(folder.number(), file, path);
}

}  // namespace qvdb::tool
