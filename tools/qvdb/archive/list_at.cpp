// What a list of imported files says of an earlier time.
#include "archive/list_at.h"

#include <algorithm>
#include <map>

using qvdbase::format::imported::kFirstVersion;

namespace qvdb::tool {
namespace {

bool wasThere(const ImportedFile& file, int64_t time) {
  return file.since <= time && (file.kind != FileKind::removed || file.until > time);
}

// A removed entry has lost its kind, but nothing else.
FileKind kindOf(const ImportedFile& file) {
  if (file.kind != FileKind::removed) return file.kind;
  if (file.record.value != 0) return FileKind::file;
  return file.target.empty() ? FileKind::folder : FileKind::link;
}

}  // namespace

bool isCompleteAt(const ImportedFiles& files, int64_t time) {
  return files.head().version != kFirstVersion && time >= files.head().knownSince;
}

std::vector<ImportedFile> entriesAt(const ImportedFiles& files, int64_t time) {
  std::map<std::string_view, size_t>
      last;  // a clock that was set back can make several of one name
  for (size_t i = 0; i < files.list().size(); ++i) {
    if (wasThere(files.list()[i], time)) last.insert_or_assign(files.list()[i].name, i);
  }
  std::vector<size_t> places;
  places.reserve(last.size());
  for (const auto& each : last) places.push_back(each.second);
  std::sort(places.begin(), places.end());
  std::vector<ImportedFile> entries;
  entries.reserve(places.size());
  for (const size_t place : places) {
    entries.push_back(files.list()[place]);
    entries.back().kind = kindOf(files.list()[place]);
  }
  return entries;
}

std::optional<int64_t> removalBefore(const ImportedFiles& files, std::string_view name,
                                     int64_t time) {
  std::optional<int64_t> removed;
  for (const ImportedFile& file : files.list()) {
    if (file.name != name) continue;
    if (wasThere(file, time)) return std::nullopt;
    if (file.kind == FileKind::removed && file.until != 0 && file.since <= time) {
      removed = std::max(removed.value_or(file.until), file.until);
    }
  }
  return removed;
}

}  // namespace qvdb::tool
