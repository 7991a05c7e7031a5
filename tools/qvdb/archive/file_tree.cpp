// Lists the files of an import.
#include "archive/file_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <unordered_set>

#include "archive/file_fields.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/progress.h"

namespace qvdb::tool {
namespace {

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, FolderCloser>;

bool isSame(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// With `found` no link is followed, and the folder must still be that one; none when it has gone.
Folder openFolder(const std::string& path, const struct stat* found) {
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (found != nullptr ? O_NOFOLLOW : 0);
  const int descriptor = ::open(path.c_str(), flags);
  if (descriptor < 0 && errno == ENOENT && found != nullptr) return nullptr;
  if (descriptor < 0) throw systemFailure(path, "open the folder");
  Folder folder(::fdopendir(descriptor));
  if (!folder) {
    const Failure failure = systemFailure(path, "open the folder");
    ::close(descriptor);
    throw failure;
  }
  struct stat now = {};
  if (::fstat(descriptor, &now) != 0) throw systemFailure(path, "read its properties");
  if (found == nullptr || isSame(now, *found)) return folder;
  throw Failure(path + ": is another folder now than when the files were listed");
}

std::vector<std::string> namesIn(const std::string& path, const struct stat* found) {
  const Folder folder = openFolder(path, found);
  std::vector<std::string> names;
  if (!folder) return names;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(folder.get());
    if (entry == nullptr && errno != 0) throw systemFailure(path, "read the folder");
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string linkTarget(const std::string& path, const struct stat& status) {
  std::string target(static_cast<size_t>(std::max<off_t>(status.st_size, 255)) + 1, '\0');
  for (;;) {
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) throw systemFailure(path, "read the symbolic link");
    if (static_cast<size_t>(length) < target.size()) {
      target.resize(static_cast<size_t>(length));
      return target;
    }
    target.resize(target.size() * 2);
  }
}

class Lister {
 public:
  Lister(const std::string& database, const Excluded& excluded, const FieldChoice& fields,
         Progress* progress)
      : excluded_(excluded), fields_(fields), progress_(progress) {
    tree_.fields = fields;
    hasDatabase_ = ::stat(database.c_str(), &database_) == 0;
  }

  void add(const std::string& path) {
    const std::string name = rootName(path);
    tree_.roots.push_back({path, name});
    if (name.empty()) {
      addContents(path, "", nullptr);
    } else {
      addOne({path, name});
    }
    FoundRoot& root = tree_.roots.back();
    root.isFolder = name.empty() || (!tree_.files.empty() && tree_.files.back().file.name == name &&
                                     tree_.files.back().file.kind == FileKind::folder);
    root.isEmpty = pending_.empty();
    while (!pending_.empty()) {
      const Pending next = std::move(pending_.back());
      pending_.pop_back();
      addOne(next);
    }
  }

  FileTree take() && { return std::move(tree_); }

 private:
  struct Pending {
    std::string path;
    std::string name;
  };

  // The first part of the names below a path; empty for one that means its contents.
  static std::string rootName(std::string_view path) {
    if (path.empty()) throw Failure("a PATH is empty; name a file or a folder");
    if (path.ends_with('/') || path == "." || path.ends_with("/.")) return {};
    const std::string name(path.substr(path.rfind('/') + 1));
    if (name != "..") return name;
    return {};
  }

  // What is in a folder is looked at next, in order of names.
  void addContents(const std::string& path, const std::string& prefix, const struct stat* found) {
    const std::vector<std::string> names = namesIn(path, found);
    const std::string base = path.ends_with('/') ? path : path + "/";
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
      pending_.push_back({base + *name, prefix + *name});
    }
  }

  void addOne(const Pending& found) {
    throwIfInterrupted();
    if (excluded_.has(found.name, false)) return;
    struct stat status = {};
    if (::lstat(found.path.c_str(), &status) != 0) {
      if (errno == ENOENT && !isRoot(found)) return;
      throw systemFailure(found.path, "access");
    }
    if (excluded_.has(found.name, S_ISDIR(status.st_mode))) return;
    if (isDatabase(status)) return leaveOut(found.path + " (the database itself)");
    FoundFile file;
    file.file = propertiesOf(status, found.name);
    switch (status.st_mode & S_IFMT) {
      case S_IFREG:
        file.path = found.path;
        file.size = static_cast<uint64_t>(status.st_size);
        file.device = status.st_dev;
        file.inode = status.st_ino;
        break;
      case S_IFDIR:
        file.file.kind = FileKind::folder;
        break;
      case S_IFLNK:
        file.file.kind = FileKind::link;
        file.file.target = linkTarget(found.path, status);
        break;
      default:
        return leaveOut(found.path + " (not a file, folder or symbolic link)");
    }
    file.file.fields = fields_.of(found.path, found.name, status);
    const bool isFolder = file.file.kind == FileKind::folder;
    tree_.files.push_back(std::move(file));
    if (progress_ != nullptr) progress_->step();
    if (isFolder) addContents(found.path, found.name + "/", &status);
  }

  bool isRoot(const Pending& found) const { return found.path == tree_.roots.back().path; }

  bool isDatabase(const struct stat& status) const {
    return hasDatabase_ && isSame(status, database_);
  }

  void leaveOut(const std::string& path) { tree_.leftOut.push_back(path); }

  struct stat database_ = {};
  bool hasDatabase_ = false;
  const Excluded& excluded_;
  FieldReader fields_;
  Progress* progress_;
  std::vector<Pending> pending_;
  FileTree tree_;
};

void refuseDoubles(const FileTree& tree) {
  std::unordered_set<std::string_view> names;
  names.reserve(tree.files.size());
  for (const FoundFile& found : tree.files) {
    if (names.insert(found.file.name).second) continue;
    throw Failure("two of the paths have a file that would be named '" + found.file.name +
                  "'; import them one after the other, or into different tables");
  }
}

}  // namespace

FileTree listFiles(const std::vector<std::string>& paths, const std::string& database,
                   const Excluded& excluded, const FieldChoice& fields) {
  Progress progress("listing", 0, "files");
  Lister lister(database, excluded, fields, &progress);
  for (const std::string& path : paths) lister.add(path);
  FileTree tree = std::move(lister).take();
  if (paths.size() > 1) refuseDoubles(tree);
  return tree;
}

ImportedFile propertiesOf(const struct stat& status, std::string name) {
  ImportedFile file;
  file.mode = static_cast<uint16_t>(status.st_mode & 07777);
  file.seconds = status.st_mtim.tv_sec;
  file.nanoseconds = static_cast<uint32_t>(status.st_mtim.tv_nsec);
  file.name = std::move(name);
  return file;
}

}  // namespace qvdb::tool
