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
#include <vector>

namespace qvdb::tool {

inline constexpr uint64_t kPieceSize = uint64_t{256} << 10;

struct Manifest {
  int64_t time = 0;       // in seconds since 1970, 0 at least
  uint64_t database = 0;  // the identifier of the database
  uint32_t mode = 0;      // the permissions of the file: nine bits
  uint64_t length = 0;    // of the file, in bytes
  std::vector<std::string> pieces;

  // How long a piece is, counted from 0.
  uint64_t sizeOf(size_t piece) const;
};

std::string textOf(const Manifest& manifest);

// Nothing for what is no manifest, down to the last byte.
std::optional<Manifest> parseManifest(const std::string& text);

// "backup-20261122T200102Z-000.manifest": in the order of the names, which is that of their times.
// `number` counts those of one second, 0 to 999.
std::string manifestName(int64_t time, int number);

// Whether a file of that name may be a manifest.
bool isManifestName(const std::string& name);

}  // namespace qvdb::tool
