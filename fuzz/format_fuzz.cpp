// Fuzz target: formatted output with any format, value, width and precision, and the number
// conversions after it with any argument.
//
// The input is a format of 16-bit characters, a zero, and the bytes that the arguments are taken
// from. The format is cut after each directive, and every piece is written on its own, because
// the arguments of a call are fixed when it is compiled. Each buffer is exactly as large as the
// header asks for, so that one character too many is seen by the address sanitizer.
#include <qvdbase/QVWString.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// Wider output is only slow.
constexpr int kWidest = 5000;

void check(bool condition) {
  if (!condition) std::abort();
}

bool isOneOf(const char* set, QVWCHAR c) {
  return c != 0 && c < 128 && std::strchr(set, static_cast<char>(c)) != nullptr;
}

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  template <typename T>
  T take() {
    T value{};
    const size_t count = std::min(sizeof(T), size_);
    if (count > 0) std::memcpy(&value, data_, count);
    data_ += count;
    size_ -= count;
    return value;
  }

  std::vector<QVWCHAR> takeText(size_t limit) {
    std::vector<QVWCHAR> text;
    while (size_ > 0 && text.size() < limit) {
      const auto c = take<QVWCHAR>();
      if (c == 0) break;
      text.push_back(c);
    }
    text.push_back(0);
    text.shrink_to_fit();
    return text;
  }

  // Small and extreme numbers alike.
  int takeInt() {
    switch (take<uint8_t>() % 4) {
      case 0:
        return take<int8_t>();
      case 1:
        return take<int16_t>() % kWidest;
      default:
        return take<int32_t>();
    }
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

// The first directive of a format, as far as the memory and the arguments depend on it.
struct Directive {
  size_t end = 0;  // after it
  bool widthArgument = false;
  bool precisionArgument = false;
  int64_t width = 0;
  int64_t precision = -1;
  QVWCHAR qualifier = 0;
  QVWCHAR conversion = 0;
};

// Digits as an int takes them: modulo 2^32.
int64_t readDigits(const QVWCHAR* format, size_t* at) {
  uint32_t value = 0;
  while (format[*at] >= '0' && format[*at] <= '9') value = value * 10 + (format[(*at)++] - 48u);
  return static_cast<int32_t>(value);
}

Directive firstDirective(const QVWCHAR* format) {
  Directive directive;
  size_t at = 0;
  const auto is = [&](const char* set) { return isOneOf(set, format[at]); };
  while (format[at] != 0 && format[at] != '%') ++at;
  if (format[at] == '%') {
    ++at;
    while (is(" #+-0")) ++at;
    const bool widthDigits = is("0123456789");
    directive.width = readDigits(format, &at);
    if (!widthDigits && is("*")) directive.widthArgument = ++at > 0;
    if (is(".")) {
      ++at;
      const bool digits = is("0123456789");
      directive.precision = readDigits(format, &at);
      if (!digits && is("*")) directive.precisionArgument = ++at > 0;
    }
    if (is("hlL")) directive.qualifier = format[at++];
    directive.conversion = format[at];
    if (format[at] != 0) ++at;
  }
  directive.end = at;
  return directive;
}

// What the header asks for, without the terminator.
int64_t roomFor(const Directive& directive, int64_t width, int64_t precision, size_t stringLength) {
  int64_t value = 2;
  switch (directive.conversion) {
    case 'c':
      value = 1;
      break;
    case 's':
      value = static_cast<int64_t>(stringLength);
      if (precision >= 0) value = std::min(value, precision);
      break;
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      value = 3 + std::max<int64_t>(11, precision);
      break;
    case 'p':
      value = 2 + std::max<int64_t>(16, precision);
      break;
    case 'n':
      value = 0;
      break;
    case 'a':
    case 'A':
      value = directive.qualifier == 'l' ? 17 : 23;
      break;
    case 'e':
    case 'E':
    case 'f':
    case 'g':
    case 'G':
      value = 360;
      break;
    default:
      return value;
  }
  return std::max(width, directive.conversion == 'n' ? 0 : value);
}

struct Call {
  const QVWCHAR* format;
  QVWCHAR* buffer;
  const Directive* directive;
  int width;
  int precision;

  template <typename T>
  int operator()(T value) const {
    QVWString text;
    if (directive->widthArgument && directive->precisionArgument)
      return text.swprintf(buffer, format, width, precision, value);
    if (directive->widthArgument) return text.swprintf(buffer, format, width, value);
    if (directive->precisionArgument) return text.swprintf(buffer, format, precision, value);
    return text.swprintf(buffer, format, value);
  }
};

int writeWith(const Call& call, Input* input, const QVWCHAR* string, const QVWCHAR* address) {
  switch (call.directive->conversion) {
    case 's':
      return call(string);
    case 'p':
      return call(reinterpret_cast<void*>(input->take<uintptr_t>()));
    case 'a':
    case 'A':
      return call(address);
    case 'e':
    case 'E':
    case 'f':
    case 'g':
    case 'G':
      return call(input->take<double>());
    case 'n': {
      int count = -1;
      const int result = call(&count);
      check(count == result);
      return result;
    }
    default:
      return call(input->take<int>());
  }
}

// Writes a piece that holds at most one directive, which ends it.
void writePiece(const QVWCHAR* format, const Directive& directive, Input* input) {
  const int widthArgument = input->takeInt();
  const int precisionArgument = input->takeInt();
  int64_t width = directive.widthArgument ? std::abs(int64_t{widthArgument}) : directive.width;
  if (width == int64_t{INT32_MAX} + 1) width = 0;
  int64_t precision = directive.precision;
  if (directive.precisionArgument) precision = precisionArgument;
  if (directive.precision >= 0 || directive.precisionArgument)
    precision = std::max<int64_t>(precision, 0);
  if (width > kWidest) return;
  const bool isInteger = isOneOf("dioxXup", directive.conversion);
  if (isInteger && precision > kWidest) return;

  std::vector<QVWCHAR> string = input->takeText(40);
  const bool nullString = input->take<uint8_t>() % 16 == 0;
  const size_t stringLength = nullString ? 6 : string.size() - 1;
  if (directive.conversion == 's' && precision >= 0 && !nullString &&
      static_cast<size_t>(precision) < string.size()) {
    string.resize(static_cast<size_t>(precision));  // no terminator needed
    string.shrink_to_fit();
  }
  std::unique_ptr<QVWCHAR[]> address(new QVWCHAR[6]);
  for (int i = 0; i < 6; ++i) address[static_cast<size_t>(i)] = input->take<QVWCHAR>();

  const auto literals = static_cast<int64_t>(directive.end);
  const auto room =
      static_cast<size_t>(literals + roomFor(directive, width, precision, stringLength) + 1);
  std::unique_ptr<QVWCHAR[]> buffer(new QVWCHAR[room]);
  const Call call{format, buffer.get(), &directive, widthArgument, precisionArgument};
  const int count = writeWith(call, input, nullString ? nullptr : string.data(), address.get());
  check(count >= 0 && static_cast<size_t>(count) < room && buffer[static_cast<size_t>(count)] == 0);
  if (isOneOf("csdiouxXpaAeEfgG", directive.conversion)) {
    check(count >= width);
  }
}

void writeFormat(Input* input) {
  const std::vector<QVWCHAR> format = input->takeText(64);
  for (size_t begin = 0; format[begin] != 0;) {
    const Directive directive = firstDirective(format.data() + begin);
    std::vector<QVWCHAR> piece(format.begin() + static_cast<std::ptrdiff_t>(begin),
                               format.begin() + static_cast<std::ptrdiff_t>(begin + directive.end));
    piece.push_back(0);
    piece.shrink_to_fit();
    writePiece(piece.data(), directive, input);
    begin += directive.end;
  }
}

void convertNumbers(Input* input) {
  QVWString text;
  const auto value = input->take<double>();
  const int precision = input->takeInt();
  const int width = std::min(input->takeInt(), kWidest);
  const int flags = input->take<uint8_t>();
  const auto form = static_cast<QVWCHAR>("eEfgGx"[input->take<uint8_t>() % 6]);

  std::unique_ptr<QVWCHAR[]> digits(new QVWCHAR[352]);
  int decimalPoint = 0;
  int negative = 0;
  text.cvt(value, precision, &decimalPoint, &negative, digits.get(), flags & 1);
  check(text.wcslen(digits.get()) <= 351);

  std::unique_ptr<QVWCHAR[]> bare(new QVWCHAR[360]);
  text.cfltcvt(value, bare.get(), form, precision);
  check(text.wcslen(bare.get()) < 360);
  text.cropzeros(bare.get());

  const auto room = static_cast<size_t>(std::max(width, 360));
  std::unique_ptr<QVWCHAR[]> placed(new QVWCHAR[room]);
  const QVWCHAR* end = text.flt(placed.get(), value, width, precision, form, flags);
  check(end - placed.get() >= width);

  const auto integer = input->take<int32_t>();
  const int base = input->take<int8_t>();
  const int digitCount = std::min(precision, kWidest);
  const auto integerRoom = static_cast<size_t>(std::max(width, 3 + std::max(32, digitCount)));
  std::unique_ptr<QVWCHAR[]> number(new QVWCHAR[integerRoom]);
  end = text.number(number.get(), integer, base, width, digitCount, flags);
  check((end == nullptr) == (base < 2 || base > 36));
  check(end == nullptr || end - number.get() >= width);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  if (input.take<uint8_t>() % 4 == 0) {
    convertNumbers(&input);
  } else {
    writeFormat(&input);
  }
  return 0;
}
