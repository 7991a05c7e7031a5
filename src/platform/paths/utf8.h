// Text conversion from 16-bit characters to UTF-8, the form in which the host takes names.
#pragma once

#include <qvdbase/base.h>

#include <cstddef>

namespace qvdbase::platform {

struct Utf8Progress {
  size_t consumed;  // 16-bit characters that were converted
  size_t produced;  // bytes that were written
};

// Converts `length` characters into at most `capacity` bytes, without a terminator. It stops before
// the first character that does not fit whole and before an unpaired surrogate, which has no
// UTF-8 form: everything was converted when `consumed` equals `length`. Three bytes per character
// are always enough.
Utf8Progress convertToUtf8(const QVWCHAR* text, size_t length, unsigned char* out, size_t capacity);

}  // namespace qvdbase::platform
