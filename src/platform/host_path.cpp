// Walking a whole path of the host.
#include "platform/host_path.h"

#include <vector>

namespace qvdbase::platform {
namespace {

// Null when the bytes are no name.
std::unique_ptr<EntryName> nameFrom(const std::string& component) {
  std::vector<QVWCHAR> name(component.size() + 1);
  if (!utf16FromUtf8(component.data(), component.size(), name.data(), name.size())) return nullptr;
  auto entry = std::make_unique<EntryName>(name.data());
  return entry->isValid() ? std::move(entry) : nullptr;
}

}  // namespace

std::unique_ptr<EntryName> walkToParent(const std::string& path, Directory* directory) {
  if (path.empty() || path.front() != '/' || !directory->enterRoot()) return nullptr;
  size_t start = 1;
  for (size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
    const std::unique_ptr<EntryName> entry = nameFrom(path.substr(start, slash - start));
    if (!entry || !directory->enter(*entry)) return nullptr;
  }
  return start < path.size() ? nameFrom(path.substr(start)) : nullptr;
}

}  // namespace qvdbase::platform
