// A buffer of 16-bit characters of exactly the size that a function may use, between guards that
// show when it wrote outside.
#pragma once

#include <gtest/gtest.h>
#include <qvdbase/QVWString.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace qvdbase::test {

inline constexpr char16_t kUntouched = 0xA5C3;

class GuardedText {
 public:
  explicit GuardedText(size_t size) : size_(size), units_(size + 2 * kGuard, kUntouched) {}

  // Holds `content` and `spare` more characters after its terminator.
  explicit GuardedText(std::u16string_view content, size_t spare = 0)
      : GuardedText(content.size() + 1 + spare) {
    std::copy(content.begin(), content.end(), data());
    data()[content.size()] = 0;
  }

  ~GuardedText() {
    EXPECT_TRUE(std::all_of(units_.begin(), units_.begin() + kGuard, untouched))
        << "written in front of the buffer";
    EXPECT_TRUE(std::all_of(units_.end() - kGuard, units_.end(), untouched))
        << "written past the buffer";
  }
  GuardedText(const GuardedText&) = delete;
  GuardedText& operator=(const GuardedText&) = delete;

  QVWCHAR* data() { return units_.data() + kGuard; }
  operator QVWCHAR*() { return data(); }  // NOLINT: implicit on purpose

  // The first `length` characters, zeros among them too.
  std::u16string first(size_t length) { return {data(), data() + length}; }
  std::u16string all() { return first(size_); }

 private:
  static constexpr std::ptrdiff_t kGuard = 64;
  static bool untouched(QVWCHAR c) { return c == kUntouched; }

  size_t size_;
  std::vector<QVWCHAR> units_;
};

// The terminator as a part of a text.
inline const std::u16string kZero(1, u'\0');

// 16-bit text in the messages of a test.
inline std::string narrow(std::u16string_view text) {
  std::string result;
  for (const char16_t c : text) result += c < 128 ? static_cast<char>(c) : '?';
  return result;
}

}  // namespace qvdbase::test
