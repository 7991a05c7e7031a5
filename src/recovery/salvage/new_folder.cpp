#include "recovery/salvage/new_folder.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "failure/failure.h"
#include "products/target_file.h"

namespace qvdbase::salvage {

namespace fs = std::filesystem;

NewFolder::~NewFolder() {
  if (isKept_ || !maker_.isOwn()) return;
  std::error_code ignored;
  std::for_each(made_.rbegin(), made_.rend(),
                [&](const fs::path& each) { fs::remove(each, ignored); });
}

void NewFolder::requireFree(const std::string& name, const char* operation) const {
  if (!isTaken(fileNamed(name))) return;
  qvdb::ErrorDetails details;
  details.remedy = qvdb::Remedy::other_folder;
  failure::throwError(fileNamed(name), operation, qvdb::Reason::file_exists, std::move(details));
}

// One folder at a time, to know which of them are new: only these are removed again.
void NewFolder::make(const char* operation, bool parents, qvdb::Reason reason) {
  std::error_code error;
  if (!parents && !fs::is_directory(path_, error)) {
    products::requireFolder((path_ / "").parent_path(), operation, products::Missing::fail);
  }
  fs::path path;
  std::error_code refusal;  // the last one, which is about the folder itself or one in its path
  for (const fs::path& part : path_) {
    path /= part;
    if (fs::create_directory(path, error)) made_.push_back(path);
    if (error) refusal = error;
  }
  if (fs::is_directory(path_, error)) return;
  if (isTaken(path_)) {
    failure::throwError(path_, operation, reason, "something that is no folder has that name");
  }
  failure::throwFolderFailure(path_, operation, "the folder cannot be created", refusal);
}

bool isTaken(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

}  // namespace qvdbase::salvage
