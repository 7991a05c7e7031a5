// qvdb::salvage: copy what can be read from a damaged file into a new file.
//
//   const qvdb::SalvageReport report = qvdb::salvage("damaged.qvd", "saved.qvd");
//
// A database only ever grows: blocks are never written over by others, and each carries the
// identifiers of its table and record, with sums, and its times. So nearly everything can be found
// without a chain that leads to it. Salvage takes what the chains reach from both ends, searches
// all other bytes for blocks, determines what each of them was, and writes a new file with the
// records under their old identifiers, with their times and their spare capacity. The source is
// only read.
//
// A power failure can leave a chain that leads to a block of which only a part reached the device.
// A block without an end mark, or that extends beyond the file, does not replace an older version
// of its record that is whole: the older one is kept, and what is left of the newer one goes into
// the table "lost-and-found". Blocks with the record identifier 0 are always left out, with a note:
// which record they were is not known, and the older version of a record that moved into one is
// kept.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/checksum.hpp>
#include <qvdbase/qvdb/file_writer.hpp>
#include <qvdbase/qvdb/id.hpp>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb {

// What a block was found to be.
enum class BlockLabel {
  live,                 // in use
  lost,                 // in use, but no chain leads to it any more
  superseded,           // an older version of a record, or of a table's data
  unfinished,           // a newer version of a record, of a move that was interrupted
  deleted,              // a record that was deleted
  unlinked,             // appended, but interrupted before it was counted
  deleted_or_unlinked,  // one of both; the file does not say which
};

// The word for a label: "live", "lost", ...
QVDBASE_API std::string_view to_string(BlockLabel label) noexcept;

// How much of a block was verified.
enum class BlockGrade {
  a,  // all of it
  b,  // all but one of end mark, identifier sum, capacity; its payload may be cut
  c,  // only its header
};

// A block that was found.
struct FoundBlock {
  bool is_table_data = false;           // else a record
  BlockLabel label = BlockLabel::live;  // what it was found to be
  BlockGrade grade = BlockGrade::a;     // how much of it was verified
  bool is_orphan = false;               // its table is not in the directory
  Id table;                             // the table's identifier
  std::string table_name;               // empty for an orphan
  Id record;                            // 0 for table data
  int64_t offset = 0;                   // of the block in the file
  uint32_t length = 0;                  // bytes of payload, as the block says
  uint64_t there = 0;                   // bytes of payload that the file has
  uint32_t capacity = 0;                // in bytes, as the block says
  uint32_t create_time = 0;             // of records: seconds since 1970, modulo 2^32
  uint32_t modify_time = 0;             // of records: seconds since 1970, modulo 2^32
  std::string written_to;  // the table of the new file that it was written to; empty: left out
  // Of records that were written: what the checksum says of the payload.
  std::optional<PayloadState> payload = std::nullopt;
  bool is_trimmed = false;  // trim() has given the payload back to the file system
};

// Gets the blocks that were found, one at a time. What it throws ends the operation and leaves it.
using BlockVisitor = std::function<void(const FoundBlock&)>;

// What salvage() copies, and where to. Live, lost, unlinked and unfinished blocks are always
// copied.
struct SalvageOptions {
  bool deleted = false;   // copy deleted records too, into a table "lost-and-found"
  bool versions = false;  // copy older versions of records too, into "lost-and-found"
  // Whole blocks of tables that the directory does not have are always copied, into tables named
  // "table-<identifier>". With this, so are blocks that may be something else: pieces of a torn
  // block's payload, in the space that it claims; or, in an image (`from`), blocks of another
  // database. When the directory is damaged, these are copied without it too.
  bool orphans = false;
  BlockGrade lowest_grade = BlockGrade::a;  // copy blocks of this grade and better
  bool in_place_tables = false;             // deleted records go back into their own tables
  // Where the database begins in the source, for an image of a device: positions count from there.
  // Below 0: as many bytes are missing at the front.
  int64_t from = 0;
  bool ignore_directory = false;  // search header and directory for blocks like all other bytes
  // A folder for payloads, one file each, and "manifest.jsonl" with a line for each. It is created;
  // nothing in it is replaced. Empty: none.
  std::filesystem::path extract_to = {};
  // A folder for the databases that are stored in payloads, or between the blocks as in an image of
  // a device: each is salvaged too, with the same options, into "at-<offset>.qvd"; the folder is
  // created. This reads everything, and each stored database once more. At most 1,000
  // are written, and not more than four times the source; notes name the rest. Empty: none.
  std::filesystem::path deep_to = {};
  bool create_folders = false;  // whether missing folders in the paths of new files are created
};

// A range of bytes of a file.
struct ByteRange {
  int64_t offset = 0;  // of the first byte
  int64_t size = 0;    // in bytes
};

struct StoredDatabase;

// The result of a salvage.
struct SalvageReport {
  uint64_t blocks_found = 0;           // in the source
  uint64_t tables_written = 0;         // tables of the new file
  uint64_t records_written = 0;        // its records
  uint64_t data_written = 0;           // its blocks of table data
  uint64_t payload_bytes = 0;          // bytes of payload written
  uint64_t records_cut = 0;            // of those written, the ones whose payload is incomplete
  uint64_t bytes_unreadable = 0;       // of those payloads: the system cannot read them; zeros now
  uint64_t blocks_left_out = 0;        // found, but not to be copied
  uint64_t tables_left_out = 0;        // a database has at most 31
  uint64_t bytes_unknown = 0;          // bytes that belong to no block
  std::vector<ByteRange> unknown;      // where they are
  std::vector<std::string> notes;      // what had to be made up or left out, one sentence each
  std::vector<StoredDatabase> stored;  // what was written to `deep_to`
  bool source_in_use = false;          // another process has the source open for writing
  bool verified = false;               // the new file was checked and holds what was to be written
  PayloadCounts payloads = {};         // of the records written: what their checksums say
  FileWriter source_writer = {};       // with source_in_use: who writes to it
};

// A database that was found stored in the source.
struct StoredDatabase {
  int64_t offset = 0;          // where it begins
  std::filesystem::path file;  // the new file
  SalvageReport report;        // its positions count from the offset
};

// Salvages `source`, a file or a block device, into `target`, which must not exist and appears when
// it is complete. The visitor, which may be empty, gets every block that was found, in file order.
//
// Throws Error: for the source no_such_file, not_a_file, access_denied, cannot_open and, when it
// changes meanwhile, in_use; for the target file_exists, access_denied, cannot_open, cannot_write,
// disk_full; path_not_reachable. file_exists also for a file in `deep_to` or `extract_to`; nothing
// is written then. not_a_database when no block and no table is found, and the source does not
// begin as a database does. What was written is removed, also when the visitor throws.
QVDBASE_API SalvageReport salvage(const std::filesystem::path& source,
                                  const std::filesystem::path& target,
                                  const BlockVisitor& visitor = {},
                                  const SalvageOptions& options = {});

// Salvages a database that is in memory, which stays the caller's. Throws as salvage() does for the
// target.
QVDBASE_API SalvageReport salvage_image(std::span<const std::byte> image,
                                        const std::filesystem::path& target,
                                        const BlockVisitor& visitor = {},
                                        const SalvageOptions& options = {});

}  // namespace qvdb
