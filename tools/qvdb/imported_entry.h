// One entry of the list of imported files: a file, a folder or a symbolic link, and its bytes.
//
// The bytes of an entry:
//   1  kind: 'f' file, 'd' folder, 'l' symbolic link, '-' removed
//   2  permission bits
//   8  time of last modification: seconds since 1970, signed
//   4  and nanoseconds
//   8  the record's identifier; 0 for a folder or a link
//   n  how many bytes the name shares with the beginning of the name before
//   n  how many other bytes it has, and these
//   n  how many bytes the link's target has, and these; 0 for others
// Integers most significant byte first; n is a number in groups of 7 bits, least significant group
// first, the top bit set in all bytes but the last.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb::tool {

enum class FileKind : char {
  removed = '-',
  file = 'f',
  folder = 'd',
  link = 'l',
};

struct ImportedFile {
  FileKind kind = FileKind::file;
  uint16_t mode = 0;  // permission bits
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  Id record;           // of a file; 0 otherwise
  std::string name;    // relative, '/' between its parts
  std::string target;  // of a link
};

// Whether the name leads to a place inside a folder and nowhere else: parts that are not empty, not
// "." and not "..", without zero bytes, and no '/' at either end.
bool isSafeName(std::string_view name);

// Whether a reader takes an entry with this kind, name and target.
bool isSound(const ImportedFile& file);

// Appends the bytes of an entry. `before` is the name of the entry before it.
void appendEntry(const ImportedFile& file, std::string_view before, std::vector<std::byte>* to);

// Writes what can change of an entry over its bytes: everything but its name and target.
void rewriteEntry(const ImportedFile& file, std::byte* to);

// The entry at data[*at]; *at moves to its end. Nothing when it is invalid. A time that was half
// written counts as 0.
std::optional<ImportedFile> readEntry(std::span<const std::byte> data, std::string_view before,
                                      size_t* at);

}  // namespace qvdb::tool
