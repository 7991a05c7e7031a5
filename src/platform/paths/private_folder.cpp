// Making and removing the folder.
#include "platform/paths/private_folder.h"

#include <memory>

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"
#include "platform/paths/temporary_name.h"

namespace qvdbase::platform {
namespace {

constexpr mode_t kMode = 0700;

}  // namespace

PrivateFolder::~PrivateFolder() {
  if (!maker_.isOwn()) return;
  if (isOpen_) systemCalls().removeAt(folder_.descriptor(), kFileName, 0);
  if (!name_.empty()) systemCalls().removeAt(parent_.descriptor(), name_.c_str(), AT_REMOVEDIR);
}

bool PrivateFolder::make(const std::string& place) {
  std::string name;
  const bool isMade =
      walkToParent(place, &parent_) != nullptr &&
      makeUnderTemporaryName(&name, [&](const char* each) {
        return systemCalls().makeDirectoryAt(parent_.descriptor(), each, kMode) == 0;
      });
  if (isMade) name_ = name;
  filePath_ = place.substr(0, place.rfind('/') + 1) + name + "/" + kFileName;
  isOpen_ = isMade && folder_.enterOpen(parent_.descriptor()) &&
            folder_.enterNoLink(EntryName(std::string_view(name_)));
  if (!isOpen_) noteHostFailure();
  return isOpen_;
}

FileEntry* PrivateFolder::joinFile() const {
  return joinEntry(folder_, EntryName(std::string_view(kFileName)), Sharing::exclusive);
}

}  // namespace qvdbase::platform
