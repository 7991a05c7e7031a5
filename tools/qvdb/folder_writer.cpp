// Writes files into a folder, and nowhere else.
#include "qvdb/folder_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "qvdb/failure.h"

namespace qvdb::tool {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool isEmptyFolder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_empty(path, error) && !error;
}

// Permissions that a file from elsewhere may bring: not those to act in its owner's name.
mode_t modeOf(const ImportedFile& file) {
  return file.mode & 0777;
}

void setTimes(int folder, const char* name, const ImportedFile& file, const std::string& path) {
  timespec times[2] = {};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(file.seconds);
  times[1].tv_nsec = static_cast<long>(file.nanoseconds);
  if (::utimensat(folder, name, times, AT_SYMLINK_NOFOLLOW) != 0) {
    throw systemFailure(path, "set its time");
  }
}

}  // namespace

FolderWriter::FolderWriter(const std::string& path, bool force) : path_(path), force_(force) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  root_ = Descriptor(::open(path.c_str(), kFolderFlags));
  if (!root_) throw systemFailure(path, "open the folder");
  wasEmpty_ = isEmptyFolder(path);
}

std::string FolderWriter::pathOf(std::string_view name) const {
  return path_ + (path_.ends_with('/') ? "" : "/") + std::string(name);
}

Descriptor FolderWriter::openFolder(int from, const std::string& part, const std::string& name,
                                    bool make) {
  Descriptor folder(::openat(from, part.c_str(), kFolderFlags | O_NOFOLLOW));
  if (folder || errno != ENOENT || !make) return folder;
  if (::mkdirat(from, part.c_str(), 0777) != 0 && errno != EEXIST) {
    throw systemFailure(pathOf(name), "make a folder for it");
  }
  return Descriptor(::openat(from, part.c_str(), kFolderFlags | O_NOFOLLOW));
}

std::string FolderWriter::enterParent(const std::string& name, bool make) {
  if (!isSafeName(name)) {
    throw Failure("'" + name + "' is a name that would lead out of the folder " + path_ +
                  "; nothing is written under it");
  }
  const std::size_t slash = name.rfind('/');
  const std::size_t parentSize = slash == std::string::npos ? 0 : slash + 1;
  if (hasParent_ && std::string_view(name).substr(0, parentSize) == parentName_) {
    return name.substr(parentSize);
  }
  hasParent_ = false;
  parent_ = Descriptor(::openat(root_.number(), ".", kFolderFlags));
  for (std::size_t from = 0; from < parentSize;) {
    const std::size_t end = name.find('/', from);
    Descriptor next = openFolder(parent_.number(), name.substr(from, end - from), name, make);
    if (!next) {
      if (errno == ELOOP || errno == ENOTDIR) {
        throw Failure(pathOf(name.substr(0, end)) +
                      ": is no folder, or a symbolic link, and is not gone through");
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
  if (last.empty()) return;  // its folder is not there yet
  struct stat status = {};
  if (::fstatat(parent_.number(), last.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  const bool isFolder = S_ISDIR(status.st_mode);
  if (file.kind == FileKind::folder) {
    if (isFolder) return;
    throw Failure(pathOf(file.name) + ": is in the way of a folder; nothing was written");
  }
  if (isFolder) throw Failure(pathOf(file.name) + ": is a folder; nothing was written");
  if (!force_) {
    throw Failure(pathOf(file.name) +
                  ": exists already; nothing was written; use --force to replace what is there");
  }
}

void FolderWriter::makeFolder(const std::string& name) {
  const std::string last = enterParent(name, true);
  if (!openFolder(parent_.number(), last, name, true)) {
    throw systemFailure(pathOf(name), "make the folder");
  }
}

void FolderWriter::writeFile(const ImportedFile& file, const PieceReader& read) {
  const std::string path = pathOf(file.name);
  const std::string last = enterParent(file.name, true);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
  // A file that is there is replaced only when the new one is complete.
  std::string written = last;
  Descriptor out(::openat(parent_.number(), written.c_str(), kFlags, 0600));
  if (!out && errno == EEXIST && force_) {
    written = ".qvdb-" + std::to_string(::getpid());
    out = Descriptor(::openat(parent_.number(), written.c_str(), kFlags, 0600));
  }
  if (!out) throw systemFailure(path, "create");
  try {
    writePieces(read, out.number(), path);
    if (::fchmod(out.number(), modeOf(file)) != 0) throw systemFailure(path, "set its permissions");
    setTimes(parent_.number(), written.c_str(), file, path);
    if (written != last &&
        ::renameat(parent_.number(), written.c_str(), parent_.number(), last.c_str()) != 0) {
      throw systemFailure(path, "replace");
    }
  } catch (...) {
    ::unlinkat(parent_.number(), written.c_str(), 0);
    throw;
  }
}

void FolderWriter::makeLink(const ImportedFile& file) {
  const std::string path = pathOf(file.name);
  const std::string last = enterParent(file.name, true);
  if (force_) ::unlinkat(parent_.number(), last.c_str(), 0);
  if (::symlinkat(file.target.c_str(), parent_.number(), last.c_str()) != 0) {
    throw systemFailure(path, "make the symbolic link");
  }
  setTimes(parent_.number(), last.c_str(), file, path);
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
