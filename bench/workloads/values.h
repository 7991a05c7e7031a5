// The values of the records. Each has a stamp of its own, at its beginning and at its end, so that
// a value that is read can be compared with the one that was written.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
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

// The key of the user's own that the value with a stamp has: 16 letters and digits, in no order of
// the stamps, and of no other stamp.
inline std::string nameOf(uint64_t stamp) {
  uint64_t mixed = stamp * 0x9E3779B97F4A7C15;  // odd numbers, and shifts: each step can be undone
  mixed = (mixed ^ mixed >> 32) * 0xD6E8FEB86659FD93;
  mixed ^= mixed >> 32;
  std::string name(16, '0');
  for (size_t i = 0; i < name.size(); ++i) name[i] = "0123456789abcdef"[mixed >> (60 - 4 * i) & 15];
  return name;
}

inline std::string nameOf(std::span<const char> value) {
  return nameOf(stampOf(value));
}

}  // namespace bench
