// QVDbase: functions on zero-terminated 16-bit strings, and formatted output into them.
//
// The class has no data: make an object wherever one is needed; any two are interchangeable, and
// different threads may use them at the same time.
//
// Characters are unsigned 16-bit units and are compared as such. Lengths count units, never bytes.
// A buffer that a function writes to must have the size stated with it: the size is neither passed
// nor tested, and nothing is written beyond it. Unless a function says what it does with a null
// pointer, it must not be given one. Source and destination must not overlap.
#pragma once

#include <qvdbase/base.h>
#include <stdarg.h>

// A platform string, made by ConvertQVWCHARBufferToCFString. It is one block of memory and is
// released with free().
struct __CFString;

// The functions on strings. An object holds nothing.
class QVDBASE_API QVWString {
 public:
  QVWString();   // does nothing
  ~QVWString();  // does nothing

  // -- Length and copying

  // Returns the number of characters before the terminator.
  int wcslen(const QVWCHAR* text);

  // Returns the number of characters before the terminator, or `n` if that is less. Only the first
  // `n` characters are looked at: a text without a terminator is allowed.
  int wcsnlen(const QVWCHAR* text, uint32_t n);

  // Copies through the terminator. Size: the length of the source plus 1. Returns the destination.
  QVWCHAR* wcscpy(QVWCHAR* destination, const QVWCHAR* source);

  // Writes exactly `n` characters: the source, and zeros after it when it is shorter. When it has
  // `n` characters or more, no terminator is written. Size: n. Returns the destination.
  QVWCHAR* wcsncpy(QVWCHAR* destination, const QVWCHAR* source, uint32_t n);

  // Appends the source. Size: both lengths plus 1. Returns the destination.
  QVWCHAR* wcscat(QVWCHAR* destination, const QVWCHAR* source);

  // Sets every character before the terminator to `c`, taken as 16 bits. Returns the text.
  QVWCHAR* wcsset(QVWCHAR* text, int c);

  // -- Comparison

  // Compares two texts. Returns -1, 0 or 1: the sign of the first difference, never the difference
  // itself.
  int wcscmp(const QVWCHAR* a, const QVWCHAR* b);

  // Compares at most `n` characters and returns the difference of the first two that differ; 0
  // when none does, and when n is 0.
  int wcsncmp(const QVWCHAR* a, const QVWCHAR* b, uint32_t n);

  // Compares with 'A' to 'Z' taken as 'a' to 'z'; no other letter is folded. Returns the difference
  // of the first two folded characters that differ, or 0.
  int wcsicmp(const QVWCHAR* a, const QVWCHAR* b);

  // Compares as wcsicmp does, at most `n` characters; an `n` of 0 is no limit.
  int wcsnicmp(const QVWCHAR* a, const QVWCHAR* b, uint32_t n);

  // -- Searching. The pointers returned point into `text`.

  // Returns the first character equal to `c` (taken as 16 bits), or null. A `c` of 0 finds the
  // terminator.
  QVWCHAR* wcschr(const QVWCHAR* text, int c);

  // Returns the last character equal to `c`, or null. A `c` of 0 finds the terminator.
  QVWCHAR* wcsrchr(const QVWCHAR* text, int c);

  // Returns the first occurrence of `part`, or null. An empty part is found at the start.
  QVWCHAR* wcsstr(const QVWCHAR* text, const QVWCHAR* part);

  // Returns the length of the leading run of characters that are in `set`.
  uint32_t wcsspn(const QVWCHAR* text, const QVWCHAR* set);

  // Returns the length of the leading run of characters that are not in `set`.
  uint32_t wcscspn(const QVWCHAR* text, const QVWCHAR* set);

  // Returns the first character that is in `set`, or null.
  QVWCHAR* wcspbrk(const QVWCHAR* text, const QVWCHAR* set);

  // Returns the 0-based index of the first occurrence of `pattern` at or after `start`, or -1. The
  // result is -1 for null pointers too, and for a start at or after the end, even for an empty
  // pattern, which is otherwise found at `start`. A negative start counts as 0.
  int Find(const QVWCHAR* subject, const QVWCHAR* pattern, int start);

  // -- Editing in place

  // Replaces `from` by `to` wherever it is found. After a match the scan moves on by one character
  // only: what follows the first character of a match is looked at again, and copied or
  // matched again ("abc" with "ab" to "X" gives "Xbc"). An empty `from` matches every character.
  //
  // Size: the length of the result plus 1; that is at most (length of the subject) times (length
  // of `to`, at least 1), plus 1. Returns 1 when something was replaced. Returns 0, with the
  // subject unchanged, when nothing was, for null pointers, and when there is not enough memory for
  // a result of more than 4,096 characters.
  int Replace(QVWCHAR* subject, const QVWCHAR* from, const QVWCHAR* to);

  // Cleans the name of a directory: every run of spaces, tabs, double quotes, slashes and
  // backslashes becomes one space, and a space at either end is dropped. Null is ignored. The text
  // never grows. When there is not enough memory for a copy, it is not changed.
  void TrimPlus(QVWCHAR* text);

  // -- Conversion

  // Makes a platform string of the characters before the terminator; the caller releases it with
  // free(). Returns null for a null pointer, and when there is not enough memory.
  __CFString* ConvertQVWCHARBufferToCFString(const QVWCHAR* text);

  // Converts to UTF-8, at most `size` bytes, and puts a zero byte after them.
  // Size: size + 1 bytes. A character is stored whole or not at all; the first one that does not
  // fit, or cannot be converted (an unpaired surrogate), ends the conversion.
  // Returns 1, also when not everything was converted; 0, with nothing written, for a null
  // source.
  int ConvertQVWCHARBufferToUTF8Buffer(const QVWCHAR* source, unsigned char* destination, int size);

  // Copies the characters of a platform string as wcsncpy does. Size: n characters, none when n is
  // below 1. Returns 1, or 0 with nothing written for a null string.
  int ConvertCFStringToQVWCHARBuffer(const __CFString* string, QVWCHAR* destination, int n);

  // -- Formatted output

  // Writes the format to the buffer, with each directive replaced by its argument, and a
  // terminator. Returns the number of characters before the terminator.
  //
  // A directive is %, then in this order:
  //   flags      any of '-' (to the left), '+' (plus sign), ' ' (space for a sign), '#' (alternate
  //              form), '0' (zeros as fill; '-' wins over it)
  //   width      digits, or * for an int argument; a negative one turns '-' on
  //   precision  '.' and digits, or * for an int argument; '.' alone and a negative one are 0
  //   qualifier  one of h, l, L; integers have 32 bits whatever it says
  //   conversion
  //     c          int                one character
  //     s          const QVWCHAR*     a string, at most `precision` characters of it; "<NULL>" for
  //                                   a null pointer
  //     d i u      int                decimal, signed (d, i) or unsigned (u)
  //     o x X      int                octal, hexadecimal; with '#' after "0", "0x" or "0X"
  //     p          void*              hexadecimal; without a width at least 8 digits
  //     n          int*               writes nothing; stores the number of characters so far
  //     a A        const QVWCHAR*     the address of iaddr, with l that of eaddr
  //     e E f g G  double             see flt
  // With any other conversion the character is written, after a '%' unless it is one:
  // "%%" writes "%", and "%q" writes "%q". A format that ends inside a directive writes "%".
  //
  // Size: the literal characters, and for each directive the larger of its width and what its
  // value takes, plus 1 for the terminator:
  //   c              1
  //   s              the length of the string, at most the precision; 6 for a null pointer
  //   d i u o x X    3 + the larger of 11 and the precision
  //   p              2 + the larger of 16 and the precision
  //   a              23 (with l: 17)
  //   e E f g G      360, whatever the precision
  //   anything else  2
  // No more than that is written, whatever width, precision or value a directive asks for. Digits
  // too many for an int wrap around (a precision that becomes negative so is 0), and a * width of
  // -2147483648 pads nothing.
  int swprintf(QVWCHAR* buffer, const QVWCHAR* format, ...);

  // Does what swprintf does with an argument list.
  int vswprintf(QVWCHAR* buffer, const QVWCHAR* format, va_list arguments);

  // -- The parts of formatted output, for use on their own
  //
  // `flags` is a sum of:
  //   1 zero fill, 2 signed, 4 plus sign, 8 space for a sign, 16 to the left, 32 alternate form,
  //   64 upper case
  // A width or a precision below 0 is none. Each `out` is written without a terminator, and the
  // pointer just past the text is returned.

  // The value of the decimal digits at the cursor, which moves past them; 0 where there are none.
  // More digits than an int has wrap around.
  int skip_atoi(const QVWCHAR** cursor);

  // An integer in base 2 to 36, as 32 bits without a sign unless the flags say "signed". At least
  // `precision` digits. Size: the larger of the width and 3 + the larger of 32 and the precision.
  // Returns null for another base, with nothing written.
  QVWCHAR* number(QVWCHAR* out, int32_t value, int base, int width, int precision, int flags);

  // Four elements of `address` in decimal, with points between them. The precision is not used.
  // Size: the larger of the width and 23.
  QVWCHAR* iaddr(QVWCHAR* out, const QVWCHAR* address, int width, int precision, int flags);

  // Six elements of `address`, the low byte of each as two hexadecimal digits, with colons between
  // them. The precision is not used. Size: the larger of the width and 17.
  QVWCHAR* eaddr(QVWCHAR* out, const QVWCHAR* address, int width, int precision, int flags);

  // A floating-point number. Without the signed flag a minus sign counts as part of the digits.
  //   e E     d.ddde+ddd, the exponent with three digits; `precision` digits after the point
  //   f       ddd.ddd, `precision` digits after the point
  //   g G     `precision` significant digits: as e when the exponent is below -4 or not below the
  //           precision, otherwise as f. Zeros at the end are cropped by g (not with '#'), not by G
  // A negative precision is 6; 0 is 1 for g, but stays 0 for G (where a number in the e form then
  // has no digit and no text). A precision of 0 writes no point, but with '#' e and f keep it.
  // At most 350 digits are calculated after the point in f, 350 in all in e, and 351 characters
  // of digits in any case; what a larger precision asks for beyond them is left out.
  // Infinities and not-a-numbers are "inf" and "nan" ("INF" and "NAN" for E and G), after their
  // sign and always filled with spaces. Size: the larger of the width and 360.
  QVWCHAR* flt(QVWCHAR* out, double value, int width, int precision, QVWCHAR form, int flags);

  // The bare number, with a minus sign if it is negative, and a terminator. No precision is
  // replaced by another one: below 0 there are no digits. Size: 360.
  void cfltcvt(double value, QVWCHAR* out, QVWCHAR form, int precision);

  // Writes the decimal digits of a number, rounded and with a terminator: `digits` of them in all
  // (exponentForm not 0), or that many after the decimal point (exponentForm 0). `digits` is 0 to
  // 350; a number outside counts as the nearer end. *decimalPoint receives the number of
  // digits before the decimal point (negative for zeros that follow it), *negative 1 or 0.
  // Infinities and not-a-numbers are "inf" and "nan" with a decimal point of 0.
  // Size: 352 characters, always. Returns the buffer.
  QVWCHAR* cvt(double value, int digits, int* decimalPoint, int* negative, QVWCHAR* buffer,
               int exponentForm);

  // Does what cvt does with an exponentForm of 1.
  QVWCHAR* ecvtbuf(double value, int digits, int* decimalPoint, int* negative, QVWCHAR* buffer);

  // Does what cvt does with an exponentForm of 0.
  QVWCHAR* fcvtbuf(double value, int digits, int* decimalPoint, int* negative, QVWCHAR* buffer);

  // Removes the zeros at the end of the fraction of a number made by cfltcvt, and the point if
  // nothing is left after it.
  void cropzeros(QVWCHAR* text);

  // Adds a point to a number made by cfltcvt if it has none. Size: the text, its terminator and one
  // more character.
  void forcdecpt(QVWCHAR* text);
};
