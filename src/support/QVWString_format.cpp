// Formatted output: the format and its directives, characters and strings, integers, and the two
// address forms. Floating-point numbers are in QVWString_float.cpp.
//
// The text goes straight to the caller's buffer. Only the digits of a number are worked out in a
// scratch area first, and their count has a limit of its own, so that no width and no precision
// can overrun one.
#include <qvdbase/QVWString.h>

#include <bit>

#include "support/format_number.h"

using namespace qvdbase;
using namespace qvdbase::support;

namespace {

constexpr QVWCHAR QV_digits[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c',
                                 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n', 'o', 'p',
                                 'q', 'r', 's', 't', 'u', 'v', 'w', 'x', 'y', 'z', 0};
constexpr QVWCHAR QV_upper_digits[] = {
    '0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I',
    'J', 'K', 'L', 'M', 'N', 'O', 'P', 'Q', 'R', 'S', 'T', 'U', 'V', 'W', 'X', 'Y', 'Z', 0};
constexpr QVWCHAR kNullText[] = {'<', 'N', 'U', 'L', 'L', '>', 0};

constexpr int kPlaceOfX = 33;       // in either table of digits
constexpr size_t kMostDigits = 64;  // a 64-bit number in base 2
constexpr int kPointerDigits = 8;

const QVWCHAR* digitTable(int flags) {
  return (flags & kUpperCase) != 0 ? QV_upper_digits : QV_digits;
}

bool isDigit(QVWCHAR c) {
  return c >= '0' && c <= '9';
}

// Text between the spaces that its width asks for.
QVWCHAR* placeText(QVWCHAR* out, const QVWCHAR* text, int length, int width, int flags) {
  const int64_t left = int64_t{width} - length;
  if ((flags & kLeft) == 0) out = fill(out, ' ', left);
  out = std::copy_n(text, length, out);
  return (flags & kLeft) != 0 ? fill(out, ' ', left) : out;
}

// Writes the digits before `end`, and returns where they begin; 0 has one digit.
QVWCHAR* digitsBefore(QVWCHAR* end, uint64_t value, int base, const QVWCHAR* table) {
  do {
    *--end = table[value % static_cast<unsigned>(base)];
    value /= static_cast<unsigned>(base);
  } while (value != 0);
  return end;
}

QVWCHAR* placeInteger(QVWCHAR* out, uint64_t magnitude, QVWCHAR sign, int base, int width,
                      int precision, int flags) {
  const QVWCHAR* const table = digitTable(flags);
  QVWCHAR scratch[kMostDigits];
  QVWCHAR* const end = scratch + kMostDigits;
  NumberParts parts{};
  parts.sign = sign;
  parts.digits = digitsBefore(end, magnitude, base, table);
  parts.digitCount = static_cast<size_t>(end - parts.digits);
  parts.leadingZeros =
      std::max(int64_t{0}, int64_t{precision} - static_cast<int64_t>(parts.digitCount));
  if ((flags & kAlternate) != 0 && (base == 8 || base == 16)) {
    parts.prefix[0] = '0';
    parts.prefix[1] = table[kPlaceOfX];
    parts.prefixLength = base == 16 ? 2 : 1;
  }
  return placeNumber(out, parts, width, flags);
}

// A directive without its conversion. A width or precision that is not given is -1.
struct Directive {
  int flags = 0;
  int width = -1;
  int precision = -1;
  QVWCHAR qualifier = 0;
};

int flagFor(QVWCHAR c) {
  static constexpr struct {
    QVWCHAR character;
    int flag;
  } kFlags[] = {
      {'-', kLeft}, {'+', kPlusSign}, {' ', kSpaceSign}, {'#', kAlternate}, {'0', kZeroFill}};
  for (const auto& each : kFlags) {
    if (each.character == c) return each.flag;
  }
  return 0;
}

// One call of vswprintf: where the text goes, where the format is read, and the arguments left.
class Formatter {
 public:
  Formatter(QVWCHAR* buffer, const QVWCHAR* format, va_list arguments)
      : begin_(buffer), out_(buffer), format_(format) {
    va_copy(arguments_, arguments);
  }
  ~Formatter() { va_end(arguments_); }
  Formatter(const Formatter&) = delete;
  Formatter& operator=(const Formatter&) = delete;

  int run();

 private:
  Directive readDirective();
  void readWidth(Directive* directive);
  void readPrecision(Directive* directive);
  void convert(const Directive& directive);
  void convertInteger(QVWCHAR conversion, const Directive& directive);
  void putCharacter(const Directive& directive);
  void putString(const Directive& directive);
  void putPointer(Directive directive);
  void putAddress(const Directive& directive, int flags);
  void putUnknown(QVWCHAR conversion);
  int count() const { return static_cast<int>(out_ - begin_); }

  QVWString text_;
  QVWCHAR* const begin_;
  QVWCHAR* out_;
  const QVWCHAR* format_;
  va_list arguments_;
};

int Formatter::run() {
  while (*format_ != 0) {
    const QVWCHAR c = *format_++;
    if (c == '%') {
      convert(readDirective());
    } else {
      *out_++ = c;
    }
  }
  *out_ = 0;
  return count();
}

Directive Formatter::readDirective() {
  Directive directive;
  for (; flagFor(*format_) != 0; ++format_) directive.flags |= flagFor(*format_);
  readWidth(&directive);
  readPrecision(&directive);
  if (*format_ == 'h' || *format_ == 'l' || *format_ == 'L') directive.qualifier = *format_++;
  return directive;
}

void Formatter::readWidth(Directive* directive) {
  if (isDigit(*format_)) {
    directive->width = text_.skip_atoi(&format_);
    return;  // digits or an argument: a '*' after digits is no width any more
  }
  if (*format_ != '*') return;
  ++format_;
  directive->width = va_arg(arguments_, int);
  if (directive->width >= 0) return;
  directive->flags |= kLeft;
  // The least int has no counterpart; negated it stays itself, a width that pads nothing.
  directive->width = std::bit_cast<int>(0u - std::bit_cast<unsigned>(directive->width));
}

void Formatter::readPrecision(Directive* directive) {
  if (*format_ != '.') return;
  ++format_;
  int precision = 0;
  if (isDigit(*format_)) {
    precision = text_.skip_atoi(&format_);
  } else if (*format_ == '*') {
    ++format_;
    precision = va_arg(arguments_, int);
  }
  directive->precision = std::max(precision, 0);
}

void Formatter::convert(const Directive& directive) {
  const QVWCHAR conversion = *format_;
  if (conversion != 0) ++format_;  // a format that ends here keeps its terminator
  switch (conversion) {
    case 'c':
      return putCharacter(directive);
    case 's':
      return putString(directive);
    case 'p':
      return putPointer(directive);
    case 'n':
      *va_arg(arguments_, int*) = count();
      return;
    case 'a':
      return putAddress(directive, directive.flags);
    case 'A':
      return putAddress(directive, directive.flags | kUpperCase);
    case 'o':
    case 'x':
    case 'X':
    case 'd':
    case 'i':
    case 'u':
      return convertInteger(conversion, directive);
    case 'e':
    case 'E':
    case 'f':
    case 'g':
    case 'G':
      out_ = text_.flt(out_, va_arg(arguments_, double), directive.width, directive.precision,
                       conversion, directive.flags | kSigned);
      return;
    default:
      return putUnknown(conversion);
  }
}

void Formatter::convertInteger(QVWCHAR conversion, const Directive& directive) {
  const int value = va_arg(arguments_, int);
  int base = 10;
  int flags = directive.flags;
  if (conversion == 'o') base = 8;
  if (conversion == 'x' || conversion == 'X') base = 16;
  if (conversion == 'X') flags |= kUpperCase;
  if (conversion == 'd' || conversion == 'i') flags |= kSigned;
  out_ = text_.number(out_, value, base, directive.width, directive.precision, flags);
}

void Formatter::putCharacter(const Directive& directive) {
  const QVWCHAR c = static_cast<QVWCHAR>(va_arg(arguments_, int));
  out_ = placeText(out_, &c, 1, directive.width, directive.flags);
}

void Formatter::putString(const Directive& directive) {
  const QVWCHAR* string = va_arg(arguments_, const QVWCHAR*);
  if (string == nullptr) string = kNullText;
  const int length = directive.precision < 0
                         ? text_.wcslen(string)
                         : text_.wcsnlen(string, static_cast<uint32_t>(directive.precision));
  out_ = placeText(out_, string, length, directive.width, directive.flags);
}

// A host's pointer has more bits than the integers of `number`.
void Formatter::putPointer(Directive directive) {
  if (directive.width == -1) {
    directive.width = kPointerDigits;
    directive.flags |= kZeroFill;
  }
  const auto address = reinterpret_cast<uintptr_t>(va_arg(arguments_, void*));
  out_ = placeInteger(out_, address, 0, 16, directive.width, directive.precision, directive.flags);
}

void Formatter::putAddress(const Directive& directive, int flags) {
  const QVWCHAR* const address = va_arg(arguments_, const QVWCHAR*);
  out_ = directive.qualifier == 'l'
             ? text_.eaddr(out_, address, directive.width, directive.precision, flags)
             : text_.iaddr(out_, address, directive.width, directive.precision, flags);
}

void Formatter::putUnknown(QVWCHAR conversion) {
  if (conversion != '%') *out_++ = '%';
  if (conversion != 0) *out_++ = conversion;
}

}  // namespace

int QVWString::swprintf(QVWCHAR* buffer, const QVWCHAR* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int count = vswprintf(buffer, format, arguments);
  va_end(arguments);
  return count;
}

int QVWString::vswprintf(QVWCHAR* buffer, const QVWCHAR* format, va_list arguments) {
  return Formatter(buffer, format, arguments).run();
}

int QVWString::skip_atoi(const QVWCHAR** cursor) {
  unsigned value = 0;  // unsigned, so that too many digits wrap around
  for (; isDigit(**cursor); ++*cursor) value = value * 10 + (**cursor - unsigned{'0'});
  return std::bit_cast<int>(value);
}

QVWCHAR* QVWString::number(QVWCHAR* out, int32_t value, int base, int width, int precision,
                           int flags) {
  if (base < 2 || base > 36) return nullptr;
  const bool negative = (flags & kSigned) != 0 && value < 0;
  const uint32_t bits = static_cast<uint32_t>(value);
  const uint32_t magnitude = negative ? 0u - bits : bits;
  return placeInteger(out, magnitude, signFor(negative, flags), base, width, precision, flags);
}

QVWCHAR* QVWString::iaddr(QVWCHAR* out, const QVWCHAR* address, int width, int, int flags) {
  constexpr int kElements = 4;
  constexpr int kLongest = 5 * kElements + kElements - 1;  // "65535" and the points between
  QVWCHAR scratch[kLongest];
  QVWCHAR* const end = scratch + kLongest;
  QVWCHAR* begin = end;
  for (int i = kElements - 1; i >= 0; --i) {
    begin = digitsBefore(begin, address[i], 10, QV_digits);
    if (i > 0) *--begin = '.';
  }
  return placeText(out, begin, static_cast<int>(end - begin), width, flags);
}

QVWCHAR* QVWString::eaddr(QVWCHAR* out, const QVWCHAR* address, int width, int, int flags) {
  constexpr int kElements = 6;
  constexpr int kLength = 3 * kElements - 1;
  const QVWCHAR* const table = digitTable(flags);
  QVWCHAR scratch[kLength];
  QVWCHAR* next = scratch;
  for (int i = 0; i < kElements; ++i) {
    if (i > 0) *next++ = ':';
    *next++ = table[(address[i] >> 4) & 15];
    *next++ = table[address[i] & 15];
  }
  return placeText(out, scratch, kLength, width, flags);
}
