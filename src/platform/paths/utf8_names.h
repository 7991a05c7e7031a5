// Names of files and directories: 16-bit characters above this layer, UTF-8 on the host.
#pragma once

#include <qvdbase/base.h>

#include <cstddef>
#include <string_view>

namespace qvdbase::platform {

// The most characters that a path may have, its terminating zero not counted.
inline constexpr size_t kMaxPathCharacters = 2047;

// No 16-bit character takes more than three bytes: a pair of them takes four.
inline constexpr size_t kMaxNameBytes = kMaxPathCharacters * 3;

// The name of one entry of a directory, in the host's form. A name that no entry can have, with an
// unpaired surrogate, a '/', or more than kMaxPathCharacters characters, is not valid.
class EntryName {
 public:
  explicit EntryName(const QVWCHAR* name);
  // A name that is in the host's form already: any bytes but zeros and '/'.
  explicit EntryName(std::string_view name);

  bool isValid() const { return isValid_; }
  bool isEmpty() const { return bytes_[0] == '\0'; }
  const char* bytes() const { return bytes_; }

 private:
  bool isValid_ = false;
  char bytes_[kMaxNameBytes + 1];
};

// The way back: turns the host's form of a name or path into zero-terminated 16-bit characters, at
// most `capacity` of them with the zero. Returns false, with `text` unspecified, when the bytes are
// not well-formed UTF-8 or the characters do not fit.
bool utf16FromUtf8(const char* bytes, size_t length, QVWCHAR* text, size_t capacity);

}  // namespace qvdbase::platform
