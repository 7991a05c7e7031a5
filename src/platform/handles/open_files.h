// File reference numbers: the handles of the library. Each is one opening of a file, with a
// position and rights of its own; several may share a file entry.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

class Stage;

// The bytes from which the next read through a file number can be served without further
// questions: the window used last, for the number that used it, while its file has no gathered
// writes. Outside a scope, and after anything else that could make it wrong, it holds no bytes. It
// belongs to the call that is at work on the file, and is kept with the number because that is at
// hand.
struct ServedWindow {
  static constexpr uint32_t kSmallRead = 16;

  int64_t start = 0;
  uint64_t length = 0;
  uint64_t smallReads = 0;  // from offsets below this one a read of kSmallRead bytes lies inside
  const uint8_t* bytes = nullptr;

  // Whether it holds `count` bytes from an offset, counted with wrapping from its start. For the
  // sizes of fields, which are known where this is inlined, that is one comparison.
  bool holds(uint64_t offset, uint32_t count) const {
    if (count <= kSmallRead && offset < smallReads) return true;
    return offset < length && count <= length - offset;
  }
};

// All of it is read and changed under the turn of its file; a free one under that of free numbers.
// Each transfer changes it, so that files of different threads are in cache lines of their own.
struct alignas(64) OpenFile {
  FileEntry* entry;  // null while the number is free
  int64_t position;
  int descriptor;
  Sharing sharing;
  mutable ServedWindow served;
  FileTurn* turn;      // the entry's, also for those who do not have it: see Turn
  const void* opener;  // the thread that has opened it
  Mirror* mirror;      // by which its transfers are served at present, or null
  Stage* stage;        // that takes its writes at present, or null; see transfer/stage.h

  bool isWritable() const { return sharing != Sharing::none; }
};

inline constexpr int kLargestFileNumber = 32767;

namespace detail {
extern OpenFile openFiles[kLargestFileNumber + 1];  // number 0 is never used
}

// The open file of that number, or null: every transfer needs it, so it costs no more than an
// index.
inline OpenFile* findOpenFile(int16_t file) {
  if (file <= 0) return nullptr;
  OpenFile* openFile = &detail::openFiles[file];
  return openFile->entry != nullptr ? openFile : nullptr;
}

// The permissions that the library itself opens files with.
inline constexpr int kReadOnly = 1;
inline constexpr int kOneWriter = 3;
inline constexpr int kSharedWriters = 4;

// Opens the regular file `name` and stores the lowest free number, at position 0. The low 8 bits of
// `permission` count, as a signed value:
//   0  the most that can be obtained: as 4, else as 1
//   1  reading; no lock
//   2, 3  reading and writing, excluding every other writer
//   4  reading and writing, shared
// Returns false, with `file` unwritten, when the file or the permission cannot be obtained.
bool openFile(const Directory& directory, const EntryName& name, int permission, int16_t* file);

// The sharing that a permission asks for, of 0 the least; nothing for a number that is none.
std::optional<Sharing> sharingOf(int permission);

// Makes an opener of a file, who shares it in this way, an open file at position 0. False, with
// `file` unwritten, when no number is free.
bool openEntry(FileEntry* entry, Sharing sharing, int16_t* file);

// How many openers in this process write to the open file, under whatever numbers.
uint32_t writersOf(int16_t file);

// Whether it was this thread that opened the file of that number.
bool wasOpenedHere(int16_t file);

// Frees the number. False for a number that is not in use, and when the host reports that closing
// failed; the number is free then too.
bool closeFile(int16_t file);

// Where a new position is counted from.
enum SeekMode : uint16_t {
  kFromNowhere = 0,  // the position stays, the offset is ignored
  kFromStart = 1,
  kFromEnd = 2,
  kFromCurrent = 3,
};

// Sets the position, which may lie beyond the end. False, with the position unchanged, for a
// negative position, one above 2^63 - 1, another mode, or a number that is not in use.
bool seekFile(int16_t file, uint16_t mode, int64_t offset);

}  // namespace qvdbase::platform
