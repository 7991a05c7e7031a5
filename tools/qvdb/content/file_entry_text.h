// Entries of the list of imported files, decoded for a dump. docs/imported-files.md describes the
// list.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "archive/imported_entry.h"
#include "content/json_lines.h"

namespace qvdb::tool {

// The word for a kind; and the reverse: false for another word.
std::string_view wordOf(FileKind kind);
bool kindOf(std::string_view word, FileKind* kind);

// Writes an entry as the members of a line.
void writeFileEntry(const ImportedFile& file, JsonLines& lines);

// A list, from its head on, in which each name shares as much as it can with the one before it.
std::vector<std::byte> encodeFileList(const std::vector<ImportedFile>& files);

}  // namespace qvdb::tool
