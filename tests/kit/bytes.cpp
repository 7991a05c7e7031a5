// Bytes for tests: cutting, building, parsing, files and readable differences.
#include "kit/bytes.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace qvdbase::test {
namespace {

void requireInside(const Bytes& bytes, size_t offset, size_t count) {
  if (offset <= bytes.size() && count <= bytes.size() - offset) return;
  throw std::out_of_range("bytes " + std::to_string(offset) + " + " + std::to_string(count) +
                          " lie beyond the end at " + std::to_string(bytes.size()));
}

std::ptrdiff_t distance(size_t offset) {
  return static_cast<std::ptrdiff_t>(offset);
}

int digitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  throw std::invalid_argument(std::string("not a hexadecimal digit: ") + digit);
}

std::string twoDigits(uint8_t byte) {
  const char* digits = "0123456789abcdef";
  return {digits[byte >> 4], digits[byte & 15]};
}

std::runtime_error fileError(const char* what, const std::filesystem::path& path) {
  return std::runtime_error(std::string("cannot ") + what + " " + path.string());
}

}  // namespace

Bytes Bytes::at(size_t offset, size_t count) const {
  requireInside(*this, offset, count);
  return Bytes(begin() + distance(offset), begin() + distance(offset + count));
}

Bytes Bytes::from(size_t offset) const {
  requireInside(*this, offset, 0);
  return at(offset, size() - offset);
}

Bytes Bytes::with(size_t offset, const Bytes& patch) const {
  requireInside(*this, offset, patch.size());
  Bytes result = *this;
  std::copy(patch.begin(), patch.end(), result.begin() + distance(offset));
  return result;
}

Bytes Bytes::cut(size_t count) const {
  return at(0, count);
}

uint64_t Bytes::beAt(size_t offset, size_t width) const {
  requireInside(*this, offset, width);
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = value << 8 | (*this)[offset + i];
  return value;
}

uint64_t Bytes::leAt(size_t offset, size_t width) const {
  requireInside(*this, offset, width);
  uint64_t value = 0;
  for (size_t i = width; i > 0; --i) value = value << 8 | (*this)[offset + i - 1];
  return value;
}

Bytes& Bytes::be(size_t width, uint64_t value) {
  resize(size() + width);
  putBe(size() - width, width, value);
  return *this;
}

Bytes& Bytes::le(size_t width, uint64_t value) {
  resize(size() + width);
  putLe(size() - width, width, value);
  return *this;
}

Bytes& Bytes::add(const Bytes& more) {
  const Bytes copy = more;  // `more` may be this object
  insert(end(), copy.begin(), copy.end());
  return *this;
}

Bytes& Bytes::text(std::string_view characters) {
  return add(bytesOf(characters));
}

Bytes& Bytes::fill(size_t count, uint8_t value) {
  insert(end(), count, value);
  return *this;
}

void Bytes::putBe(size_t offset, size_t width, uint64_t value) {
  requireInside(*this, offset, width);
  for (size_t i = width; i > 0; --i, value >>= 8) {
    (*this)[offset + i - 1] = static_cast<uint8_t>(value);
  }
}

void Bytes::putLe(size_t offset, size_t width, uint64_t value) {
  requireInside(*this, offset, width);
  for (size_t i = 0; i < width; ++i, value >>= 8) {
    (*this)[offset + i] = static_cast<uint8_t>(value);
  }
}

Bytes hex(std::string_view digits) {
  std::string packed;
  for (const char c : digits) {
    if (std::isspace(static_cast<unsigned char>(c)) == 0) packed.push_back(c);
  }
  if (packed.size() % 2 != 0) throw std::invalid_argument("an odd number of digits");
  Bytes result;
  for (size_t i = 0; i < packed.size(); i += 2) {
    result.push_back(static_cast<uint8_t>(digitValue(packed[i]) * 16 + digitValue(packed[i + 1])));
  }
  return result;
}

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

Bytes pattern(size_t count, unsigned seed) {
  Bytes result(count);
  uint32_t state = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < count; ++i) {
    state = state * 1664525u + 1013904223u;
    result[i] = static_cast<uint8_t>(state >> 24);
    if (i > 0 && result[i] == result[i - 1]) ++result[i];
  }
  return result;
}

Bytes readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw fileError("open", path);
  // In pieces, since pipes and the files of /proc do not say how long they are.
  constexpr size_t kPiece = 64 * 1024;
  Bytes content;
  size_t length = 0;
  while (in) {
    content.resize(length + kPiece);
    in.read(reinterpret_cast<char*>(content.data() + length), kPiece);
    length += static_cast<size_t>(in.gcount());
  }
  if (in.bad()) throw fileError("read", path);
  content.resize(length);
  return content;
}

void writeFile(const std::filesystem::path& path, const Bytes& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(content.data()),
            static_cast<std::streamsize>(content.size()));
  out.close();
  if (!out) throw fileError("write", path);
}

void patchFile(const std::filesystem::path& path, uint64_t offset, const Bytes& patch) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(reinterpret_cast<const char*>(patch.data()),
             static_cast<std::streamsize>(patch.size()));
  file.close();
  if (!file) throw fileError("patch", path);
}

testing::AssertionResult sameBytes(const Bytes& actual, const Bytes& expected) {
  if (actual == expected) return testing::AssertionSuccess();
  const auto common = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  const auto first = static_cast<size_t>(common.first - actual.begin());
  const size_t row = first / 16 * 16;
  const size_t start = row >= 16 ? row - 16 : 0;
  const auto around = [start](const Bytes& bytes) {
    return start < bytes.size() ? dump(bytes, start, 64) : std::string("(ends before)\n");
  };
  return testing::AssertionFailure()
         << "bytes differ from offset " << first << " on; actual " << actual.size()
         << " bytes, expected " << expected.size() << "\nactual:\n"
         << around(actual) << "expected:\n"
         << around(expected);
}

std::string dump(const Bytes& bytes, size_t offset, size_t limit) {
  std::ostringstream out;
  const size_t end = std::min(bytes.size(), offset + limit);
  for (size_t row = offset; row < end; row += 16) {
    std::string digits;
    std::string text;
    for (size_t i = row; i < std::min(row + 16, end); ++i) {
      digits += twoDigits(bytes[i]) + ' ';
      text += std::isprint(bytes[i]) != 0 ? static_cast<char>(bytes[i]) : '.';
    }
    digits.resize(48, ' ');
    out << "  " << row << ":\t" << digits << ' ' << text << '\n';
  }
  if (end < bytes.size()) out << "  ... " << bytes.size() - end << " more bytes\n";
  return out.str();
}

void PrintTo(const Bytes& bytes, std::ostream* out) {
  *out << bytes.size() << " bytes";
  if (bytes.size() > 32) {
    *out << '\n' << dump(bytes);
    return;
  }
  for (size_t i = 0; i < bytes.size(); ++i) {
    *out << (i == 0 ? ": " : i % 2 == 0 ? " " : "") << twoDigits(bytes[i]);
  }
}

}  // namespace qvdbase::test
