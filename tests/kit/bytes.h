// Bytes for tests: expected contents written as hexadecimal, built field by field in either byte
// order, read from and written to files, and compared with a difference that can be read.
//
//   EXPECT_EQ(file.at(16, 6), hex("0000 0020 0090"));
//   EXPECT_TRUE(sameBytes(readFile(path), expected));        long contents: shows where they differ
//   Bytes header = Bytes().text("QVdb").be(2, 100).zeros(10);
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace qvdbase::test {

// A vector of bytes that can be cut, patched and appended to. Cutting beyond the end throws
// std::out_of_range, which fails the test.
class Bytes : public std::vector<uint8_t> {
 public:
  using std::vector<uint8_t>::vector;
  using std::vector<uint8_t>::at;

  // `count` bytes from `offset` on.
  Bytes at(size_t offset, size_t count) const;
  // All bytes from `offset` on.
  Bytes from(size_t offset) const;
  // A copy in which `patch` stands at `offset`; the length stays.
  Bytes with(size_t offset, const Bytes& patch) const;
  // A copy cut to its first `count` bytes.
  Bytes cut(size_t count) const;

  // The number that `width` bytes (1 to 8) at `offset` hold, most or least significant byte first.
  uint64_t beAt(size_t offset, size_t width) const;
  uint64_t leAt(size_t offset, size_t width) const;

  // Appending, each returning the object itself: a number of `width` bytes (1 to 8; what does not
  // fit is cut off) in either order, other bytes, text without a terminator, one byte repeated.
  Bytes& be(size_t width, uint64_t value);
  Bytes& le(size_t width, uint64_t value);
  Bytes& add(const Bytes& more);
  Bytes& text(std::string_view characters);
  Bytes& fill(size_t count, uint8_t value);
  Bytes& zeros(size_t count) { return fill(count, 0); }

  // Overwriting in place, the counterparts of the two numbers above.
  void putBe(size_t offset, size_t width, uint64_t value);
  void putLe(size_t offset, size_t width, uint64_t value);

  // The bytes as text.
  std::string str() const { return {begin(), end()}; }
};

// Parses pairs of hexadecimal digits; blanks and line ends between them are free. Anything else
// throws std::invalid_argument.
Bytes hex(std::string_view digits);

// The bytes of a text, without a terminator.
Bytes bytesOf(std::string_view text);

// `count` bytes that look like data (no two neighbours alike, the same for the same seed).
Bytes pattern(size_t count, unsigned seed = 1);

// The whole file. A file that cannot be read or written throws std::runtime_error.
Bytes readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const Bytes& content);

// Overwrites bytes in the middle of a file, as another program would, and leaves its length alone
// unless the patch reaches beyond the end.
void patchFile(const std::filesystem::path& path, uint64_t offset, const Bytes& patch);

// Succeeds when both are equal; otherwise tells the lengths, the first difference and both dumps
// around it.
testing::AssertionResult sameBytes(const Bytes& actual, const Bytes& expected);

// Rows of 16 bytes with their offsets, at most `limit` bytes.
std::string dump(const Bytes& bytes, size_t offset = 0, size_t limit = 256);

// How EXPECT_EQ shows bytes.
void PrintTo(const Bytes& bytes, std::ostream* out);

}  // namespace qvdbase::test
