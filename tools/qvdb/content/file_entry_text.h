// Entries of the list of imported files, decoded for a dump. docs/imported-files.md describes the
// list.
#pragma once

#include <string_view>

#include "archive/imported_entry.h"
#include "content/json_line.h"
#include "content/json_lines.h"

namespace qvdb::tool {

// The word for a kind; and the reverse: false for another word.
std::string_view wordOf(FileKind kind);
bool kindOf(std::string_view word, FileKind* kind);

// Writes an entry as the members of a line.
void writeFileEntry(const ImportedFile& file, JsonLines& lines);

// The head of a list as members of a line; none for version 1, which has nothing to say. And the
// reverse; throws BadLine.
void writeListHead(const qvdbase::format::imported::Head& head, JsonLines& lines);
qvdbase::format::imported::Head takeListHead(Members& line);

}  // namespace qvdb::tool
