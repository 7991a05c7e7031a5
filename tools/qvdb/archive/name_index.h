// Finds imported files by name and by record.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "archive/imported_entry.h"

namespace qvdb::tool {

// An index of a list, which is built when it is first asked for. It points into the list: its owner
// must call forget() before changing it.
class NameIndex {
 public:
  // The index of this list, built if it is not yet.
  const NameIndex& of(const std::vector<ImportedFile>& list);

  void forget();

  // The place of an entry that is not removed.
  std::optional<size_t> find(std::string_view name) const;
  std::optional<size_t> find(Id record) const;

  // The place of the last entry of a file of that name, or record, that was removed.
  std::optional<size_t> findRemoved(std::string_view name) const;
  std::optional<size_t> findRemoved(Id record) const;

 private:
  // Those by name are sorted: hashed, names could be chosen so that all fall into one bucket.
  std::map<std::string_view, size_t> byName_;
  std::unordered_map<Id, size_t> byRecord_;
  std::map<std::string_view, size_t> removedByName_;
  std::unordered_map<Id, size_t> removedByRecord_;
  bool isBuilt_ = false;
};

}  // namespace qvdb::tool
