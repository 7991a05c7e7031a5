// 16-bit text for tests: what the library calls a QVWCHAR string, made from u"..." literals.
//
//   WideText name = u"/a/b";         owned, zero-terminated, may be changed in place by the library
//   file.QVOpenFile(u"/a/b"_w, ...)  a literal as an argument
//   EXPECT_EQ(text(buffer), u"b");   and back
//
// A char16_t literal is not a QVWCHAR array (the types are distinct), so the text is copied rather
// than cast.
#pragma once

#include <qvdbase/base.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qvdbase::test {

// Zero-terminated 16-bit text that owns its characters. It turns into a pointer by itself, so that
// it can stand wherever the library wants a string. `room` reserves characters beyond the text
// (zeros), for functions that make the text longer.
class WideText {
 public:
  WideText() : units_(1) {}
  // NOLINTNEXTLINE: implicit on purpose
  WideText(const char16_t* text) : WideText(std::u16string_view(text)) {}
  // NOLINTNEXTLINE: implicit on purpose
  WideText(std::u16string_view text, size_t room = 0) : units_(text.size() + room + 1) {
    std::copy(text.begin(), text.end(), units_.begin());
  }

  operator QVWCHAR*() { return units_.data(); }              // NOLINT: implicit on purpose
  operator const QVWCHAR*() const { return units_.data(); }  // NOLINT: implicit on purpose
  QVWCHAR* data() { return units_.data(); }
  const QVWCHAR* data() const { return units_.data(); }

  // The characters before the first zero.
  std::u16string str() const {
    return {units_.begin(), std::find(units_.begin(), units_.end(), 0)};
  }

 private:
  std::vector<QVWCHAR> units_;
};

inline WideText operator""_w(const char16_t* text, size_t length) {
  return std::u16string_view(text, length);
}

// The text of a zero-terminated 16-bit string, comparable with u"...".
inline std::u16string text(const QVWCHAR* wide) {
  std::u16string result;
  while (*wide != 0) result.push_back(static_cast<char16_t>(*wide++));
  return result;
}

}  // namespace qvdbase::test
