// File reference numbers and their positions.
#include "platform/handles/open_files.h"

#include "platform/transfer/transfer.h"

namespace qvdbase::platform {

// Zeros, and never destroyed: static objects of the application may still close files.
constinit OpenFile detail::openFiles[kLargestFileNumber + 1] = {};

namespace {

// No number below this one is free.
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

bool openAs(const Directory& directory, const EntryName& name, Sharing sharing, int16_t* file) {
  int16_t number = 0;
  if (lowestFreeNumber(&number) == nullptr) return false;
  FileEntry* entry = joinEntry(directory, name, sharing);
  return entry != nullptr && openEntry(entry, sharing, file);
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
  int16_t number = 0;
  OpenFile* openFile = lowestFreeNumber(&number);
  if (openFile == nullptr) return false;
  *openFile = {entry, 0, descriptorOf(*entry), sharing, {}};
  *file = number;
  return true;
}

uint32_t writersOf(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return 0;
  return openFile->entry->sharedOpeners + openFile->entry->exclusiveOpeners;
}

bool closeFile(int16_t file) {
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return false;
  const OpenFile closing = *openFile;
  forgetTransfers(closing.entry);
  *openFile = {};
  if (file < lowestCandidate) lowestCandidate = file;
  return leaveEntry(closing.entry, closing.sharing);
}

bool seekFile(int16_t file, uint16_t mode, int64_t offset) {
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
