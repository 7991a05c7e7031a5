// A window on a source: a view of a few bytes at any position, kept cheap for readers that move
// forward in small steps. The window grows while they do, up to 256 KiB, and shrinks to a page when
// they jump, so that large payloads in between are not read.
#pragma once

#include <vector>

#include "recovery/survey/byte_source.h"

namespace qvdbase::survey {

class Window {
 public:
  static constexpr size_t kLargestView = 4096;

  explicit Window(const ByteSource& source) : source_(source) {}

  // `count` bytes (at most kLargestView) at `position`, valid until the next call. Null when the
  // source does not have them all.
  const uint8_t* at(int64_t position, size_t count) {
    if (position >= start_ && position - start_ <= static_cast<int64_t>(held_)) {
      const auto offset = static_cast<size_t>(position - start_);
      if (count <= held_ - offset) return buffer_.data() + offset;
    }
    return load(position, count);
  }

  // One byte, or -1.
  int byteAt(int64_t position) {
    const uint8_t* byte = at(position, 1);
    return byte != nullptr ? *byte : -1;
  }

  // Positions inside the source that could not be read; negative when there were none.
  int64_t unreadableAt() const { return unreadableAt_; }

 private:
  const uint8_t* load(int64_t position, size_t count);

  const ByteSource& source_;
  std::vector<uint8_t> buffer_;
  int64_t start_ = 0;
  size_t held_ = 0;
  size_t step_ = 0;
  int64_t unreadableAt_ = -1;
};

}  // namespace qvdbase::survey
