// Finding who holds a lock.
#include "platform/handles/byte_holder.h"

#include "platform/handles/open_files.h"
#include "platform/host/system_calls.h"

namespace qvdbase::platform {

// Where locks belong to open file descriptions, the query for them does not name a process.
LockHolder holderOfLock(int descriptor, const struct stat& status, const struct flock& wanted) {
  LockHolder holder;
  struct flock lock = wanted;
  if (systemCalls().findLock(descriptor, &lock) != 0 || lock.l_type == F_UNLCK) return holder;
  holder.process = lock.l_pid > 0 ? lock.l_pid
                                  : systemCalls().lockHolder(status.st_dev, status.st_ino,
                                                             wanted.l_start + wanted.l_len);
  char name[64] = {};
  if (holder.process > 0 &&
      systemCalls().processName(static_cast<pid_t>(holder.process), name, sizeof name)) {
    holder.name = name;
  }
  return holder;
}

LockHolder holderOfByte(int16_t file, LockByte byte) {
  const Turn turn(file);
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return {};
  struct stat status = {};
  const int descriptor = descriptorOf(*openFile->entry);
  if (systemCalls().status(descriptor, &status) != 0) return {};
  struct flock wanted = {};
  wanted.l_type = F_WRLCK;
  wanted.l_whence = SEEK_SET;
  wanted.l_start = kFirstLockByte + static_cast<int64_t>(byte);
  wanted.l_len = 1;
  return holderOfLock(descriptor, status, wanted);
}

std::string inParentheses(const LockHolder& holder) {
  if (holder.process <= 0) return {};
  std::string text = " (";
  text += std::to_string(holder.process);
  if (!holder.name.empty()) text += ", " + holder.name;
  return text + ")";
}

}  // namespace qvdbase::platform
