#include "platform/handles/descriptor_path.h"

#include "platform/handles/file_entries.h"
#include "platform/handles/open_files.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"

namespace qvdbase::platform {

std::string descriptorPath(int16_t file) {
  const Turn turn(file);
  const OpenFile* open = findOpenFile(file);
  if (open == nullptr) return {};
  const FileEntry& entry = *open->entry;
  const int descriptor = entry.readWrite >= 0 ? entry.readWrite : entry.readOnly;
  std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  Directory folder;
  const auto name = walkToParent(path, &folder);
  struct stat status = {};
  const bool isSame = name != nullptr &&
                      systemCalls().statusAt(folder.descriptor(), name->bytes(), &status, 0) == 0 &&
                      status.st_dev == entry.device && status.st_ino == entry.inode;
  return isSame ? path : std::string();
}

}  // namespace qvdbase::platform
