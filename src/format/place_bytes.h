// The bytes of a place in a file that a transaction changes or guards: nearly always eight, a link
// between records, which then take no memory of their own.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace qvdbase::format {

class PlaceBytes {
 public:
  PlaceBytes() = default;
  // Zeros.
  explicit PlaceBytes(size_t count) { resize(count); }
  PlaceBytes(const unsigned char* bytes, size_t count) : PlaceBytes(count) {
    std::copy_n(bytes, count, data());
  }
  PlaceBytes(const std::vector<unsigned char>& bytes) : PlaceBytes(bytes.data(), bytes.size()) {}

  bool empty() const { return size() == 0; }
  size_t size() const { return long_.empty() ? shortSize_ : long_.size(); }
  unsigned char* data() { return long_.empty() ? short_.data() : long_.data(); }
  const unsigned char* data() const { return long_.empty() ? short_.data() : long_.data(); }
  const unsigned char* begin() const { return data(); }
  const unsigned char* end() const { return data() + size(); }
  unsigned char* begin() { return data(); }
  unsigned char* end() { return data() + size(); }
  unsigned char& operator[](size_t i) { return data()[i]; }
  unsigned char operator[](size_t i) const { return data()[i]; }

  std::vector<unsigned char> copy() const { return {begin(), end()}; }

  friend bool operator==(const PlaceBytes& one, const PlaceBytes& other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end());
  }

 private:
  void resize(size_t count) {
    if (count > kShort) {
      long_.resize(count);
    } else {
      shortSize_ = count;
    }
  }

  static constexpr size_t kShort = 8;

  size_t shortSize_ = 0;  // 0 where they are in `long_`
  std::array<unsigned char, kShort> short_{};
  std::vector<unsigned char> long_;
};

}  // namespace qvdbase::format
