// Opens the files that an import has listed.
#include "archive/found_file_opener.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "streams/failure.h"

namespace qvdb::tool {
namespace {

constexpr int kFileFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;

[[noreturn]] void failFor(const std::string& path, const char* what) {
  if (errno != ENOENT) throw systemFailure(path, what);
  throw Disappeared(path + ": has disappeared since the files were listed");
}

[[noreturn]] void failForFolder(const std::string& path) {
  if (errno != ELOOP && errno != ENOTDIR) failFor(path, "open the folder");
  throw Failure(path + ": was a folder when the files were listed, and is something else now");
}

}  // namespace

// Opens the folder part by part. The first `named` characters are what the user named: links in
// them are followed.
void FoundFileOpener::enterFolder(const std::string& folder, size_t named) {
  if (folder_ && path_ == folder) return;
  path_.clear();
  Descriptor at;
  for (size_t from = named; from < folder.size();) {
    const size_t end = std::min(folder.find('/', from), folder.size());
    const size_t start = from == named ? 0 : from;
    const std::string part = folder.substr(start, end - start);
    Descriptor next(::openat(at ? at.number() : AT_FDCWD, part.c_str(), kFolderFlags));
    if (!next) failForFolder(folder.substr(0, end));
    at = std::move(next);
    from = end + 1;
  }
  folder_ = std::move(at);
  path_ = folder;
}

Descriptor FoundFileOpener::open(const FoundFile& found, struct stat* status) {
  const std::string& path = found.path;
  const size_t named = path.size() - found.file.name.size();
  const size_t slash = path.rfind('/');
  const bool isInFolder = slash != std::string::npos && slash > named;
  if (isInFolder) enterFolder(path.substr(0, slash), named);
  const std::string last = isInFolder ? path.substr(slash + 1) : path;
  Descriptor file(::openat(isInFolder ? folder_.number() : AT_FDCWD, last.c_str(), kFileFlags));
  if (!file) failFor(path, "open");
  if (::fstat(file.number(), status) != 0) throw systemFailure(path, "read its properties");
  if (!S_ISREG(status->st_mode)) throw Failure(path + ": is not a file any more");
  if (status->st_dev != found.device || status->st_ino != found.inode) {
    throw Failure(path + ": is another file now than when the files were listed");
  }
  return file;
}

}  // namespace qvdb::tool
