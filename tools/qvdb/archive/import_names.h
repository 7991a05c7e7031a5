// The names of an import's files: those that the table has, and the new ones.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "archive/file_tree.h"
#include "archive/imported_files.h"

namespace qvdb::tool {

// The list of names in a table's data, and the entry in it of each file of a tree. A file is given
// by its place in the tree.
class ImportNames {
 public:
  // `names` is the list that the table has.
  ImportNames(Database& database, Table& table, const FileTree& tree, ImportedFiles names);

  // The key of the list; giveKey() makes one, to be stored, if there is none.
  const std::array<uint8_t, qvdbase::format::imported::kKeySize>& key() const {
    return names_.head().key;
  }
  void giveKey();

  // The entry that the table has for a file already; null when it has none. Only before addNew().
  const ImportedFile* present(size_t file) const;

  // Whether a name of the table belongs to the record.
  bool has(Id record) const { return names_.find(record).has_value(); }

  // Adds the files that the table does not have, with identifiers for their records, and links
  // with another target. Stores nothing yet. Throws Failure, with nothing stored, when the list
  // would be one that no reader takes.
  void addNew();

  // The entry of a file. Only after addNew().
  const ImportedFile& of(size_t file) const { return names_.list()[entries_[file]]; }

  // Takes over mode and times of a file, with finish(): an entry that the table has stays as it is,
  // and gets one that takes its place.
  void note(size_t file, const ImportedFile& now);

  // Removes the name of a file that is not going to be stored, if it is a new one.
  void forget(size_t file);

  // Removes the names of new files from `firstMissing` on, whose records are not in the table.
  void cutFrom(size_t firstMissing);

  // Adds the entries that note() has kept, stores the list, and then removes the entries that have
  // new ones. The list has both for a time, in which the later one counts, so that a kill loses
  // none. Links from `firstMissing` on keep their old entries. The list is then still to be stored.
  void replaceOld(size_t firstMissing);

  // The size of the table's data once they are stored.
  uint64_t storedSize() const { return names_.bytes().size(); }

  void store();
  void storeIfChanged();

 private:
  static constexpr size_t kNew = ~size_t{0};

  bool isNewOrChanged(size_t file) const;

  Database& database_;
  Table& table_;
  const int64_t now_;
  const FileTree& tree_;
  ImportedFiles names_;
  size_t hadNames_;                                       // entries that the table has
  std::vector<size_t> entries_;                           // of each file in names_, or kNew
  std::unordered_map<size_t, size_t> oldLinks_;           // of files: their old entries
  std::vector<std::pair<size_t, ImportedFile>> changed_;  // old entries, and what replaces them
  bool haveChanged_ = false;
};

}  // namespace qvdb::tool
