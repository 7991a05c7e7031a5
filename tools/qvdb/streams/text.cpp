// Text for people.
#include "streams/text.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace qvdb::tool {
namespace {

bool isControl(uint32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

// Characters that reorder the text around them, or end a line.
bool isDeceptive(uint32_t code) {
  return (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) ||
         code == 0x200E || code == 0x200F || code == 0x2028 || code == 0x2029;
}

// How long the character would be that begins with this byte; 0 for a byte that begins none.
size_t announcedLength(unsigned char byte) {
  if (byte < 0x80) return 1;
  if (byte >= 0xC2 && byte < 0xE0) return 2;
  if (byte >= 0xE0 && byte < 0xF0) return 3;
  return byte >= 0xF0 && byte < 0xF5 ? 4 : 0;
}

}  // namespace

size_t utf8Character(std::string_view bytes, uint32_t* code) {
  if (bytes.empty()) return 0;
  const auto first = static_cast<unsigned char>(bytes[0]);
  const size_t length = announcedLength(first);
  if (length == 0 || length > bytes.size()) return 0;
  uint32_t value = length == 1 ? first : first & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if ((byte & 0xC0u) != 0x80) return 0;
    value = value << 6 | (byte & 0x3Fu);
  }
  const bool isOverlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
  if (isOverlong || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  *code = value;
  return length;
}

bool isUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    uint32_t code = 0;
    const size_t length = utf8Character(bytes, &code);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string escaped(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    uint32_t code = 0;
    const size_t length = utf8Character(bytes, &code);
    const std::string_view character = bytes.substr(0, std::max<size_t>(length, 1));
    if (length == 0 || isControl(code) || isDeceptive(code)) {
      text += hexDigits(character, "\\x");
    } else if (code == '\\') {
      text += "\\\\";
    } else {
      text += character;
    }
    bytes.remove_prefix(character.size());
  }
  return text;
}

bool isBinary(std::string_view bytes, size_t* pending) {
  *pending = 0;
  while (!bytes.empty()) {
    uint32_t code = 0;
    const size_t length = utf8Character(bytes, &code);
    if (length == 0) {
      const size_t announced = announcedLength(static_cast<unsigned char>(bytes[0]));
      if (announced <= bytes.size()) return true;
      *pending = bytes.size();
      return false;
    }
    const bool isLayout = code == '\n' || code == '\t' || code == '\r';
    if (!isLayout && (isControl(code) || isDeceptive(code))) return true;
    bytes.remove_prefix(length);
  }
  return false;
}

std::string timeText(int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts = {};
  char text[32];
  if (::gmtime_r(&time, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

namespace {

// Reads so many digits off the text, after `before` if that is not zero. False where it has others.
bool takeNumber(std::string_view* text, char before, size_t digits, unsigned* number) {
  if (before != 0) {
    if (text->empty() || text->front() != before) return false;
    text->remove_prefix(1);
  }
  if (text->size() < digits) return false;
  const char* end = text->data() + digits;
  if (!std::all_of(text->data(), end, [](char c) { return c >= '0' && c <= '9'; })) return false;
  static_cast<void>(std::from_chars(text->data(), end, *number));
  text->remove_prefix(digits);
  return true;
}

std::optional<int64_t> parseSeconds(std::string_view text) {
  int64_t seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (text.empty() || stop != end || error != std::errc()) return std::nullopt;
  return seconds;
}

}  // namespace

std::optional<int64_t> parseTime(std::string_view text) {
  if (text.starts_with('@')) return parseSeconds(text.substr(1));
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!takeNumber(&text, 0, 4, &year) || !takeNumber(&text, '-', 2, &month) ||
      !takeNumber(&text, '-', 2, &day)) {
    return std::nullopt;
  }
  const char separator = text.starts_with(' ') ? ' ' : 'T';
  const bool hasTime = takeNumber(&text, separator, 2, &hour);
  if (hasTime && !takeNumber(&text, ':', 2, &minute)) return std::nullopt;
  if (hasTime) static_cast<void>(takeNumber(&text, ':', 2, &second));
  if (hasTime && text == "Z") text.remove_suffix(1);
  const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(year)),
                                         std::chrono::month(month), std::chrono::day(day));
  if (!text.empty() || !date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const auto midnight = std::chrono::sys_seconds(std::chrono::sys_days(date));
  return (midnight + std::chrono::hours(hour) + std::chrono::minutes(minute) +
          std::chrono::seconds(second))
      .time_since_epoch()
      .count();
}

std::string wrapped(std::string_view text, size_t width, size_t indent) {
  const size_t start = std::min(text.find_first_not_of(' '), text.size());
  std::string result(text.substr(0, start));
  size_t column = start;
  bool isLineStart = true;
  for (size_t from = start; from < text.size();) {
    const size_t end = std::min(text.find(' ', from), text.size());
    const std::string_view word = text.substr(from, end - from);
    const auto size = static_cast<size_t>(
        std::count_if(word.begin(), word.end(), [](char c) { return (c & 0xC0) != 0x80; }));
    if (!isLineStart && column + 1 + size > width) {
      result += '\n' + std::string(indent, ' ');
      column = indent;
      isLineStart = true;
    }
    if (!isLineStart) result += ' ', ++column;
    result += word;
    column += size;
    isLineStart = false;
    from = std::min(text.find_first_not_of(' ', end), text.size());
  }
  return result + '\n';
}

std::string column(std::string_view text, size_t width) {
  return std::string(width - std::min(width, text.size()), ' ').append(text);
}

std::string hexDigits(std::string_view bytes, const char* prefix) {
  std::string digits;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    digits += prefix;
    digits += "0123456789abcdef"[byte >> 4];
    digits += "0123456789abcdef"[byte & 15];
  }
  return digits;
}

std::string counted(uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace qvdb::tool
