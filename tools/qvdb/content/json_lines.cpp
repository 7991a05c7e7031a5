// Writing JSON Lines.
#include "content/json_lines.h"

#include <array>
#include <charconv>
#include <cstring>

#include "streams/text.h"

namespace qvdb::tool {
namespace {

constexpr size_t kBufferSize = size_t{256} << 10;
constexpr char kHex[] = "0123456789abcdef";
constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr uint64_t kOnes = 0x0101010101010101;
constexpr uint64_t kTops = 0x8080808080808080;

// The top bit of each byte that is 0 in `bytes`; that of a higher one may be there, too.
uint64_t zeroBytes(uint64_t bytes) {
  return (bytes - kOnes) & ~bytes & kTops;
}

uint64_t eightFrom(const char* text) {
  uint64_t eight = 0;
  std::memcpy(&eight, text, sizeof eight);
  return eight;
}

// Top bits of characters that a JSON string has escaped: control characters, quotes, backslashes.
uint64_t escapedOnes(uint64_t eight) {
  const uint64_t below = (eight - kOnes * 0x20) & ~eight;
  const uint64_t quotes = zeroBytes(eight ^ (kOnes * '"')) | zeroBytes(eight ^ (kOnes * '\\'));
  return below | quotes;
}

// Whether one of eight characters is not ASCII that a JSON string has as it is.
bool needsLook(const char* text) {
  const uint64_t eight = eightFrom(text);
  const uint64_t deleted = zeroBytes(eight ^ (kOnes * 0x7F));
  return ((escapedOnes(eight) | eight | deleted) & kTops) != 0;
}

bool isPlain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\';
}

// How many characters from the beginning a JSON string has as they are.
size_t plainLength(std::string_view text) {
  size_t length = 0;
  while (length + 8 <= text.size() && !needsLook(text.data() + length)) length += 8;
  while (length < text.size() && isPlain(text[length])) ++length;
  return length;
}

// The first byte of each character that mustBeEscaped() names.
constexpr unsigned char kFirstOfEscaped = 0xE2;

// How many bytes from the beginning a JSON string has as they are, of text that prints: it has no
// control characters but tabs and line ends.
size_t unescapedLength(std::string_view text) {
  const auto isUnescaped = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && c != '"' && c != '\\' && byte != kFirstOfEscaped;
  };
  size_t length = 0;
  for (; length + 8 <= text.size(); length += 8) {
    const uint64_t eight = eightFrom(text.data() + length);
    const uint64_t first = zeroBytes(eight ^ (kOnes * kFirstOfEscaped));
    if (((escapedOnes(eight) | first) & kTops) != 0) break;
  }
  while (length < text.size() && isUnescaped(text[length])) ++length;
  return length;
}

// The size of a character of two or three bytes that prints; 0 for one that needs a closer look.
size_t commonCharacter(std::string_view text) {
  const auto byteAt = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto follows = [&](size_t i) { return i < text.size() && (byteAt(i) & 0xC0u) == 0x80; };
  if (text.empty()) return 0;
  const unsigned char first = byteAt(0);
  if (first >= 0xC3 && first <= 0xDF) return follows(1) ? 2 : 0;
  if (first >= 0xE1 && first <= 0xEE && first != 0xED) return follows(1) && follows(2) ? 3 : 0;
  return 0;
}

bool isAllowedControl(uint32_t code) {
  return code == '\t' || code == '\n' || code == '\r';
}

bool prints(uint32_t code) {
  return code >= 0x20 ? code < 0x7F || code >= 0xA0 : isAllowedControl(code);
}

// Characters that change the direction of text, or end a line: they must not reach a terminal.
bool mustBeEscaped(uint32_t code) {
  return (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) ||
         code == 0x200E || code == 0x200F || code == 0x2028 || code == 0x2029;
}

const char* shortEscape(uint32_t code) {
  switch (code) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\t':
      return "\\t";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    default:
      return nullptr;
  }
}

void appendEscape(uint32_t code, std::string* to) {
  char escape[6] = {'\\', 'u'};
  for (int i = 0; i < 4; ++i) escape[2 + i] = kHex[code >> (12 - 4 * i) & 0xF];
  to->append(escape, sizeof escape);
}

// Two characters of base64 for each twelve bits.
std::array<char, 8192> pairsOfBase64() {
  std::array<char, 8192> pairs{};
  for (size_t i = 0; i < 4096; ++i) {
    pairs[2 * i] = kBase64[i >> 6];
    pairs[2 * i + 1] = kBase64[i & 63];
  }
  return pairs;
}

// What each character of base64 stands for; above 63: nothing.
std::array<uint8_t, 256> valuesOfBase64() {
  std::array<uint8_t, 256> values{};
  values.fill(0xFF);
  for (uint8_t i = 0; i < 64; ++i) values[static_cast<unsigned char>(kBase64[i])] = i;
  return values;
}

}  // namespace

bool printsAsText(std::string_view bytes) {
  while (!bytes.empty()) {
    bytes.remove_prefix(plainLength(bytes));
    while (const size_t common = commonCharacter(bytes)) bytes.remove_prefix(common);
    uint32_t code = 0;
    const size_t length = utf8Character(bytes, &code);
    if (bytes.empty()) break;
    if (length == 0 || !prints(code)) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

size_t wholeCharacters(std::string_view bytes) {
  for (size_t back = 1; back <= 3 && back <= bytes.size(); ++back) {
    const auto byte = static_cast<unsigned char>(bytes[bytes.size() - back]);
    if ((byte & 0xC0u) == 0x80) continue;  // inside a character
    if (byte >= 0xF8) break;               // no character begins so
    const size_t needed = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return needed > back ? bytes.size() - back : bytes.size();
  }
  return bytes.size();
}

bool decodeBase64(std::string_view text, std::string* bytes) {
  static const std::array<uint8_t, 256> values = valuesOfBase64();
  bytes->clear();
  if (text.size() % 4 != 0) return false;
  size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  const size_t size = text.size() / 4 * 3 - padding;
  bytes->resize(text.size() / 4 * 3);
  char* to = bytes->data();
  for (size_t i = 0; i < text.size(); i += 4) {
    uint32_t bits = 0;
    const size_t here = i + 4 == text.size() ? 4 - padding : 4;
    for (size_t j = 0; j < 4; ++j) {
      const uint8_t value = j < here ? values[static_cast<unsigned char>(text[i + j])] : 0;
      if (value > 63) return false;
      bits = bits << 6 | value;
    }
    *to++ = static_cast<char>(bits >> 16);
    *to++ = static_cast<char>(bits >> 8);
    *to++ = static_cast<char>(bits);
    // One byte has one form: the bits that padding leaves over are 0.
    if (here == 2 && (bits & 0xFFFF) != 0) return false;
    if (here == 3 && (bits & 0xFF) != 0) return false;
  }
  bytes->resize(size);
  return true;
}

void JsonLines::begin() {
  text_ += '{';
  isFirst_ = true;
}

void JsonLines::end() {
  text_ += "}\n";
  if (text_.size() >= kBufferSize) flush();
}

void JsonLines::startMember(std::string_view key) {
  if (!isFirst_) text_ += ',';
  isFirst_ = false;
  if (key.empty()) return;
  text_ += '"';
  text_ += key;
  text_ += "\":";
}

void JsonLines::open(std::string_view key, char bracket) {
  startMember(key);
  text_ += bracket;
  isFirst_ = true;
}

void JsonLines::close(char bracket) {
  text_ += bracket;
  isFirst_ = false;
}

void JsonLines::number(std::string_view key, uint64_t value) {
  startMember(key);
  char digits[20];
  text_.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

void JsonLines::signedNumber(std::string_view key, int64_t value) {
  startMember(key);
  char digits[20];
  text_.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

void JsonLines::truth(std::string_view key, bool value) {
  startMember(key);
  text_ += value ? "true" : "false";
}

void JsonLines::id(std::string_view key, Id value) {
  startMember(key);
  char quoted[20] = {'"', '0', 'x'};
  for (size_t i = 0; i < 16; ++i) quoted[3 + i] = kHex[value.value >> (60 - 4 * i) & 0xF];
  quoted[19] = '"';
  text_.append(quoted, sizeof quoted);
}

void JsonLines::bytes(std::string_view key, std::string_view base64Key, std::string_view value) {
  const bool isText = printsAsText(value);
  startMember(isText ? key : base64Key);
  text_ += '"';
  isText ? appendText(value) : appendBase64(value);
  text_ += '"';
}

void JsonLines::appendText(std::string_view text) {
  while (!text.empty()) {
    const size_t length = unescapedLength(text);
    text_.append(text.data(), length);
    text.remove_prefix(length);
    uint32_t code = 0;
    const size_t character = utf8Character(text, &code);
    if (character == 0) return;
    if (const char* const escape = shortEscape(code)) {
      text_ += escape;
    } else if (mustBeEscaped(code)) {
      appendEscape(code, &text_);
    } else {
      text_.append(text.data(), character);
    }
    text.remove_prefix(character);
  }
}

void JsonLines::appendBase64(std::string_view bytes) {
  static const std::array<char, 8192> pairs = pairsOfBase64();
  const size_t start = text_.size();
  text_.resize(start + (bytes.size() + 2) / 3 * 4);
  char* to = text_.data() + start;
  const auto* from = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t left = bytes.size();
  for (; left >= 3; left -= 3, from += 3, to += 4) {
    const auto bits = static_cast<uint32_t>(from[0] << 16 | from[1] << 8 | from[2]);
    std::memcpy(to, &pairs[2 * size_t{bits >> 12}], 2);
    std::memcpy(to + 2, &pairs[2 * size_t{bits & 0xFFF}], 2);
  }
  if (left == 0) return;
  const auto bits = static_cast<uint32_t>(from[0] << 16 | (left == 2 ? from[1] << 8 : 0));
  std::memcpy(to, &pairs[2 * size_t{bits >> 12}], 2);
  to[2] = left == 2 ? kBase64[bits >> 6 & 63] : '=';
  to[3] = '=';
}

void JsonLines::flush() {
  sink_(text_);
  text_.clear();
}

}  // namespace qvdb::tool
