// QVWString: copying, comparing, searching, editing and converting 16-bit strings. The host's wide
// functions are of no use here: their character has 32 bits on most systems.
//
// Formatted output is in QVWString_format.cpp and QVWString_float.cpp.
#include <qvdbase/QVWString.h>

#include <cstring>

#include "platform/host/memory.h"
#include "platform/paths/utf8.h"

namespace {

// A result of up to this length is built on the stack by Replace; a longer one on the heap.
constexpr size_t kReplaceStackLength = 4096;

QVWCHAR foldCase(QVWCHAR c) {
  return static_cast<QVWCHAR>(c >= 'A' && c <= 'Z' ? c + 32 : c);
}

QVWCHAR unchanged(QVWCHAR c) {
  return c;
}

// Moves both texts to where they end or first differ, compared through `as`; by at most `most`
// characters.
template <QVWCHAR (*as)(QVWCHAR)>
void skipEqual(const QVWCHAR** a, const QVWCHAR** b, uint64_t most = UINT64_MAX) {
  for (; most > 0 && **a != 0 && as(**a) == as(**b); --most) {
    ++*a;
    ++*b;
  }
}

// The search functions take a text they do not write to, and return a place in it that the owner
// of the text may.
QVWCHAR* placeIn(const QVWCHAR* text) {
  return const_cast<QVWCHAR*>(text);
}

bool startsWith(const QVWCHAR* text, const QVWCHAR* part) {
  while (*part != 0 && *text == *part) {
    ++text;
    ++part;
  }
  return *part == 0;
}

bool isIn(const QVWCHAR* set, QVWCHAR c) {
  for (; *set != 0; ++set) {
    if (*set == c) return true;
  }
  return false;
}

bool isBlankOrSeparator(QVWCHAR c) {
  return c == ' ' || c == '\t' || c == '"' || c == '/' || c == '\\';
}

// Copies the text with every run of blanks and separators as one space. Returns the length.
size_t copyWithSingleSpaces(QVWCHAR* out, const QVWCHAR* text) {
  size_t length = 0;
  bool inRun = false;
  for (; *text != 0; ++text) {
    const bool blank = isBlankOrSeparator(*text);
    if (!blank) out[length++] = *text;
    if (blank && !inRun) out[length++] = ' ';
    inRun = blank;
  }
  return length;
}

// What Replace makes of the subject: its length, and whether anything matched.
struct Replacement {
  size_t length;
  bool replaced;
};

Replacement measureReplacement(const QVWCHAR* subject, const QVWCHAR* from, size_t toLength) {
  Replacement result{0, false};
  for (; *subject != 0; ++subject) {
    const bool match = startsWith(subject, from);
    result.length += match ? toLength : 1;
    result.replaced = result.replaced || match;
  }
  return result;
}

void buildReplacement(QVWCHAR* out, const QVWCHAR* subject, const QVWCHAR* from, const QVWCHAR* to,
                      size_t toLength) {
  for (; *subject != 0; ++subject) {
    if (startsWith(subject, from)) {
      std::memcpy(out, to, toLength * sizeof(QVWCHAR));
      out += toLength;
    } else {
      *out++ = *subject;
    }
  }
}

}  // namespace

QVWString::QVWString() {}

QVWString::~QVWString() {}

int QVWString::wcslen(const QVWCHAR* text) {
  const QVWCHAR* end = text;
  while (*end != 0) ++end;
  return static_cast<int>(end - text);
}

int QVWString::wcsnlen(const QVWCHAR* text, uint32_t n) {
  uint32_t length = 0;
  while (length < n && text[length] != 0) ++length;
  return static_cast<int>(length);
}

QVWCHAR* QVWString::wcscpy(QVWCHAR* destination, const QVWCHAR* source) {
  QVWCHAR* out = destination;
  while ((*out++ = *source++) != 0) {
  }
  return destination;
}

QVWCHAR* QVWString::wcsncpy(QVWCHAR* destination, const QVWCHAR* source, uint32_t n) {
  uint32_t i = 0;
  for (; i < n && source[i] != 0; ++i) destination[i] = source[i];
  for (; i < n; ++i) destination[i] = 0;
  return destination;
}

QVWCHAR* QVWString::wcscat(QVWCHAR* destination, const QVWCHAR* source) {
  wcscpy(wcschr(destination, 0), source);
  return destination;
}

QVWCHAR* QVWString::wcsset(QVWCHAR* text, int c) {
  for (QVWCHAR* out = text; *out != 0; ++out) *out = static_cast<QVWCHAR>(c);
  return text;
}

int QVWString::wcscmp(const QVWCHAR* a, const QVWCHAR* b) {
  skipEqual<unchanged>(&a, &b);
  return *a == *b ? 0 : *a < *b ? -1 : 1;
}

int QVWString::wcsncmp(const QVWCHAR* a, const QVWCHAR* b, uint32_t n) {
  if (n == 0) return 0;
  skipEqual<unchanged>(&a, &b, n - 1);
  return *a - *b;
}

int QVWString::wcsicmp(const QVWCHAR* a, const QVWCHAR* b) {
  skipEqual<foldCase>(&a, &b);
  return foldCase(*a) - foldCase(*b);
}

int QVWString::wcsnicmp(const QVWCHAR* a, const QVWCHAR* b, uint32_t n) {
  if (n == 0) return wcsicmp(a, b);  // the limit counts compared pairs, and 0 of them never are
  skipEqual<foldCase>(&a, &b, n - 1);
  return foldCase(*a) - foldCase(*b);
}

QVWCHAR* QVWString::wcschr(const QVWCHAR* text, int c) {
  const QVWCHAR wanted = static_cast<QVWCHAR>(c);
  while (*text != 0 && *text != wanted) ++text;
  return *text == wanted ? placeIn(text) : nullptr;
}

QVWCHAR* QVWString::wcsrchr(const QVWCHAR* text, int c) {
  const QVWCHAR wanted = static_cast<QVWCHAR>(c);
  const QVWCHAR* found = nullptr;
  for (; *text != 0; ++text) {
    if (*text == wanted) found = text;
  }
  return placeIn(wanted == 0 ? text : found);
}

QVWCHAR* QVWString::wcsstr(const QVWCHAR* text, const QVWCHAR* part) {
  if (*part == 0) return placeIn(text);
  for (; *text != 0; ++text) {
    if (startsWith(text, part)) return placeIn(text);
  }
  return nullptr;
}

uint32_t QVWString::wcsspn(const QVWCHAR* text, const QVWCHAR* set) {
  uint32_t length = 0;
  while (text[length] != 0 && isIn(set, text[length])) ++length;
  return length;
}

uint32_t QVWString::wcscspn(const QVWCHAR* text, const QVWCHAR* set) {
  uint32_t length = 0;
  while (text[length] != 0 && !isIn(set, text[length])) ++length;
  return length;
}

QVWCHAR* QVWString::wcspbrk(const QVWCHAR* text, const QVWCHAR* set) {
  const QVWCHAR* found = text + wcscspn(text, set);
  return *found == 0 ? nullptr : placeIn(found);
}

int QVWString::Find(const QVWCHAR* subject, const QVWCHAR* pattern, int start) {
  if (subject == nullptr || pattern == nullptr) return -1;
  const int length = wcslen(subject);
  if (start < 0) start = 0;
  if (length <= start || length - start < wcslen(pattern)) return -1;
  for (int i = start; i < length; ++i) {
    if (startsWith(subject + i, pattern)) return i;
  }
  return -1;
}

int QVWString::Replace(QVWCHAR* subject, const QVWCHAR* from, const QVWCHAR* to) {
  if (subject == nullptr || from == nullptr || to == nullptr) return 0;
  const auto toLength = static_cast<size_t>(wcslen(to));
  const Replacement result = measureReplacement(subject, from, toLength);
  if (!result.replaced) return 0;

  QVWCHAR onStack[kReplaceStackLength];
  QVWCHAR* scratch = onStack;
  if (result.length > kReplaceStackLength) {
    scratch = static_cast<QVWCHAR*>(qvdbase::platform::allocate(result.length * sizeof(QVWCHAR)));
    if (scratch == nullptr) return 0;
  }
  buildReplacement(scratch, subject, from, to, toLength);
  std::memcpy(subject, scratch, result.length * sizeof(QVWCHAR));
  subject[result.length] = 0;
  if (scratch != onStack) qvdbase::platform::release(scratch);
  return 1;
}

void QVWString::TrimPlus(QVWCHAR* text) {
  if (text == nullptr || *text == 0) return;
  const auto length = static_cast<size_t>(wcslen(text));
  auto* scratch =
      static_cast<QVWCHAR*>(qvdbase::platform::allocate((length + 2) * sizeof(QVWCHAR)));
  if (scratch == nullptr) return;

  // No two spaces are neighbours in the scratch, so that one at either end is all there can be.
  size_t end = copyWithSingleSpaces(scratch, text);
  size_t begin = 0;
  if (scratch[end - 1] == ' ') --end;
  if (begin < end && scratch[begin] == ' ') ++begin;
  std::memcpy(text, scratch + begin, (end - begin) * sizeof(QVWCHAR));
  text[end - begin] = 0;
  qvdbase::platform::release(scratch);
}

// A platform string is a copy of the characters and their terminator in one block of memory, so
// that a caller who only knows its name can release it with free().
__CFString* QVWString::ConvertQVWCHARBufferToCFString(const QVWCHAR* text) {
  if (text == nullptr) return nullptr;
  const size_t size = (static_cast<size_t>(wcslen(text)) + 1) * sizeof(QVWCHAR);
  void* copy = qvdbase::platform::allocate(size);
  if (copy != nullptr) std::memcpy(copy, text, size);
  return static_cast<__CFString*>(copy);
}

int QVWString::ConvertQVWCHARBufferToUTF8Buffer(const QVWCHAR* source, unsigned char* destination,
                                                int size) {
  if (source == nullptr) return 0;
  const size_t capacity = size > 0 ? static_cast<size_t>(size) : 0;
  const qvdbase::platform::Utf8Progress done = qvdbase::platform::convertToUtf8(
      source, static_cast<size_t>(wcslen(source)), destination, capacity);
  destination[done.produced] = 0;
  return 1;
}

int QVWString::ConvertCFStringToQVWCHARBuffer(const __CFString* string, QVWCHAR* destination,
                                              int n) {
  if (string == nullptr) return 0;
  const auto* characters = reinterpret_cast<const QVWCHAR*>(string);
  if (n > 0) wcsncpy(destination, characters, static_cast<uint32_t>(n));
  return 1;
}
