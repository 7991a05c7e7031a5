#include "platform/handles/current_name.h"

#include "platform/handles/open_files.h"
#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/paths/host_path.h"

namespace qvdbase::platform {

NameOf lookAtPath(int16_t file, const std::string& path) {
  const Turn turn(file);
  const OpenFile* open = findOpenFile(file);
  if (open == nullptr) return NameOf::anotherOrNone;
  Directory folder;
  errno = 0;
  const auto name = walkToParent(path, &folder);
  if (name == nullptr && (errno == ENOENT || errno == ENOTDIR)) return NameOf::anotherOrNone;
  if (name != nullptr && folder.descriptor() < 0) return NameOf::anotherOrNone;  // of no folder
  const FileEntry& entry = *open->entry;
  const NameOf found =
      name == nullptr ? NameOf::unknown : lookAtName(folder, *name, entry.device, entry.inode);
  if (found == NameOf::unknown) noteHostFailure();
  return found;
}

}  // namespace qvdbase::platform
