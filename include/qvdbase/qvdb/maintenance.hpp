// Operations on whole database files: compact, pack, renumber, repair.
//
//   qvdb::compact("notes.qvd");                              drop what is dead, keep everything
//   else qvdb::compact("notes.qvd", "copy.qvd", showProgress);
//
// A database only grows: deleted records and the old places of changed ones stay in the file until
// it is rewritten. compact() rewrites it. The other three are operations of qvdbase.h, with reasons
// for their failures and without unfinished files: pack() loses the data of tables that have
// records, and renumber() gives new identifiers.
//
// None of them leaves an unfinished target. The new file is written beside its target, under a name
// that begins with ".qvdb-" and ends in ".tmp", and gets the target's name only when it is complete
// and the device has it. A process that is killed before leaves that temporary file, or folder, and
// nothing else; it can be deleted.
//
// A new file gets permissions, access list, attributes and group of its source, and its owner where
// the system allows that. Where the group cannot be kept, its rights are removed; where access list
// or attributes cannot be kept, the operation fails. A file that replaces another one gets all this
// from that one. A file with several hard links is not replaced: the other names would
// keep the old one.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>
#include <qvdbase/qvdb/id.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvdb {

// Called with the progress of an operation, in percent, never less than before; may be empty.
// Returning false stops the operation, which then throws Error with Reason::cancelled. It may be
// called very often, and may throw: the operation ends with its exception. It must not work on the
// databases of the operation.
using ProgressFunction = std::function<bool(int percent)>;

// For the operations that make a file.
struct TargetOptions {
  // Whether a target that exists is replaced. An empty file always is.
  bool overwrite = false;
  // Whether a source is copied that has errors, or records or table data that salvage() would bring
  // back and the copy would not have.
  bool force = false;
  // Whether missing folders in the target's path are created.
  bool create_folders = false;
};

// A record that compact() asks about.
struct CompactedRecord {
  std::string_view table;    // the name of its table in the source
  Id id;                     // its identifier
  uint32_t create_time = 0;  // in seconds since 1970
  uint32_t modify_time = 0;  // likewise
  uint32_t size = 0;         // bytes of its payload
};

// For compact().
struct CompactOptions {
  bool overwrite = false;       // as in TargetOptions
  bool dry_run = false;         // only calculate the result: nothing is written
  bool force = false;           // as in TargetOptions
  bool create_folders = false;  // as in TargetOptions
  // Changes to tables, by the names that they have in the source. No table may be named twice.
  std::vector<std::string> drop = {};   // tables that the new file does not have
  std::vector<std::string> clear = {};  // tables that lose all records; they keep their data
  std::vector<std::pair<std::string, std::string>> rename = {};  // from, to
  // Which records the new file has; all when it is empty. It is asked once about each record, table
  // after table and in order, and must not work on the databases of the operation. What it throws
  // ends the operation. Its cost is that of a walk over the headers: no payload is read.
  std::function<bool(const CompactedRecord& record)> keep = {};
  // Whether every record gets a checksum of its payload that has none; for that it has 32 bytes
  // more capacity where it has not 28 to spare. The others keep theirs, whatever it says.
  bool protect = false;
  // With `protect`: whether records whose checksum is of another time or length, because a program
  // that does not know checksums has changed them, get a new one of what they hold now.
  bool accept_changes = false;
};

// The result of compact().
struct CompactReport {
  uint64_t size_before = 0;  // bytes of the source
  uint64_t size_after = 0;   // bytes of the compacted file
  uint64_t tables = 0;       // tables of the compacted file
  uint64_t records = 0;      // its records
  uint64_t data_blocks = 0;  // its tables with table data
  // Records left out that salvage() would bring back; above 0 only with `force`.
  uint64_t records_lost = 0;
  // Torn blocks left out, of writes that were interrupted; salvage() would not bring them back.
  uint64_t torn_blocks = 0;
  uint64_t checksums_made = 0;  // records that got a checksum, with CompactOptions::protect
};

// When a database that is open is compacted by itself: see OpenOptions::compact_when. Both limits
// have to be reached.
struct CompactWhen {
  // The part of the file's bytes that are dead, more than 0 and at most 1; 0 for never.
  double dead_part = 0;
  // How many bytes are dead.
  uint64_t dead_bytes = uint64_t{1} << 20;
};

// Rewrites a database without what is dead in it. Everything live is kept: signature, version and
// identifier of the database; name, identifier, flags and counters of the tables, and their data;
// identifiers, times, payloads, capacities and order of the records; and permissions of the file.
// Spare capacity after payloads and data is filled with zeros, and checksums of payloads stay in
// it. The new file is read back and compared with what was written before it gets its name. Table
// data that a pack has moved is found and copied too.
//
// The source is checked first. One with errors, or with records or table data that no chain leads
// to any more, is refused unless `force` is set: a copy would be sound, and have less in it. A
// broken chain is refused with `force` too.
//
// This form replaces the source by the new file. No other opener may have the source open for
// writing then; one that has it open for reading continues with the old file. Symbolic links are
// followed.
//
// Throws Error: path_not_reachable; no_such_file; not_a_file; access_denied; in_use, also when the
// source is changed meanwhile; not_a_database; version_out_of_range; directory_damaged,
// chain_damaged and data_damaged for a source that is not sound (qvdb::check reports where, and
// qvdb::salvage helps); damaged, with the number of records that would be lost, for one whose
// chains are whole nevertheless; table_missing, table_exists, bad_name, name_too_long and
// bad_argument for changes to tables; file_exists; bad_argument for a file to be replaced that has
// several hard links; disk_full; cannot_read; cannot_write; cancelled. Source and target
// are unchanged then.
QVDBASE_API CompactReport compact(const std::filesystem::path& source,
                                  const ProgressFunction& progress = {},
                                  const CompactOptions& options = {});

// The same into a new file: the source is only read. Naming the source itself as target is the form
// above.
QVDBASE_API CompactReport compact(const std::filesystem::path& source,
                                  const std::filesystem::path& target,
                                  const ProgressFunction& progress = {},
                                  const CompactOptions& options = {});

// The result of pack() and renumber().
struct PackReport {
  uint64_t size_before = 0;  // bytes of the source
  uint64_t size_after = 0;   // bytes of the new file
  // Tables that have data in the source and cannot find it in the new file, because they have
  // records.
  std::vector<std::string> tables_without_data;
  uint64_t records_lost = 0;  // as in CompactReport
  // Records that have a checksum of their payload in the source, and none in the new file: these
  // operations fill spare capacity with zeros.
  uint64_t checksums_lost = 0;
};

// Does what PackOneDB2NewW does: makes a new file with every table, its records under their
// identifiers, and the data of tables without records. The version becomes 100. Checksums of
// payloads are neither compared nor kept: compact() keeps them. The source must be
// writable, and no other process may have it open exclusively; it is not changed.
//
// The source is checked first, as compact() does, and refused with `damaged` unless `force` is set.
//
// Throws Error as compact() does, and bad_argument when source and target are the same file.
QVDBASE_API PackReport pack(const std::filesystem::path& source,
                            const std::filesystem::path& target,
                            const ProgressFunction& progress = {},
                            const TargetOptions& options = {});

// Does what PackOneDB2AllNewUUIDFile does: makes a new file with new identifiers for the database
// and its records, except those of the tables "QVrz_Info" and "QVrz_Category"; categories get the
// new identifiers of the records that they list. Checksums of payloads are neither compared nor
// kept; `qvdb protect` makes new ones. A database without a table "QVrz_Category" cannot be
// renumbered.
//
// Throws Error as pack() does; table_missing without that table; data_damaged when the categories
// cannot be renewed, mostly because one lists an identifier that was not replaced.
QVDBASE_API PackReport renumber(const std::filesystem::path& source,
                                const std::filesystem::path& target,
                                const ProgressFunction& progress = {},
                                const TargetOptions& options = {});

// What a repair did.
enum class RepairOutcome {
  sound,     // every chain was found sound; only the version was set to 100
  relinked,  // the chain of at least one table was rewritten
};

// Does what FixOneDBLinkErrorW does: checks the record chain of every table, in place, and rewrites
// the broken ones from what can be reached from their first record; everything else drops out.
// predict_repair() reports beforehand what would be lost, and salvage() loses less. When it
// returns, the device has what was written.
//
// Throws Error: path_not_reachable; no_such_file; not_a_file; access_denied; in_use;
// not_a_database; version_out_of_range; directory_damaged when a table or its data is damaged in a
// way that it does not repair; cannot_write; cancelled. What was rewritten before stays.
QVDBASE_API RepairOutcome repair(const std::filesystem::path& path,
                                 const ProgressFunction& progress = {});

struct RepairPreview;  // qvdb/check.hpp

// Gets what predict_repair() reports. Returns whether the repair is to begin; may throw instead.
using RepairJudge = std::function<bool(const RepairPreview& preview)>;

// Does what repair() does, if `judge` agrees, which is called before anything is written. It judges
// the very file that is repaired: the file is opened once, and no other writer has it meanwhile.
//
// Throws Error as repair() does, cancelled also when `judge` returns false; and what `judge`
// throws.
QVDBASE_API RepairOutcome repair_if(const std::filesystem::path& path, const RepairJudge& judge,
                                    const ProgressFunction& progress = {});

}  // namespace qvdb
