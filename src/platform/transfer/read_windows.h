// Read windows: pieces of files in memory, from which the many small reads of one call are served.
//
// Windows live inside one transfer scope only. Within it this call alone works on the file, so a
// window can differ from the file only in what the call itself writes, and `overwrite` gets that. A
// window that continues another one, forwards or backwards, is twice as large; where the reads
// jump, a small one begins. What a window does not get proves nothing about the bytes that were
// wanted: one that grows backwards begins before them, and the host may fail there. Files are read,
// never mapped: a mapping would end the process by a signal where the file is cut short or its
// device fails; a read just reports it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/handles/file_entries.h"

namespace qvdbase::platform {

class Mirror;
class Stage;

struct ReadWindow {
  const FileEntry* entry = nullptr;  // null while the window holds nothing
  int64_t start = 0;
  size_t length = 0;
  size_t size = 0;           // how much the latest filling asked for
  uint64_t lastUsed = 0;     // in fillings
  uint8_t* bytes = nullptr;  // away from the rest, which is looked at much more

  bool holds(const FileEntry* file, int64_t position, size_t count) const {
    if (entry != file || position < start) return false;
    const auto offset = static_cast<uint64_t>(position - start);
    return offset <= length && count <= length - offset;
  }

  // The byte at a position that the window holds.
  uint8_t* at(int64_t position) const { return bytes + (position - start); }
};

class ReadWindows {
 public:
  static constexpr size_t kSmallest = size_t{1} << 10;
  static constexpr size_t kLargest = size_t{128} << 10;
  // A call works on a few places at once: the directory, one or two ends of a chain, a walk.
  static constexpr size_t kCount = 4;

  // Where the windows are.
  struct Buffers {
    uint8_t bytes[kCount][kLargest];
  };
  void useBuffers(Buffers* buffers) {
    for (size_t i = 0; i < kCount; ++i) windows_[i].bytes = buffers->bytes[i];
  }

  // What is laid over the bytes of windows that are filled from now on, or null; and where these
  // bytes come from as far as they are there, which may be null too.
  void useStage(const Stage* stage, Mirror* mirror) {
    stage_ = stage;
    mirror_ = stage != nullptr ? mirror : nullptr;
  }

  // The window that holds all of a read, or null.
  const ReadWindow* find(const FileEntry* file, int64_t position, size_t count) const;

  // The window for a read, filled for it if need be; it holds less when the file ends or the host
  // fails. Null when the read is too large for a window.
  const ReadWindow* obtain(const FileEntry* file, int64_t position, size_t count);

  // A window that begins with these bytes or has them all, filled for them if need be. Null when
  // they are too many.
  const ReadWindow* fill(const FileEntry* file, int64_t position, size_t count);

  // Copies bytes that the call has written into the windows that hold their place. What is added to
  // a file lies after all of them.
  void overwrite(const FileEntry* file, int64_t position, const void* bytes, size_t count) {
    if (position < end_) overwriteWindows(file, position, bytes, count);
  }

  // Whether the windows hold these bytes of the file wherever they hold their place.
  bool agree(const FileEntry* file, int64_t position, const uint8_t* bytes, size_t count) const;

  // Forgets the windows on one file, or on all.
  void drop(const FileEntry* file);
  void dropAll();

 private:
  void overwriteWindows(const FileEntry* file, int64_t position, const void* bytes, size_t count);
  const ReadWindow* neighbour(const FileEntry* file, int64_t position) const;
  ReadWindow& windowToRefill();
  size_t copyFromMirror(const ReadWindow& window) const;
  const ReadWindow* refill(ReadWindow& window, const FileEntry* file, size_t needed);

  ReadWindow windows_[kCount] = {};
  int64_t end_ = 0;  // no window, of whatever file, has bytes from here on
  uint64_t fillings_ = 0;
  const Stage* stage_ = nullptr;
  Mirror* mirror_ = nullptr;
};

}  // namespace qvdbase::platform
