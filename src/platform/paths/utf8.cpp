// Text conversion from 16-bit characters to UTF-8, character by character.
#include "platform/paths/utf8.h"

namespace qvdbase::platform {
namespace {

bool isHighSurrogate(QVWCHAR c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool isLowSurrogate(QVWCHAR c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

// One whole character: its code and the 16-bit units it takes, 0 of them for an unpaired surrogate.
struct CodePoint {
  uint32_t code;
  size_t units;
};

CodePoint codePointAt(const QVWCHAR* text, size_t length) {
  const QVWCHAR first = text[0];
  if (isLowSurrogate(first)) return {0, 0};
  if (!isHighSurrogate(first)) return {first, 1};
  if (length < 2 || !isLowSurrogate(text[1])) return {0, 0};
  return {0x10000u + ((first - 0xD800u) << 10) + (text[1] - 0xDC00u), 2};
}

size_t utf8Size(uint32_t code) {
  if (code < 0x80) return 1;
  if (code < 0x800) return 2;
  return code < 0x10000 ? 3 : 4;
}

// The first byte carries the size, every later one six bits of the code.
void putUtf8(uint32_t code, size_t size, unsigned char* out) {
  static constexpr unsigned char kLead[] = {0, 0x00, 0xC0, 0xE0, 0xF0};
  for (size_t i = size - 1; i > 0; --i) {
    out[i] = static_cast<unsigned char>(0x80 | (code & 0x3F));
    code >>= 6;
  }
  out[0] = static_cast<unsigned char>(kLead[size] | code);
}

}  // namespace

Utf8Progress convertToUtf8(const QVWCHAR* text, size_t length, unsigned char* out,
                           size_t capacity) {
  Utf8Progress done{0, 0};
  while (done.consumed < length) {
    const CodePoint next = codePointAt(text + done.consumed, length - done.consumed);
    const size_t size = utf8Size(next.code);
    if (next.units == 0 || size > capacity - done.produced) break;
    putUtf8(next.code, size, out + done.produced);
    done.consumed += next.units;
    done.produced += size;
  }
  return done;
}

}  // namespace qvdbase::platform
