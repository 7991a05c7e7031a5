// One entry of the list of imported files: a file, a folder or a symbolic link, and its bytes.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "format/imported_list.h"

namespace qvdb::tool {

using FileKind = qvdbase::format::imported::Kind;

struct ImportedFile {
  FileKind kind = FileKind::file;
  uint16_t mode = 0;  // permission bits
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  Id record;           // of a file; 0 otherwise
  std::string name;    // relative, '/' between its parts
  std::string target;  // of a link
};

// Whether a reader takes an entry with this kind, name and target.
bool isSound(const ImportedFile& file);

// Appends the bytes of an entry. `before` is the name of the entry before it.
void appendEntry(const ImportedFile& file, std::string_view before, std::vector<std::byte>* to);

// Writes what can change of an entry over its bytes: everything but its name and target.
void rewriteEntry(const ImportedFile& file, std::byte* to);

// An entry that was read. A time that was half written counts as 0.
ImportedFile fileOf(const qvdbase::format::imported::Entry& entry);

}  // namespace qvdb::tool
