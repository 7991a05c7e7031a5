// Writes files into a folder, and nowhere else.
#include "folder_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "failure.h"

namespace qvdb::tool {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

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

}  // namespace

FolderWriter::FolderWriter(const std::string& path, const FolderOptions& options)
    : path_(path), options_(options), masked_(options.samePermissions ? 0 : maskOfProcess()) {
  std::error_code error;
  if (options.parents) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  }
  if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
    if (errno != ENOENT || options.parents) throw systemFailure(path, "create the folder");
    throw Failure(path +
                  ": cannot create the folder: a folder in its path does not exist; create it, or "
                  "use --parents");
  }
  root_ = Descriptor(::open(path.c_str(), kFolderFlags));
  if (!root_) throw systemFailure(path, "open the folder");
  wasEmpty_ = isEmptyFolder(path);
}

// The stored permissions without the set-user-ID and set-group-ID bits, and without those that new
// files do not get.
mode_t FolderWriter::modeOf(const ImportedFile& file) const {
  return file.mode & 0777 & ~masked_;
}

std::string FolderWriter::pathOf(std::string_view name) const {
  return path_ + (path_.ends_with('/') ? "" : "/") + std::string(name);
}

Descriptor FolderWriter::openFolder(int from, const std::string& part, const std::string& name,
                                    bool make) {
  Descriptor folder(::openat(from, part.c_str(), kFolderFlags | O_NOFOLLOW));
  if (folder || errno != ENOENT || !make) return folder;
  if (::mkdirat(from, part.c_str(), 0777) != 0 && errno != EEXIST) {
    throw systemFailure(pathOf(name), "create its folder");
  }
  return Descriptor(::openat(from, part.c_str(), kFolderFlags | O_NOFOLLOW));
}

std::string FolderWriter::enterParent(const std::string& name, bool make) {
  if (!isSafeName(name)) {
    throw Failure("the name '" + name + "' leads out of the folder " + path_ +
                  "; nothing is written under it");
  }
  const size_t slash = name.rfind('/');
  const size_t parentSize = slash == std::string::npos ? 0 : slash + 1;
  if (hasParent_ && std::string_view(name).substr(0, parentSize) == parentName_) {
    return name.substr(parentSize);
  }
  hasParent_ = false;
  parent_ = Descriptor(::openat(root_.number(), ".", kFolderFlags));
  for (size_t from = 0; from < parentSize;) {
    const size_t end = name.find('/', from);
    Descriptor next = openFolder(parent_.number(), name.substr(from, end - from), name, make);
    if (!next) {
      if (errno == ELOOP || errno == ENOTDIR) {
        throw Failure(pathOf(name.substr(0, end)) +
                      ": is not a folder, or is a symbolic link, which is not followed");
      }
      if (!make && errno == ENOENT) return {};
      throw systemFailure(pathOf(name.substr(0, end)), "open the folder");
    }
    parent_ = std::move(next);
    from = end + 1;
  }
  parentName_ = name.substr(0, parentSize);
  hasParent_ = true;
  return name.substr(parentSize);
}

void FolderWriter::check(const ImportedFile& file) {
  const std::string last = enterParent(file.name, false);
  if (last.empty()) return;  // its folder does not exist yet
  struct stat status = {};
  if (::fstatat(parent_.number(), last.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  const bool isFolder = S_ISDIR(status.st_mode);
  if (file.kind == FileKind::folder) {
    if (isFolder) return;
    throw Failure(
        pathOf(file.name) +
        ": is not a folder, but should become one; nothing was written; choose another folder");
  }
  if (isFolder)
    throw Failure(
        pathOf(file.name) +
        ": is a folder, but should become a file; nothing was written; choose another folder");
  if (options_.force && S_ISREG(status.st_mode) && status.st_nlink > 1) {
    throw Failure(pathOf(file.name) +
                  ": has several names (hard links), of which only this one would get the new "
                  "file; nothing was written; remove it first");
  }
  if (options_.force && isDatabase(status)) {
    throw Failure(pathOf(file.name) +
                  ": is the database itself; nothing was written; choose another folder");
  }
  if (!options_.force) {
    throw Failure(pathOf(file.name) +
                  ": exists already; nothing was written; use --force to replace it");
  }
}

bool FolderWriter::isDatabase(const struct stat& status) const {
  struct stat database = {};
  return ::stat(options_.database.c_str(), &database) == 0 && database.st_dev == status.st_dev &&
         database.st_ino == status.st_ino;
}

void FolderWriter::makeFolder(const std::string& name) {
  const std::string last = enterParent(name, true);
  if (!openFolder(parent_.number(), last, name, true)) {
    throw systemFailure(pathOf(name), "create the folder");
  }
  written_.insert(parentName_);
}

void FolderWriter::writeFile(const ImportedFile& file, const PieceReader& read) {
  const std::string path = pathOf(file.name);
  const std::string last = enterParent(file.name, true);
  OutputFile out(parent_.number(), last, path,
                 {.overwrite = options_.force, .sync = !options_.noSync});
  writePieces(read, out);
  if (::fchmod(out.descriptor(), modeOf(file)) != 0)
    throw systemFailure(path, "set its permissions");
  if (::futimens(out.descriptor(), Times(file).values) != 0) {
    throw systemFailure(path, "set its time");
  }
  out.place();
  written_.insert(parentName_);
}

// A link that exists is replaced in one step, as a file is.
void FolderWriter::makeLink(const ImportedFile& file) {
  const std::string path = pathOf(file.name);
  const std::string last = enterParent(file.name, true);
  const int folder = parent_.number();
  const std::string made =
      options_.force ? ".qvdb-" + to_string(new_id()).substr(2) + ".tmp" : last;
  if (::symlinkat(file.target.c_str(), folder, made.c_str()) != 0) {
    throw systemFailure(path, "create the symbolic link");
  }
  setTimes(folder, made.c_str(), file, path);
  if (made != last && ::renameat(folder, made.c_str(), folder, last.c_str()) != 0) {
    const Failure failure = systemFailure(path, "replace");
    ::unlinkat(folder, made.c_str(), 0);
    throw failure;
  }
  written_.insert(parentName_);
}

void FolderWriter::sync() {
  if (options_.noSync) return;
  for (const std::string& name : written_) {
    enterParent(name + "x", false);  // any name in it leads there
    if (::fsync(parent_.number()) != 0 && errno != EINVAL)
      throw systemFailure(pathOf(name), "sync");
  }
  if (::fsync(root_.number()) != 0 && errno != EINVAL) throw systemFailure(path_, "sync");
}

void FolderWriter::finishFolder(const ImportedFile& file) {
  const std::string last = enterParent(file.name, true);
  const Descriptor folder = openFolder(parent_.number(), last, file.name, false);
  if (!folder) throw systemFailure(pathOf(file.name), "open the folder");
  setTimes(parent_.number(), last.c_str(), file, pathOf(file.name));
  if (::fchmod(folder.number(), modeOf(file)) != 0) {
    throw systemFailure(pathOf(file.name), "set its permissions");
  }
}

}  // namespace qvdb::tool
