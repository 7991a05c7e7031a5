// Making and writing a new file.
#include "platform/new_file.h"

#include <memory>

#include "platform/file_creation.h"
#include "platform/host_failure.h"
#include "platform/host_path.h"
#include "platform/system_calls.h"

namespace qvdbase::platform {

NewFile::~NewFile() {
  if (entry_ != nullptr) leaveEntry(entry_, Sharing::exclusive);
}

bool NewFile::create(const std::string& path) {
  Directory directory;
  const std::unique_ptr<EntryName> name = walkToParent(path, &directory);
  if (entry_ != nullptr || !name || !createFile(directory, *name)) return false;
  entry_ = joinEntry(directory, *name, Sharing::exclusive);
  return entry_ != nullptr;
}

// The owner first: changing it can take permissions away. Only a privileged process may give files
// away; another one that copies its own file has nothing to change.
bool NewFile::setAccess(const FileAccess& access) {
  const int descriptor = descriptorOf(*entry_);
  static_cast<void>(systemCalls().changeOwner(descriptor, access.owner, access.group));
  return systemCalls().changeMode(descriptor, static_cast<mode_t>(access.mode)) == 0;
}

bool NewFile::writeAt(int64_t position, const void* bytes, size_t count) {
  const auto limit = systemCalls().fileSizeLimit();
  for (size_t done = 0; done < count;) {
    const int64_t place = position + static_cast<int64_t>(done);
    if (static_cast<uint64_t>(place) + (count - done) > limit) {
      noteHostFailure(EFBIG);
      return false;
    }
    const ssize_t moved = uninterrupted([&] {
      return systemCalls().writeAt(descriptorOf(*entry_), static_cast<const char*>(bytes) + done,
                                   count - done, place);
    });
    if (moved <= 0) {
      noteHostFailure(moved < 0 ? errno : ENOSPC);
      return false;
    }
    done += static_cast<size_t>(moved);
  }
  return true;
}

bool NewFile::finish() {
  const bool synced = systemCalls().sync(descriptorOf(*entry_)) == 0;
  if (!synced) noteHostFailure();
  FileEntry* entry = entry_;
  entry_ = nullptr;
  return leaveEntry(entry, Sharing::exclusive) && synced;
}

}  // namespace qvdbase::platform
