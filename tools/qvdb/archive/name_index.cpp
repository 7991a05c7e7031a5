// Finds imported files by name and by record.
#include "archive/name_index.h"

namespace qvdb::tool {

const NameIndex& NameIndex::of(const std::vector<ImportedFile>& list) {
  if (isBuilt_) return *this;
  isBuilt_ = true;
  byRecord_.reserve(list.size());
  for (size_t i = 0; i < list.size(); ++i) {
    if (list[i].kind == FileKind::removed) continue;
    const auto [there, isNew] = byName_.emplace(list[i].name, i);
    // A link that is being replaced: see ImportNames::replaceOld.
    if (!isNew && list[i].kind == FileKind::link && list[there->second].kind == FileKind::link) {
      there->second = i;
    }
    if (list[i].kind == FileKind::file) byRecord_.emplace(list[i].record, i);
  }
  for (size_t i = 0; i < list.size(); ++i) {
    if (list[i].kind != FileKind::removed) continue;
    // Folders and links have no record, and a file that has a newer entry is not gone.
    if (list[i].record.value == 0 || byRecord_.contains(list[i].record)) continue;
    removedByName_.insert_or_assign(list[i].name, i);
    removedByRecord_.insert_or_assign(list[i].record, i);
  }
  return *this;
}

void NameIndex::forget() {
  isBuilt_ = false;
  byName_.clear();
  byRecord_.clear();
  removedByName_.clear();
  removedByRecord_.clear();
}

std::optional<size_t> NameIndex::findRemoved(std::string_view name) const {
  const auto found = removedByName_.find(name);
  return found == removedByName_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<size_t> NameIndex::findRemoved(Id record) const {
  const auto found = removedByRecord_.find(record);
  return found == removedByRecord_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<size_t> NameIndex::find(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<size_t> NameIndex::find(Id record) const {
  const auto found = byRecord_.find(record);
  return found == byRecord_.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace qvdb::tool
