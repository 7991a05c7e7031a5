// The values of the records. Each has a stamp of its own, at its beginning and at its end, so that
// a value that is read can be compared with the one that was written.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace bench {

using Bytes = std::vector<char>;

constexpr size_t kSmallestValue = 16;

// Makes the values of one size, in a buffer that the next one overwrites.
class Values {
 public:
  explicit Values(size_t size) : buffer_(size) {
    for (size_t i = 0; i < size; ++i) buffer_[i] = static_cast<char>(i * 31 + 7);
  }

  size_t size() const { return buffer_.size(); }

  std::span<const char> of(uint32_t stamp) {
    const uint64_t wide = stamp;
    std::memcpy(buffer_.data(), &wide, sizeof wide);
    std::memcpy(buffer_.data() + buffer_.size() - sizeof wide, &wide, sizeof wide);
    return buffer_;
  }

 private:
  Bytes buffer_;
};

inline uint64_t stampOf(std::span<const char> value) {
  uint64_t stamp = 0;
  if (value.size() >= sizeof stamp) std::memcpy(&stamp, value.data(), sizeof stamp);
  return stamp;
}

}  // namespace bench
