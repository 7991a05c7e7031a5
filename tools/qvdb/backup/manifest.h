// The list of the pieces that a backup consists of, as a text:
//
//   backup-of-qvdb 1
//   time 2026-11-22T20:01:02Z
//   database 0x1f5e2d3c4b5a6978
//   mode 640
//   length 600000
//   2c26b46b68ffc68ff99b453c1d30413413422d706483bfa0f98a5e886266e7ae
//   ... a line for each piece, the SHA-256 of its bytes
//   sha256 fcde2b2edba56bf408601fb721fe9b5c338d10ee429ea04fae5511b68fbf8fb9
//
// The last line has the hash of all bytes before it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "streams/sha256.h"

namespace qvdb::tool {

inline constexpr uint64_t kPieceSize = uint64_t{256} << 10;
inline constexpr size_t kHashDigits = 64;

struct Manifest {
  int64_t time = 0;       // in seconds since 1970, 0 at least
  uint64_t database = 0;  // the identifier of the database
  uint32_t mode = 0;      // the permissions of the file: nine bits
  uint64_t length = 0;    // of the file, in bytes
  std::string hashes;     // of the pieces, one after the other

  size_t pieceCount() const { return hashes.size() / kHashDigits; }
  std::string_view piece(size_t index) const {
    return std::string_view(hashes).substr(index * kHashDigits, kHashDigits);
  }
  // How long a piece is, counted from 0.
  uint64_t sizeOf(size_t index) const;
};

std::string textOf(const Manifest& manifest);

// Takes a manifest that comes in parts. What is none is noticed at the first line that shows it, so
// that no more of a large file needs to be read than looks like a manifest of that length.
class ManifestParser {
 public:
  // size  of all that is going to come
  explicit ManifestParser(uint64_t size) : size_(size) {}

  // False as soon as it is no manifest.
  bool add(std::string_view text);

  // Nothing for what is no manifest, down to the last byte.
  std::optional<Manifest> finish();

 private:
  bool addLine(std::string_view line);
  bool addHead(std::string_view line);
  bool endHead();

  const uint64_t size_;
  uint64_t pieces_ = 0;  // how many there are to be
  std::string head_;     // the lines before the pieces
  int headLines_ = 0;
  std::string begun_;  // a line of which the end has not come
  Sha256 sum_;
  bool isOne_ = true;
  bool isComplete_ = false;
  Manifest manifest_;
};

// "backup-20261122T200102Z-000.manifest": in the order of the names, which is that of their times.
// `number` counts those of one second, 0 to 999.
std::string manifestName(int64_t time, int number);

// Whether a file of that name may be a manifest.
bool isManifestName(std::string_view name);

}  // namespace qvdb::tool
