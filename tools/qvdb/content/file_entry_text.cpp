// Entries of the list of imported files as text.
#include "content/file_entry_text.h"

#include <cstdint>
#include <cstdio>
#include <string>

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
  if (file.since != 0) lines.signedNumber("since", file.since);
  if (file.until != 0) lines.signedNumber("until", file.until);
  if (!file.fields.empty()) lines.bytes("fields", "fields_base64", file.fields);
}

void writeListHead(const imported::Head& head, JsonLines& lines) {
  if (head.version == imported::kFirstVersion) return;
  lines.number("list", head.version);
  lines.signedNumber("known_since", head.knownSince);
  if (head.key == imported::Head().key) return;
  std::string key;
  for (const uint8_t byte : head.key) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", unsigned{byte});
    key += digits;
  }
  lines.bytes("key", "key", key);
}

imported::Head takeListHead(Members& line) {
  imported::Head head;
  head.version = imported::kFirstVersion;
  const auto version = line.numberIfThere("list", UINT64_MAX);
  if (!version) return head;
  if (*version <= imported::kFirstVersion || *version > imported::kNewestVersion) {
    throw BadLine("\"list\" is no version of a list of files that is known");
  }
  head.version = static_cast<uint8_t>(*version);
  head.knownSince = line.signedNumber("known_since");
  if (!line.has("key")) return head;
  const std::string& key = line.text("key");
  bool isKey = key.size() == 2 * head.key.size();
  for (size_t i = 0; isKey && i < key.size(); ++i) {
    const size_t digit = std::string_view("0123456789abcdef").find(key[i]);
    isKey = digit != std::string_view::npos;
    head.key[i / 2] = static_cast<uint8_t>(head.key[i / 2] * 16u + static_cast<uint8_t>(digit));
  }
  if (!isKey) throw BadLine("\"key\" is not 32 hexadecimal digits");
  return head;
}

}  // namespace qvdb::tool
