// Entries of the list of imported files as text.
#include "content/file_entry_text.h"

#include <cstdio>
#include <span>

namespace qvdb::tool {
namespace {

namespace imported = qvdbase::format::imported;

struct KindWord {
  FileKind kind;
  std::string_view word;
};

constexpr KindWord kWords[] = {{FileKind::file, "file"},
                               {FileKind::folder, "folder"},
                               {FileKind::link, "link"},
                               {FileKind::removed, "removed"}};

}  // namespace

std::string_view wordOf(FileKind kind) {
  for (const KindWord& each : kWords) {
    if (each.kind == kind) return each.word;
  }
  return {};
}

bool kindOf(std::string_view word, FileKind* kind) {
  for (const KindWord& each : kWords) {
    if (each.word != word) continue;
    *kind = each.kind;
    return true;
  }
  return false;
}

void writeFileEntry(const ImportedFile& file, JsonLines& lines) {
  char mode[8];
  const int length = std::snprintf(mode, sizeof mode, "%04o", unsigned{file.mode});
  lines.bytes("entry", "entry", wordOf(file.kind));
  lines.bytes("name", "name_base64", file.name);
  lines.bytes("mode", "mode", {mode, static_cast<size_t>(length)});
  lines.signedNumber("seconds", file.seconds);
  lines.number("nanoseconds", file.nanoseconds);
  if (file.record.value != 0) lines.id("record", file.record);
  if (!file.target.empty()) lines.bytes("target", "target_base64", file.target);
}

std::vector<std::byte> encodeFileList(const std::vector<ImportedFile>& files) {
  const auto mark = std::as_bytes(std::span(imported::kMark));
  std::vector<std::byte> list(mark.begin(), mark.end());
  list.push_back(std::byte{imported::kKnownVersion});
  std::string_view before;
  for (const ImportedFile& file : files) {
    appendEntry(file, before, &list);
    before = file.name;
  }
  return list;
}

}  // namespace qvdb::tool
