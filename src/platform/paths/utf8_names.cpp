// Names of files and directories: between UTF-16 and UTF-8.
#include "platform/paths/utf8_names.h"

#include <cstring>

#include "platform/paths/utf8.h"

namespace qvdbase::platform {
namespace {

// What the first byte of a character shows: how many bytes it has, its own bits of the code, and
// the smallest code that takes so many bytes.
struct Lead {
  size_t length;
  uint32_t bits;
  uint32_t smallest;
};

Lead leadOf(unsigned char byte) {
  if (byte < 0x80) return {1, byte, 0};
  if ((byte & 0xE0u) == 0xC0) return {2, byte & 0x1Fu, 0x80};
  if ((byte & 0xF0u) == 0xE0) return {3, byte & 0x0Fu, 0x800};
  if ((byte & 0xF8u) == 0xF0) return {4, byte & 0x07u, 0x10000};
  return {0, 0, 0};
}

// Reads the character at bytes[0], of at least one byte. Returns how many it took, or 0 when they
// are not the shortest form of a character.
size_t readUtf8(const char* bytes, size_t length, uint32_t* code) {
  const Lead lead = leadOf(static_cast<unsigned char>(bytes[0]));
  if (lead.length == 0 || lead.length > length) return 0;
  uint32_t value = lead.bits;
  for (size_t i = 1; i < lead.length; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if ((byte & 0xC0u) != 0x80) return 0;
    value = (value << 6) | (byte & 0x3Fu);
  }
  const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < lead.smallest || value > 0x10FFFF || isSurrogate) return 0;
  *code = value;
  return lead.length;
}

size_t putUtf16(uint32_t code, QVWCHAR* text) {
  if (code < 0x10000) {
    text[0] = static_cast<QVWCHAR>(code);
    return 1;
  }
  text[0] = static_cast<QVWCHAR>(0xD800 + ((code - 0x10000) >> 10));
  text[1] = static_cast<QVWCHAR>(0xDC00 + ((code - 0x10000) & 0x3FF));
  return 2;
}

}  // namespace

EntryName::EntryName(const QVWCHAR* name) {
  bytes_[0] = '\0';
  size_t length = 0;
  while (name[length] != 0) {
    if (++length > kMaxPathCharacters) return;
  }
  auto* out = reinterpret_cast<unsigned char*>(bytes_);
  const Utf8Progress done = convertToUtf8(name, length, out, kMaxNameBytes);
  bytes_[done.produced] = '\0';
  isValid_ = done.consumed == length && std::strchr(bytes_, '/') == nullptr;
}

EntryName::EntryName(std::string_view name) {
  bytes_[0] = '\0';
  if (name.size() > kMaxNameBytes || name.find('/') != name.npos || name.find('\0') != name.npos) {
    return;
  }
  bytes_[name.copy(bytes_, name.size())] = '\0';
  isValid_ = true;
}

bool utf16FromUtf8(const char* bytes, size_t length, QVWCHAR* text, size_t capacity) {
  size_t used = 0;
  for (size_t i = 0; i < length;) {
    uint32_t code = 0;
    const size_t taken = readUtf8(bytes + i, length - i, &code);
    const size_t needed = code < 0x10000 ? 1 : 2;
    if (taken == 0 || used + needed >= capacity) return false;
    used += putUtf16(code, text + used);
    i += taken;
  }
  if (used >= capacity) return false;
  text[used] = 0;
  return true;
}

}  // namespace qvdbase::platform
