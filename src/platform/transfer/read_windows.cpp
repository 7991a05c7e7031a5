// Filling, finding and forgetting read windows.
#include "platform/transfer/read_windows.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "platform/transfer/mirror.h"
#include "platform/transfer/plain_transfer.h"
#include "platform/transfer/stage.h"

namespace qvdbase::platform {
namespace {

// Beyond this position a window's end could pass the largest position there is.
constexpr int64_t kLastWindowPosition =
    std::numeric_limits<int64_t>::max() - int64_t{ReadWindows::kLargest};

// Whether a read continues a window: it lies beside it, no further off than the window is large.
bool isAfter(const ReadWindow& window, int64_t position) {
  const int64_t end = window.start + static_cast<int64_t>(window.length);
  return position >= window.start && position - end <= static_cast<int64_t>(window.size);
}

bool isBefore(const ReadWindow& window, int64_t position) {
  return position < window.start && window.start - position <= static_cast<int64_t>(window.size);
}

// Chooses what to read: forwards from the position, or backwards up to the end of the read.
void placeWindow(ReadWindow& window, const ReadWindow* beside, int64_t position, size_t count) {
  const bool backwards = beside != nullptr && isBefore(*beside, position);
  size_t size = ReadWindows::kSmallest;
  if (beside != nullptr) size = std::min(beside->size * 2, ReadWindows::kLargest);
  size = std::max(size, count);
  window.size = size;
  window.start = position;
  if (backwards) {
    const auto before = static_cast<int64_t>(size - count);
    window.start = position > before ? position - before : 0;
  }
}

// What a window and some bytes of its file have in common.
struct Overlap {
  int64_t from;
  int64_t to;

  Overlap(const ReadWindow& window, int64_t position, size_t count)
      : from(std::max(position, window.start)),
        to(std::min(position + static_cast<int64_t>(count),
                    window.start + static_cast<int64_t>(window.length))) {}
  size_t size() const { return from < to ? static_cast<size_t>(to - from) : 0; }
};

}  // namespace

const ReadWindow* ReadWindows::find(const FileEntry* file, int64_t position, size_t count) const {
  for (const ReadWindow& window : windows_) {
    if (window.holds(file, position, count)) return &window;
  }
  return nullptr;
}

// The window of the file that the read continues, or null.
const ReadWindow* ReadWindows::neighbour(const FileEntry* file, int64_t position) const {
  for (const ReadWindow& window : windows_) {
    if (window.entry != file) continue;
    if (isAfter(window, position) || isBefore(window, position)) return &window;
  }
  return nullptr;
}

// One that holds nothing, so that short calls use the same memory each time; else the one that was
// left alone longest. Not the neighbour: the call may come back to that.
ReadWindow& ReadWindows::windowToRefill() {
  for (ReadWindow& window : windows_) {
    if (window.entry == nullptr) return window;
  }
  return *std::min_element(windows_, windows_ + kCount, [](const auto& one, const auto& other) {
    return one.lastUsed < other.lastUsed;
  });
}

// Reads until the window holds the wanted bytes or the file gives no more.
// What the window wants, as far as the file goes, or nothing.
size_t ReadWindows::copyFromMirror(const ReadWindow& window) const {
  if (mirror_ == nullptr || window.start >= mirror_->length()) return 0;
  const auto rest = static_cast<uint64_t>(mirror_->length() - window.start);
  const auto count = static_cast<size_t>(std::min<uint64_t>(window.size, rest));
  const uint8_t* bytes = mirror_->obtain(descriptorOf(*window.entry), window.start, count);
  if (bytes == nullptr) return 0;
  std::memcpy(window.bytes, bytes, count);
  return count;
}

const ReadWindow* ReadWindows::refill(ReadWindow& window, const FileEntry* file, size_t needed) {
  window.entry = file;
  window.length = copyFromMirror(window);
  const bool isToTheEnd =
      window.length > 0 && window.start + static_cast<int64_t>(window.length) == mirror_->length();
  while (!isToTheEnd && window.length < needed) {
    const ptrdiff_t got =
        readOnce(descriptorOf(*file), window.start + static_cast<int64_t>(window.length),
                 window.bytes + window.length, window.size - window.length);
    if (got <= 0) break;
    window.length += static_cast<size_t>(got);
  }
  if (stage_ != nullptr) {
    // What others have appended meanwhile is not what the stage has there.
    const int64_t most = std::max<int64_t>(stage_->inFile() - window.start, 0);
    window.length = static_cast<size_t>(std::min(static_cast<int64_t>(window.length), most));
    stage_->layOver(window.start, window.bytes, window.length);
  }
  end_ = std::max(end_, window.start + static_cast<int64_t>(window.length));
  window.lastUsed = ++fillings_;
  return &window;
}

const ReadWindow* ReadWindows::obtain(const FileEntry* file, int64_t position, size_t count) {
  if (count > kLargest / 2 || position > kLastWindowPosition) return nullptr;
  if (position < end_) {
    for (ReadWindow& window : windows_) {
      if (!window.holds(file, position, count)) continue;
      window.lastUsed = ++fillings_;
      return &window;
    }
  }
  ReadWindow& window = windowToRefill();
  placeWindow(window, end_ != 0 ? neighbour(file, position) : nullptr, position, count);
  return refill(window, file, static_cast<size_t>(position - window.start) + count);
}

const ReadWindow* ReadWindows::fill(const FileEntry* file, int64_t position, size_t count) {
  if (count > kLargest || position > kLastWindowPosition) return nullptr;
  const ReadWindow* held = position < end_ ? find(file, position, count) : nullptr;
  if (held != nullptr) return held;
  ReadWindow& window = windowToRefill();
  window.start = position;
  window.size = count;
  return refill(window, file, count);
}

void ReadWindows::overwriteWindows(const FileEntry* file, int64_t position, const void* bytes,
                                   size_t count) {
  for (ReadWindow& window : windows_) {
    if (window.entry != file) continue;
    const Overlap both(window, position, count);
    if (both.size() == 0) continue;
    std::memcpy(window.at(both.from), static_cast<const uint8_t*>(bytes) + (both.from - position),
                both.size());
  }
}

bool ReadWindows::agree(const FileEntry* file, int64_t position, const uint8_t* bytes,
                        size_t count) const {
  return std::all_of(windows_, windows_ + kCount, [&](const ReadWindow& window) {
    if (window.entry != file) return true;
    const Overlap both(window, position, count);
    return both.size() == 0 ||
           std::memcmp(window.at(both.from), bytes + (both.from - position), both.size()) == 0;
  });
}

void ReadWindows::drop(const FileEntry* file) {
  for (ReadWindow& window : windows_) {
    if (window.entry == file) window.entry = nullptr;
  }
}

void ReadWindows::dropAll() {
  for (ReadWindow& window : windows_) window.entry = nullptr;
  end_ = 0;
}

}  // namespace qvdbase::platform
