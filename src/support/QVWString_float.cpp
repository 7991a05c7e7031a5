// Floating-point numbers in formatted output: flt places what cfltcvt writes, which takes its
// digits from cvt.
//
// The digits come from plain double arithmetic, one at a time. They are exact as far as a double
// can be trusted (some fifteen digits) and the same on every host; they are not always those of
// the C library, which therefore cannot be used here.
//
// Sizes: cvt never holds more than 351 digits, and never more zeros and digits together where the
// number begins with "0."; so the longest texts are '-', a point and 351 digits in the f form,
// "-0." and 351 zeros and digits, and '-', 350 digits, a point and five characters of exponent.
#include <qvdbase/QVWString.h>

#include <cmath>

#include "support/format_number.h"

using namespace qvdbase;
using namespace qvdbase::support;

namespace {

constexpr int kDigitBuffer = 352;  // the characters that a caller of cvt provides
constexpr int kMostDigits = 350;
constexpr size_t kFloatText = 360;  // the characters that a caller of cfltcvt provides
constexpr int kDefaultPrecision = 6;

int clampDigits(int64_t digits) {
  return static_cast<int>(std::clamp(digits, int64_t{0}, int64_t{kMostDigits}));
}

// A not-a-number is negative when it carries a sign; a zero never is.
bool isNegative(double value) {
  return std::isnan(value) ? std::signbit(value) : value < 0;
}

QVWCHAR* endOf(QVWCHAR* text) {
  while (*text != 0) ++text;
  return text;
}

bool isExponentMark(QVWCHAR c) {
  return c == 'e' || c == 'E';
}

void writeNonFinite(double value, QVWCHAR* out, bool upperCase) {
  const char* text = upperCase ? "INF" : "inf";
  if (std::isnan(value)) text = upperCase ? "NAN" : "nan";
  for (; *text != 0; ++text) *out++ = static_cast<QVWCHAR>(*text);
  *out = 0;
}

// The digits of a whole number above 0, the last one first, and then moved to the front of the
// buffer. Returns their count: 309 at most.
int putIntegerDigits(double whole, QVWCHAR* buffer) {
  int begin = kDigitBuffer;
  while (whole != 0) {
    const double tenth = std::modf(whole / 10, &whole);
    // Tenths are rarely exact: 0.03 lifts one that came out a little low. None comes out above
    // 0.9375 (a larger one is rounded up into `whole`), so that the digit stays below ten.
    buffer[--begin] = static_cast<QVWCHAR>('0' + static_cast<int>((tenth + 0.03) * 10));
  }
  std::copy(buffer + begin, buffer + kDigitBuffer, buffer);
  return kDigitBuffer - begin;
}

// Scales a fraction until its first digit is not 0. Returns the zeros passed, as a negative count.
int skipLeadingZeros(double* fraction) {
  int passed = 0;
  for (double next = *fraction * 10; next < 1; next = *fraction * 10) {
    *fraction = next;
    --passed;
  }
  return passed;
}

// Rounds at the digit buffer[last], which is the first one not wanted, and ends the text there.
void roundDigits(QVWCHAR* buffer, int last, bool exponentForm, int* decimalPoint) {
  int end = last;
  int place = last;
  buffer[place] = static_cast<QVWCHAR>(buffer[place] + 5);
  while (buffer[place] > '9') {
    buffer[place] = '0';
    if (place > 0) {
      ++buffer[--place];
      continue;
    }
    // 9.99 became 10.0: one more digit before the point, and in the fixed form one more in all;
    // the digit at `last` is that one, a zero by now (or the new 1).
    buffer[0] = '1';
    ++*decimalPoint;
    if (!exponentForm) end = std::min(end + 1, kDigitBuffer - 1);
  }
  buffer[end] = 0;
}

// 'e' or 'E', the sign and three digits, and the terminator.
void writeExponent(QVWCHAR* out, int exponent, bool upperCase) {
  const int magnitude = exponent < 0 ? -exponent : exponent;
  *out++ = upperCase ? 'E' : 'e';
  *out++ = exponent < 0 ? '-' : '+';
  *out++ = static_cast<QVWCHAR>('0' + magnitude / 100);
  *out++ = static_cast<QVWCHAR>('0' + magnitude / 10 % 10);
  *out++ = static_cast<QVWCHAR>('0' + magnitude % 10);
  *out = 0;
}

void writeExponentForm(double value, QVWCHAR* out, int64_t precision, bool upperCase) {
  QVWCHAR buffer[kDigitBuffer];
  int decimalPoint = 0;
  int negative = 0;
  const QVWCHAR* digits =
      QVWString().ecvtbuf(value, clampDigits(precision + 1), &decimalPoint, &negative, buffer);
  if (negative != 0) *out++ = '-';
  *out = *digits;
  if (*digits == 0) return;  // no digit was asked for: the text ends where the first would be
  ++out;
  if (precision > 0) *out++ = '.';
  while (*++digits != 0) *out++ = *digits;
  int exponent = decimalPoint - 1;
  if (value == 0) exponent = 0;
  writeExponent(out, exponent, upperCase);
}

void writeFixedForm(double value, QVWCHAR* out, int64_t precision) {
  QVWCHAR buffer[kDigitBuffer];
  int decimalPoint = 0;
  int negative = 0;
  const int wanted = clampDigits(precision);
  const QVWCHAR* digits = QVWString().fcvtbuf(value, wanted, &decimalPoint, &negative, buffer);
  if (negative != 0) *out++ = '-';
  if (*digits == 0) {
    *out++ = '0';
    if (wanted > 0) *out++ = '.';
    out = fill(out, '0', wanted);
  } else if (decimalPoint <= 0) {
    *out++ = '0';
    *out++ = '.';
    out = fill(out, '0', -decimalPoint);
  }
  for (int place = 0; digits[place] != 0; ++place) {
    if (place > 0 && place == decimalPoint) *out++ = '.';
    *out++ = digits[place];
  }
  *out = 0;
}

// The g form is the shorter of the two others: the exponent decides, as it is after rounding.
void writeGeneralForm(double value, QVWCHAR* out, int64_t precision, bool upperCase) {
  QVWCHAR buffer[kDigitBuffer];
  int decimalPoint = 0;
  int negative = 0;
  QVWString().ecvtbuf(value, clampDigits(precision), &decimalPoint, &negative, buffer);
  const int magnitude = decimalPoint - 1;
  if (magnitude < -4 || magnitude > precision - 1) {
    writeExponentForm(value, out, precision - 1, upperCase);
  } else {
    writeFixedForm(value, out, precision - decimalPoint);
  }
}

}  // namespace

QVWCHAR* QVWString::flt(QVWCHAR* out, double value, int width, int precision, QVWCHAR form,
                        int flags) {
  NumberParts parts{};
  parts.sign = signFor(isNegative(value), flags);
  if (parts.sign == '-') value = -value;
  if (precision < 0) precision = kDefaultPrecision;
  if (precision == 0 && form == 'g') precision = 1;

  QVWCHAR scratch[kFloatText];
  cfltcvt(value, scratch, form, precision);
  const bool finite = std::isfinite(value);
  const bool alternate = (flags & kAlternate) != 0;
  if (!finite) flags &= ~kZeroFill;
  if (finite && alternate && precision == 0 && form != 'G') forcdecpt(scratch);
  if (finite && !alternate && form == 'g') cropzeros(scratch);
  parts.digits = scratch;
  parts.digitCount = static_cast<size_t>(endOf(scratch) - scratch);
  return placeNumber(out, parts, width, flags);
}

void QVWString::cfltcvt(double value, QVWCHAR* out, QVWCHAR form, int precision) {
  const bool upperCase = form == 'E' || form == 'G';
  if (!std::isfinite(value)) {
    if (isNegative(value)) *out++ = '-';
    writeNonFinite(value, out, upperCase);
  } else if (form == 'e' || form == 'E') {
    writeExponentForm(value, out, precision, upperCase);
  } else if (form == 'g' || form == 'G') {
    writeGeneralForm(value, out, precision, upperCase);
  } else {
    writeFixedForm(value, out, precision);
  }
}

QVWCHAR* QVWString::cvt(double value, int digits, int* decimalPoint, int* negative, QVWCHAR* buffer,
                        int exponentForm) {
  *decimalPoint = 0;
  *negative = isNegative(value) ? 1 : 0;
  if (!std::isfinite(value)) {
    writeNonFinite(value, buffer, false);
    return buffer;
  }

  double whole = 0;
  double fraction = std::modf(*negative != 0 ? -value : value, &whole);
  int made = 0;
  if (whole != 0) {
    made = putIntegerDigits(whole, buffer);
    *decimalPoint = made;
  } else if (fraction > 0) {
    *decimalPoint = skipLeadingZeros(&fraction);
  }

  // The digit at `last` is worked out too, for the rounding.
  const int last = clampDigits(digits) + (exponentForm != 0 ? 0 : *decimalPoint);
  if (last < 0) {
    buffer[0] = 0;
    return buffer;
  }
  while (made <= last && made < kDigitBuffer) {
    double digit = 0;
    fraction = std::modf(fraction * 10, &digit);
    buffer[made++] = static_cast<QVWCHAR>('0' + static_cast<int>(digit));
  }
  if (last >= kDigitBuffer) {
    buffer[kDigitBuffer - 1] = 0;  // more than the buffer holds: cut, without rounding
  } else {
    roundDigits(buffer, last, exponentForm != 0, decimalPoint);
  }
  return buffer;
}

QVWCHAR* QVWString::ecvtbuf(double value, int digits, int* decimalPoint, int* negative,
                            QVWCHAR* buffer) {
  return cvt(value, digits, decimalPoint, negative, buffer, 1);
}

QVWCHAR* QVWString::fcvtbuf(double value, int digits, int* decimalPoint, int* negative,
                            QVWCHAR* buffer) {
  return cvt(value, digits, decimalPoint, negative, buffer, 0);
}

void QVWString::cropzeros(QVWCHAR* text) {
  while (*text != 0 && *text != '.') ++text;
  if (*text == 0) return;
  QVWCHAR* exponent = text;
  while (*exponent != 0 && !isExponentMark(*exponent)) ++exponent;
  QVWCHAR* end = exponent;
  while (end[-1] == '0') --end;  // the point stops it
  if (end[-1] == '.') --end;
  std::copy(exponent, endOf(exponent) + 1, end);
}

void QVWString::forcdecpt(QVWCHAR* text) {
  while (*text != 0 && *text != '.' && !isExponentMark(*text)) ++text;
  if (*text == '.') return;
  QVWCHAR* const end = endOf(text) + 1;
  std::copy_backward(text, end, end + 1);
  *text = '.';
}
