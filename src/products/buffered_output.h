// Bytes in order, through a buffer: into a new file, or wherever else they are to go.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "products/target_file.h"

namespace qvdbase::products {

// What is written has arrived after flush(). All functions throw what the host answered to a write,
// such as disk_full.
class BufferedOutput {
 public:
  static constexpr size_t kPiece = size_t{256} << 10;

  // Takes the bytes at a position of the whole.
  using Sink = std::function<void(int64_t position, const unsigned char* bytes, size_t count)>;

  explicit BufferedOutput(Sink sink) : sink_(std::move(sink)) {}

  // The target must have been made, and outlive this.
  explicit BufferedOutput(TargetFile& target);

  int64_t position() const { return flushed_ + static_cast<int64_t>(held_); }

  void write(const void* bytes, size_t count);
  void zeros(uint64_t count);

  // Lets `read`, called with a place and a number of bytes, put `count` bytes into the buffer,
  // piece by piece. False as soon as it returns false.
  template <typename Read>
  bool fill(uint64_t count, Read read) {
    while (count > 0) {
      const auto part = static_cast<size_t>(std::min<uint64_t>(count, kPiece - held_));
      if (!read(spaceFor(part), part)) return false;
      held_ += part;
      count -= part;
      if (held_ == kPiece) flush();
    }
    return true;
  }

  void flush();

  // The same as write() for many bytes, which are not copied into the buffer.
  void pass(const unsigned char* bytes, size_t count);

 private:
  // Small files need a small buffer only.
  unsigned char* spaceFor(size_t count) {
    if (held_ + count > buffer_.size()) {
      buffer_.resize(std::min(kPiece, std::max(held_ + count, 2 * buffer_.size())));
    }
    return buffer_.data() + held_;
  }

  Sink sink_;
  std::vector<unsigned char> buffer_;
  size_t held_ = 0;
  int64_t flushed_ = 0;
};

}  // namespace qvdbase::products
