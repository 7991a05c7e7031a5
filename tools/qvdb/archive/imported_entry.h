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
  // When the entry was added, and when it was removed, in seconds since 1970; 0: not, or not known.
  int64_t since = 0;
  int64_t until = 0;
  std::string fields;  // what else is stored of it, as the list has it
};

// Whether a reader takes an entry with this kind, name and target.
bool isSound(const ImportedFile& file);

// Each for a version of the list; version 1 has no times of entries, and no fields.

// Appends the bytes of an entry. `before` is the name of the entry before it.
void appendEntry(uint8_t version, const ImportedFile& file, std::string_view before,
                 std::vector<std::byte>* to);

// Writes what can change of an entry over its bytes: everything but its name, target and fields.
void rewriteEntry(uint8_t version, const ImportedFile& file, std::byte* to);

// The head of a list, and a list with these entries, each of whose names shares as much as it can
// with the one before it.
std::vector<std::byte> encodeHead(const qvdbase::format::imported::Head& head);
std::vector<std::byte> encodeList(const qvdbase::format::imported::Head& head,
                                  const std::vector<ImportedFile>& files);

// An entry that was read. A time that was half written counts as 0.
ImportedFile fileOf(const qvdbase::format::imported::Entry& entry);

}  // namespace qvdb::tool
