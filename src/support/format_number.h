// Formatted numbers: the flags of a directive, and how the parts of a number are placed in its
// width. Integers and floating-point numbers share this.
#pragma once

#include <qvdbase/base.h>

#include <algorithm>
#include <cstddef>

namespace qvdbase::support {

inline constexpr int kZeroFill = 1;
inline constexpr int kSigned = 2;
inline constexpr int kPlusSign = 4;
inline constexpr int kSpaceSign = 8;
inline constexpr int kLeft = 16;
inline constexpr int kAlternate = 32;
inline constexpr int kUpperCase = 64;

// The sign that a number shows under the flags; 0 for none.
inline QVWCHAR signFor(bool negative, int flags) {
  if ((flags & kSigned) == 0) return 0;
  if (negative) return '-';
  if ((flags & kPlusSign) != 0) return '+';
  return (flags & kSpaceSign) != 0 ? ' ' : 0;
}

// Everything that is counted here is counted in 64 bits: a width or a precision may be any int.
inline QVWCHAR* fill(QVWCHAR* out, QVWCHAR c, int64_t count) {
  return count > 0 ? std::fill_n(out, count, c) : out;
}

struct NumberParts {
  QVWCHAR sign;           // 0 for none
  QVWCHAR prefix[2];      // "0", "0x" or "0X"
  size_t prefixLength;    // 0 to 2
  int64_t leadingZeros;   // what the precision asks for before the digits
  const QVWCHAR* digits;  // with point and exponent, if it has them
  size_t digitCount;
};

// Writes the parts in their order. What the width leaves is filled before them with spaces, or with
// zeros between the prefix and the digits, or after them with spaces ('to the left', which
// overrides zero fill). Returns the end.
inline QVWCHAR* placeNumber(QVWCHAR* out, const NumberParts& parts, int width, int flags) {
  const int64_t length = (parts.sign != 0 ? 1 : 0) + static_cast<int64_t>(parts.prefixLength) +
                         parts.leadingZeros + static_cast<int64_t>(parts.digitCount);
  const int64_t left = width - length;
  const bool atLeft = (flags & kLeft) != 0;
  const bool zeroFill = (flags & kZeroFill) != 0;
  if (!atLeft && !zeroFill) out = fill(out, ' ', left);
  if (parts.sign != 0) *out++ = parts.sign;
  out = std::copy_n(parts.prefix, parts.prefixLength, out);
  if (!atLeft && zeroFill) out = fill(out, '0', left);
  out = fill(out, '0', parts.leadingZeros);
  out = std::copy_n(parts.digits, parts.digitCount, out);
  return atLeft ? fill(out, ' ', left) : out;
}

}  // namespace qvdbase::support
