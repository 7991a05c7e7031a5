// Filling, finding and forgetting read windows.
#include "platform/transfer/read_windows.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

#include "platform/transfer/plain_transfer.h"

namespace qvdbase::platform {
namespace {

// A call works on a few places at once: the directory, one or two ends of a chain, a walk.
constexpr size_t kWindowCount = 4;

// Beyond this position a window's end could pass the largest position there is.
constexpr int64_t kLastWindowPosition =
    std::numeric_limits<int64_t>::max() - int64_t{kLargestWindow};

constinit uint8_t rooms[kWindowCount][kLargestWindow] = {};
constinit ReadWindow windows[kWindowCount] = {
    {nullptr, 0, 0, 0, 0, rooms[0]},
    {nullptr, 0, 0, 0, 0, rooms[1]},
    {nullptr, 0, 0, 0, 0, rooms[2]},
    {nullptr, 0, 0, 0, 0, rooms[3]},
};
constinit uint64_t fillings = 0;

// Whether a read goes on from a window: it lies beside it, no further off than the window is large.
bool isBehind(const ReadWindow& window, int64_t position) {
  const int64_t end = window.start + static_cast<int64_t>(window.length);
  return position >= window.start && position - end <= static_cast<int64_t>(window.size);
}

bool isBefore(const ReadWindow& window, int64_t position) {
  return position < window.start && window.start - position <= static_cast<int64_t>(window.size);
}

// The window of the file that the read goes on from, or null.
const ReadWindow* neighbour(const FileEntry* file, int64_t position) {
  for (const ReadWindow& window : windows) {
    if (window.entry != file) continue;
    if (isBehind(window, position) || isBefore(window, position)) return &window;
  }
  return nullptr;
}

// The window that was left alone longest. Not the neighbour: the call may come back to that.
ReadWindow& windowToRefill() {
  ReadWindow* oldest = &windows[0];
  for (ReadWindow& window : windows) {
    if (window.lastUsed < oldest->lastUsed) oldest = &window;
  }
  return *oldest;
}

// Chooses what to read: forwards from the position, or backwards up to the end of the read.
void placeWindow(ReadWindow& window, const ReadWindow* beside, int64_t position, size_t count) {
  const bool backwards = beside != nullptr && isBefore(*beside, position);
  size_t size = beside != nullptr ? std::min(beside->size * 2, kLargestWindow) : kSmallestWindow;
  size = std::max(size, count);
  window.size = size;
  window.start = position;
  if (backwards) {
    const auto before = static_cast<int64_t>(size - count);
    window.start = position > before ? position - before : 0;
  }
}

// Reads until the window holds the wanted bytes or the file gives no more.
void fill(ReadWindow& window, const FileEntry* file, size_t needed) {
  window.entry = file;
  window.length = 0;
  while (window.length < needed) {
    const ptrdiff_t got =
        readOnce(descriptorOf(*file), window.start + static_cast<int64_t>(window.length),
                 window.bytes + window.length, window.size - window.length);
    if (got <= 0) break;
    window.length += static_cast<size_t>(got);
  }
}

}  // namespace

bool windowsHold(const FileEntry* file, int64_t position, size_t count) {
  return std::any_of(std::begin(windows), std::end(windows),
                     [&](const ReadWindow& window) { return window.holds(file, position, count); });
}

size_t ReadWindow::copy(int64_t position, void* buffer, size_t count) const {
  const auto offset = static_cast<size_t>(position - start);
  const size_t held = length <= offset ? 0 : std::min(count, length - offset);
  if (held > 0) std::memcpy(buffer, bytes + offset, held);
  return held;
}

const ReadWindow* windowWith(const FileEntry* file, int64_t position, size_t count) {
  if (count > kLargestWindow / 2 || position > kLastWindowPosition) return nullptr;
  for (ReadWindow& window : windows) {
    if (!window.holds(file, position, count)) continue;
    window.lastUsed = ++fillings;
    return &window;
  }
  ReadWindow& window = windowToRefill();
  placeWindow(window, neighbour(file, position), position, count);
  fill(window, file, static_cast<size_t>(position - window.start) + count);
  window.lastUsed = ++fillings;
  return &window;
}

const ReadWindow* fillWindow(const FileEntry* file, int64_t position, size_t count) {
  if (count > kLargestWindow || position > kLastWindowPosition) return nullptr;
  for (const ReadWindow& window : windows) {
    if (window.holds(file, position, count)) return &window;
  }
  ReadWindow& window = windowToRefill();
  window.start = position;
  window.size = count;
  fill(window, file, count);
  window.lastUsed = ++fillings;
  return &window;
}

void overwriteWindows(const FileEntry* file, int64_t position, const void* bytes, size_t count) {
  for (ReadWindow& window : windows) {
    if (window.entry != file) continue;
    const int64_t from = std::max(position, window.start);
    const int64_t to = std::min(position + static_cast<int64_t>(count),
                                window.start + static_cast<int64_t>(window.length));
    if (from >= to) continue;
    std::memcpy(window.bytes + (from - window.start),
                static_cast<const uint8_t*>(bytes) + (from - position),
                static_cast<size_t>(to - from));
  }
}

void dropWindows(const FileEntry* file) {
  for (ReadWindow& window : windows) {
    if (window.entry == file) window.entry = nullptr;
  }
}

void dropAllWindows() {
  for (ReadWindow& window : windows) window.entry = nullptr;
}

}  // namespace qvdbase::platform
