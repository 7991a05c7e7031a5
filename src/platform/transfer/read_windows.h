// Read windows: pieces of files in memory, from which the many small reads of one call are served.
//
// Windows live inside one transfer scope only. Within it this call alone works on the file, so a
// window can differ from the file in nothing but what the call itself writes, and that is told to
// `overwriteWindows`. A window that goes on from another, forwards or backwards, is twice as large;
// where the reads jump, a small one starts afresh. What a window does not get proves nothing about
// the bytes that were wanted: one that grows backwards begins before them, and the host may fail
// there. Files are read, never mapped: a mapping would
// end the process by a signal where the file is cut short or its device fails; a read just says so.
#ifndef QVDBASE_PLATFORM_READ_WINDOWS_H
#define QVDBASE_PLATFORM_READ_WINDOWS_H

#include <cstddef>
#include <cstdint>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

inline constexpr size_t kSmallestWindow = size_t{1} << 10;
inline constexpr size_t kLargestWindow = size_t{128} << 10;

struct ReadWindow {
  const FileEntry* entry;  // null while the window holds nothing
  int64_t start;
  size_t length;
  size_t size;        // how much the latest filling asked for
  uint64_t lastUsed;  // in fillings
  uint8_t* bytes;     // room for kLargestWindow; away from the rest, which is looked at much more

  bool holds(const FileEntry* file, int64_t position, size_t count) const {
    if (entry != file || position < start) return false;
    const auto offset = static_cast<uint64_t>(position - start);
    return offset <= length && count <= length - offset;
  }

  // Copies as many of the bytes as it holds, and returns how many those are. The window begins at
  // or before the position.
  size_t copy(int64_t position, void* buffer, size_t count) const;
};

// Whether a window holds all of a read.
bool windowsHold(const FileEntry* file, int64_t position, size_t count);

// The window that holds a read, filled for it if need be; it holds less when the file ends or the
// host fails. Null when the read is too large for a window.
const ReadWindow* windowWith(const FileEntry* file, int64_t position, size_t count);

// A window that begins with these bytes or has them all, filled for them if need be. Null when they
// are too many.
const ReadWindow* fillWindow(const FileEntry* file, int64_t position, size_t count);

// Takes bytes that the call has written over into the windows that hold their place.
void overwriteWindows(const FileEntry* file, int64_t position, const void* bytes, size_t count);

// Forgets the windows on one file, or on all.
void dropWindows(const FileEntry* file);
void dropAllWindows();

}  // namespace qvdbase::platform

#endif
