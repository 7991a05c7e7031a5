#include "qvdb/salvage/new_folder.h"

#include <algorithm>
#include <system_error>

namespace qvdbase::salvage {

namespace fs = std::filesystem;

NewFolder::~NewFolder() {
  if (isKept_ || !maker_.isOwn()) return;
  std::error_code ignored;
  std::for_each(made_.rbegin(), made_.rend(),
                [&](const fs::path& each) { fs::remove(each, ignored); });
}

// One by one, so that no more than these are removed again.
bool NewFolder::make() {
  std::error_code error;
  fs::path path;
  for (const fs::path& part : path_) {
    path /= part;
    if (fs::create_directory(path, error)) made_.push_back(path);
  }
  return fs::is_directory(path_, error);
}

bool isTaken(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

}  // namespace qvdbase::salvage
