// Walks inside a folder.
#include "archive/folder_walk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "archive/imported_entry.h"
#include "streams/failure.h"

namespace qvdb::tool {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

}  // namespace

FolderWalk::FolderWalk(const std::string& path)
    : path_(path), root_(::open(path.c_str(), kFolderFlags)) {
  if (!root_) throw systemFailure(path, "open the folder");
}

std::string FolderWalk::pathOf(std::string_view name) const {
  return path_ + (path_.ends_with('/') ? "" : "/") + std::string(name);
}

Descriptor FolderWalk::openFolder(const std::string& part, const std::string& name, bool make) {
  const int from = parent_.number();
  Descriptor folder(::openat(from, part.c_str(), kFolderFlags | O_NOFOLLOW));
  if (folder || errno != ENOENT || !make) return folder;
  if (::mkdirat(from, part.c_str(), 0777) != 0 && errno != EEXIST) {
    throw systemFailure(pathOf(name), "create its folder");
  }
  return Descriptor(::openat(from, part.c_str(), kFolderFlags | O_NOFOLLOW));
}

std::string FolderWalk::enterParent(const std::string& name, bool make) {
  if (!qvdbase::format::imported::isSafeName(name)) {
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
    Descriptor next = openFolder(name.substr(from, end - from), name, make);
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

}  // namespace qvdb::tool
