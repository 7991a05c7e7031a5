// The names, kinds, modes and times of the files that were imported into a table, as the table's
// data block holds them. docs/imported-files.md describes the format for other programs.
//
// The block is a list of entries after a head. New entries follow the old ones, and of a removed
// entry only its kind and a time change, so that a block that is written over in place is readable
// at every moment, also when the program ends in the middle of it.
//
// A list that was damaged otherwise (by a power failure, a failing device) is read up to its first
// invalid entry. The entries before that are kept.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "archive/imported_entry.h"
#include "archive/name_index.h"

namespace qvdb::tool {

using ListVersion = qvdbase::format::imported::Version;

// The list of a table.
class ImportedFiles {
 public:
  ImportedFiles();

  // The files of a table, as far as they can be read. Nothing when its data is absent, empty or
  // something else. Throws qvdb::Error, and Failure for a version that is not known.
  static std::optional<ImportedFiles> of(const Database& database, const Table& table);
  // The same of a block; nothing for a version that is not known either.
  static std::optional<ImportedFiles> from(std::span<const std::byte> data);

  // Whether a block of table data, or that of a table, begins as one of these does.
  static ListVersion versionOf(std::span<const std::byte> data);
  static ListVersion versionOf(const Table& table);

  // The key of a table's list; none where there is no list or it cannot be read. Throws Error.
  static std::array<uint8_t, qvdbase::format::imported::kKeySize> keyOf(const Table& table);

  // Whether all of the list could be read.
  bool isWhole() const { return isWhole_; }

  // Whether a reader takes the list with everything that was added: names and targets can be too
  // long, one by one or together.
  bool isReadable() const;

  const qvdbase::format::imported::Head& head() const { return head_; }

  // Removed entries are in the list too. Where a change was cut off that replaces an entry, so that
  // both are there, the older one counts as removed.
  const std::vector<ImportedFile>& list() const { return list_; }

  // The index of an entry that is not removed.
  std::optional<size_t> find(std::string_view name) const;
  std::optional<size_t> find(Id record) const;

  // The last entry of a file of that name, or record, that was removed.
  std::optional<size_t> findRemoved(std::string_view name) const;
  std::optional<size_t> findRemoved(Id record) const;

  // The name must not be in the list yet. What could not be read of the list is dropped.
  void add(ImportedFile file);
  // At a time in seconds since 1970.
  void remove(size_t index, int64_t time);
  // Turns a removed entry into a file again. Its name must not be in the list.
  void restore(size_t index);
  // Changes mode, times and record.
  void update(size_t index, const ImportedFile& as);
  // Forgets all entries from `index` on.
  void cut(size_t index);

  // Makes the list one of the newest version, and one that is not much longer than what is in use:
  // where far more entries were removed, the older ones of these are forgotten.
  void renew(int64_t time);

  // Gives the list a key, if it has none: payloads that begin with it may be compressed.
  void giveKey();

  // Whether the block may not be written over the old one: its bytes are others from the beginning.
  bool isRewritten() const { return isRewritten_; }
  // The block is stored.
  void noteStored() { isRewritten_ = false; }

  // The block.
  std::span<const std::byte> bytes() const { return bytes_; }

 private:
  void decode(std::vector<std::byte> data);
  void dropReplaced();
  void rebuild(std::vector<ImportedFile> list);
  void rewrite(size_t index);
  std::string_view nameBefore() const;  // of the last entry

  qvdbase::format::imported::Head head_;
  std::vector<ImportedFile> list_;
  std::vector<size_t> starts_;  // of each entry in bytes_
  std::vector<std::byte> bytes_;
  size_t end_ = 0;  // of the last entry in bytes_: what follows cannot be read
  bool isWhole_ = true;
  bool isRewritten_ = false;
  mutable NameIndex index_;
};

}  // namespace qvdb::tool
