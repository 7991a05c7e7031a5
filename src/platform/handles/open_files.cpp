// File reference numbers and their positions.
#include "platform/handles/open_files.h"

#include <atomic>

#include "platform/host/lock.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {

// Zeros, and never destroyed: static objects of the application may still close files.
constinit OpenFile detail::openFiles[kLargestFileNumber + 1] = {};

namespace {

// No number below this one is free. Under the lock of the handles, as whether a number is free.
constinit int lowestCandidate = 1;

OpenFile* lowestFreeNumber(int16_t* number) {
  while (lowestCandidate <= kLargestFileNumber &&
         detail::openFiles[lowestCandidate].entry != nullptr) {
    ++lowestCandidate;
  }
  if (lowestCandidate > kLargestFileNumber) return nullptr;
  *number = static_cast<int16_t>(lowestCandidate);
  return &detail::openFiles[lowestCandidate];
}

bool hasFreeNumber() {
  const SharedLock lock(Shared::handles);
  int16_t unused = 0;
  return lowestFreeNumber(&unused) != nullptr;
}

bool openAs(const Directory& directory, const EntryName& name, Sharing sharing, int16_t* file) {
  if (!hasFreeNumber()) return false;
  FileEntry* entry = joinEntry(directory, name, sharing);
  if (entry == nullptr) return false;
  if (openEntry(entry, sharing, file)) return true;
  leaveEntry(entry, sharing);  // other threads have taken the last numbers
  return false;
}

// Adds two positions. False when the sum is negative or too large.
bool addPositions(int64_t base, int64_t offset, int64_t* sum) {
  return !__builtin_add_overflow(base, offset, sum) && *sum >= 0;
}

}  // namespace

std::optional<Sharing> sharingOf(int permission) {
  switch (static_cast<int8_t>(permission)) {
    case 0:
    case 1:
      return Sharing::none;
    case 2:
    case 3:
      return Sharing::exclusive;
    case 4:
      return Sharing::shared;
    default:
      return std::nullopt;
  }
}

bool openFile(const Directory& directory, const EntryName& name, int permission, int16_t* file) {
  const std::optional<Sharing> sharing = sharingOf(permission);
  if (!sharing) return false;
  const bool isAny = static_cast<int8_t>(permission) == 0;
  return (isAny && openAs(directory, name, Sharing::shared, file)) ||
         openAs(directory, name, *sharing, file);
}

bool openEntry(FileEntry* entry, Sharing sharing, int16_t* file) {
  const Turn turn(*entry->turn);
  const Turn numbers(turnOfFreeNumbers());
  const SharedLock lock(Shared::handles);
  int16_t number = 0;
  OpenFile* openFile = lowestFreeNumber(&number);
  if (openFile == nullptr) return false;
  openFile->entry = entry;
  openFile->position = 0;
  openFile->descriptor = descriptorOf(*entry);
  openFile->sharing = sharing;
  openFile->opener = thisThread();
  openFile->mirror = nullptr;
  openFile->stage = nullptr;
  std::atomic_ref(openFile->turn).store(entry->turn, std::memory_order_release);
  *file = number;
  return true;
}

uint32_t writersOf(int16_t file) {
  const Turn turn(file);
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return 0;
  return openFile->entry->sharedOpeners + openFile->entry->exclusiveOpeners;
}

bool wasOpenedHere(int16_t file) {
  const Turn turn(file);
  const OpenFile* openFile = findOpenFile(file);
  return openFile != nullptr && openFile->opener == thisThread();
}

bool closeFile(int16_t file) {
  const Turn turn(file);
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return false;
  FileEntry* entry = openFile->entry;
  const Sharing sharing = openFile->sharing;
  forgetTransfers(entry);
  openFile->mirror = nullptr;
  openFile->stage = nullptr;
  if (sharing == Sharing::exclusive) dropMirror(entry);  // others may write to it from now on
  {
    const SharedLock lock(Shared::handles);
    openFile->entry = nullptr;
    std::atomic_ref(openFile->turn).store(nullptr, std::memory_order_release);
    if (file < lowestCandidate) lowestCandidate = file;
  }
  return leaveEntry(entry, sharing);
}

bool seekFile(int16_t file, uint16_t mode, int64_t offset) {
  const Turn turn(file);
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return false;
  int64_t base = 0;
  switch (mode) {
    case kFromNowhere:
      return true;
    case kFromStart:
      break;
    case kFromEnd:
      if (!fileLength(*openFile, &base)) return false;
      break;
    case kFromCurrent:
      base = openFile->position;
      break;
    default:
      return false;
  }
  int64_t position = 0;
  if (!addPositions(base, offset, &position)) return false;
  openFile->position = position;
  return true;
}

}  // namespace qvdbase::platform
