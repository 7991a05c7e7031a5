// qvdb::history and qvdb::undelete: the versions of a record that are still in a file.
//
// Changing a record so that it needs more capacity, and deleting it, leave its old block in the
// file until the database is compacted or packed.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/id.hpp>
#include <qvdbase/qvdb/salvage.hpp>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace qvdb {

// Every version of a record that is in the file, oldest first, whether or not a chain leads to it.
// Changes that fitted the record's capacity left no version of their own. Empty when there is none.
//
// table  a name, or an identifier as parse_id() reads it (also of a table that the directory does
//        not have); a table of that name comes first
//
// Throws Error: no_such_file, not_a_file, access_denied, cannot_open, path_not_reachable;
// table_missing.
QVDBASE_API std::vector<FoundBlock> history(const std::filesystem::path& path,
                                            std::string_view table, Id record);

// The same of all records of a table, from one look at the whole file: the visitor gets every
// version, in the order in which they were written. It must not be empty; what it throws ends this
// and leaves it.
QVDBASE_API void history(const std::filesystem::path& path, std::string_view table,
                         const BlockVisitor& visitor);

// The last version of every record of a table that is not in use any more, in the order in which
// these versions were written. Deleted records are in the file until it is rewritten. A record
// whose adding was interrupted can look like a deleted one (BlockLabel::deleted_or_unlinked).
// Throws as history() does.
QVDBASE_API std::vector<FoundBlock> deleted_records(const std::filesystem::path& path,
                                                    std::string_view table);

// The payload of a version, as much of it as the file still has.
//
// version  as history() or deleted_records() returned it, of the same file
//
// Throws as history() does, cannot_read when the file no longer has it (also when trim() has given
// it back), and too_large when there is not enough memory.
QVDBASE_API std::vector<std::byte> read_version(const std::filesystem::path& path,
                                                const FoundBlock& version);

// Changes the bytes of a table's data, of which the number stays.
using DataEdit = std::function<void(std::span<std::byte> data)>;

// Writes a new file with everything that `source` has in use, and with one version of a record
// brought back. It takes the place of the version in use, if there is one; else it becomes the
// table's last record. The source is only read.
//
// target  must not exist
// offset  FoundBlock::offset of the version; nothing: the last one
//
// `edit_data` is given the data of the record's table, where it has any, and may change these
// bytes: the new file has them so from the beginning. What it throws ends the operation.
//
// Throws as history() and salvage() do; record_missing when there is no such version; cannot_read
// when trim() has given its payload back; bad_argument when the record is in use and no offset is
// given.
QVDBASE_API SalvageReport undelete(const std::filesystem::path& source,
                                   const std::filesystem::path& target, std::string_view table,
                                   Id record, std::optional<int64_t> offset = std::nullopt,
                                   const DataEdit& edit_data = {});

}  // namespace qvdb
