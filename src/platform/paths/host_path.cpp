// Walking a whole path of the host.
#include "platform/paths/host_path.h"

namespace qvdbase::platform {

std::unique_ptr<EntryName> walkToParent(const std::string& path, Directory* directory) {
  if (path.empty() || path.front() != '/' || !directory->enterRoot()) return nullptr;
  const std::string_view all = path;
  size_t start = 1;
  for (size_t slash; (slash = all.find('/', start)) != all.npos; start = slash + 1) {
    if (!directory->enter(EntryName(all.substr(start, slash - start)))) return nullptr;
  }
  if (start == all.size()) return nullptr;
  auto name = std::make_unique<EntryName>(all.substr(start));
  return name->isValid() ? std::move(name) : nullptr;
}

}  // namespace qvdbase::platform
