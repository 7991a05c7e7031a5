// The rules of floating-point output written down once more, as plainly as possible and without any
// buffer: what a random sweep compares the library with.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>

namespace qvdbase::test::rules {

// Digits of a number, and where its decimal point is among them.
struct Digits {
  std::string text;
  int point = 0;
};

inline Digits digitsOf(double value, int64_t wanted, bool exponentForm) {
  if (wanted < 0) wanted = 0;
  if (wanted > 350) wanted = 350;
  Digits result;
  double whole = 0;
  double fraction = std::modf(std::fabs(value), &whole);
  if (whole > 0) {
    while (whole > 0) {
      const double part = std::modf(whole / 10, &whole);
      result.text.insert(0, 1, static_cast<char>('0' + static_cast<int>((part + 0.03) * 10)));
    }
    result.point = static_cast<int>(result.text.size());
  } else if (fraction > 0) {
    while (fraction * 10 < 1) {
      fraction = fraction * 10;
      result.point = result.point - 1;
    }
  }

  const int64_t last = exponentForm ? wanted : wanted + result.point;
  if (last < 0) return {"", result.point};
  while (static_cast<int64_t>(result.text.size()) <= last && result.text.size() < 352) {
    double digit = 0;
    fraction = std::modf(fraction * 10, &digit);
    result.text += static_cast<char>('0' + static_cast<int>(digit));
  }
  if (last >= 352) {
    result.text.resize(351);
    return result;
  }

  // Round at the digit after the last one wanted, as on paper: the carry goes on as long as it
  // meets nines.
  const auto kept = static_cast<size_t>(last);
  bool carry = result.text[kept] >= '5';
  result.text.resize(kept);
  for (size_t i = kept; carry && i > 0; --i) {
    char& digit = result.text[i - 1];
    carry = digit == '9';
    digit = carry ? '0' : static_cast<char>(digit + 1);
  }
  if (carry) {
    result.text = "1" + result.text;
    result.point = result.point + 1;
    if (exponentForm) result.text.pop_back();
  }
  return result;
}

inline std::string exponentForm(double value, int64_t precision, char mark) {
  const Digits digits = digitsOf(value, precision + 1, true);
  if (digits.text.empty()) return "";
  std::string text = digits.text.substr(0, 1);
  if (precision > 0) text += "." + digits.text.substr(1);
  const int exponent = value == 0 ? 0 : digits.point - 1;
  std::string magnitude = std::to_string(std::abs(exponent));
  while (magnitude.size() < 3) magnitude = "0" + magnitude;
  return text + mark + (exponent < 0 ? "-" : "+") + magnitude;
}

inline std::string fixedForm(double value, int64_t precision) {
  const Digits digits = digitsOf(value, precision, false);
  if (digits.text.empty()) {
    if (precision <= 0) return "0";
    return "0." + std::string(static_cast<size_t>(precision), '0');
  }
  if (digits.point <= 0) {
    return "0." + std::string(static_cast<size_t>(-digits.point), '0') + digits.text;
  }
  const auto point = static_cast<size_t>(digits.point);
  if (digits.text.size() <= point) return digits.text;
  return digits.text.substr(0, point) + "." + digits.text.substr(point);
}

inline std::string generalForm(double value, int64_t precision, char mark) {
  const int point = digitsOf(value, precision, true).point;
  if (point - 1 < -4 || point - 1 > precision - 1) {
    return exponentForm(value, precision - 1, mark);
  }
  return fixedForm(value, precision - point);
}

inline std::string bareNumber(double value, int precision, char form) {
  if (form == 'e' || form == 'E') return exponentForm(value, precision, form);
  if (form == 'g') return generalForm(value, precision, 'e');
  if (form == 'G') return generalForm(value, precision, 'E');
  return fixedForm(value, precision);
}

inline size_t endOfMantissa(const std::string& number) {
  const size_t mark = number.find_first_of("eE");
  return mark == std::string::npos ? number.size() : mark;
}

inline std::string withPoint(const std::string& number) {
  if (number.find('.') != std::string::npos) return number;
  const size_t end = endOfMantissa(number);
  return number.substr(0, end) + "." + number.substr(end);
}

inline std::string withoutTrailingZeros(const std::string& number) {
  if (number.find('.') == std::string::npos) return number;
  const size_t end = endOfMantissa(number);
  std::string mantissa = number.substr(0, end);
  while (mantissa.back() == '0') mantissa.pop_back();
  if (mantissa.back() == '.') mantissa.pop_back();
  return mantissa + number.substr(end);
}

struct Directive {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  bool zero = false;
  int width = -1;
  int precision = -1;
  char form = 'f';
};

// What a directive of the e, f and g forms writes.
inline std::string format(const Directive& directive, double value) {
  const bool negative = std::isnan(value) ? std::signbit(value) : value < 0;
  const std::string sign = negative ? "-" : directive.plus ? "+" : directive.space ? " " : "";
  std::string number;
  bool zeroFill = directive.zero && !directive.left;
  if (std::isfinite(value)) {
    int precision = directive.precision < 0 ? 6 : directive.precision;
    if (precision == 0 && directive.form == 'g') precision = 1;
    number = bareNumber(std::fabs(value), precision, directive.form);
    if (directive.alternate && precision == 0 && directive.form != 'G') number = withPoint(number);
    if (!directive.alternate && directive.form == 'g') number = withoutTrailingZeros(number);
  } else {
    const bool upper = directive.form == 'E' || directive.form == 'G';
    number = std::isnan(value) ? (upper ? "NAN" : "nan") : (upper ? "INF" : "inf");
    zeroFill = false;
  }

  const auto width = static_cast<size_t>(directive.width < 0 ? 0 : directive.width);
  const size_t length = sign.size() + number.size();
  const size_t rest = width > length ? width - length : 0;
  if (directive.left) return sign + number + std::string(rest, ' ');
  if (zeroFill) return sign + std::string(rest, '0') + number;
  return std::string(rest, ' ') + sign + number;
}

}  // namespace qvdbase::test::rules
