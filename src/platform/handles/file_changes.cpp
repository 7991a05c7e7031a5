// What changes when a file is written to.
#include "platform/handles/file_changes.h"

#include "platform/handles/open_files.h"
#include "platform/host/system_calls.h"

namespace qvdbase::platform {
namespace {

int64_t nanoseconds(const struct timespec& time) {
  return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

bool isFresh(const FileStamp& stamp) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto age = now - std::chrono::nanoseconds(stamp.modifyTime);
  const bool isWholeSecond = stamp.modifyTime % 1'000'000'000 == 0;
  const auto tick = isWholeSecond ? kWholeSecondsTick : kFileTimeTick;
  return age < tick && age > -tick;
}

bool stampOfDescriptor(int descriptor, FileStamp* stamp) {
  struct stat status = {};
  if (systemCalls().status(descriptor, &status) != 0) return false;
  *stamp = {status.st_size, nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
  return true;
}

bool stampOf(int16_t file, FileStamp* stamp) {
  const OpenFile* openFile = findOpenFile(file);
  return openFile != nullptr && stampOfDescriptor(descriptorOf(*openFile->entry), stamp);
}

size_t writesHere(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return 0;
  FileEntry* source = openFile->entry->source;
  FileEntry& entry = source != nullptr ? *source : *openFile->entry;
  return std::atomic_ref(entry.writes).load(std::memory_order_relaxed);
}

bool isOnlyWriterHere(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || !openFile->isWritable()) return false;
  return openFile->entry->sharedOpeners + openFile->entry->exclusiveOpeners == 1;
}

}  // namespace qvdbase::platform
