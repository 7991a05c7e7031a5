// qvdb::trim: gives the space of dead payloads back to the file system, in place.
//
//   qvdb::trim("notes.qvd");
//
// A deleted record and an older version keep their blocks in the file. Where the file system can
// have holes in files, trim() makes holes of the whole pages inside the payloads of such blocks:
// the file keeps its length and every block its header, and takes less space. Compacting gains
// more, and needs the space for a second file.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstdint>
#include <filesystem>

namespace qvdb {

// For trim().
struct TrimOptions {
  // Only report what would be given back, where the file system can have holes: it is not asked.
  bool dry_run = false;
};

// The result of trim().
struct TrimReport {
  uint64_t bytes = 0;     // that the file had stored and has no longer, or would have no longer
  uint64_t payloads = 0;  // of dead blocks that these bytes belonged to
};

// Gives whole pages of 4096 bytes inside the payloads of dead blocks back to the file system: of
// deleted records, and of older versions of records and of table data. undelete(), read_version()
// and salvage() do not bring these payloads back any more and say so (FoundBlock::is_trimmed).
// Blocks that a salvage would save without being asked, of writes that were cut off, stay as they
// are.
//
// The database is checked first, and refused when it has errors. It is changed in place: each
// payload is first marked as given back, and when the device has the marks, the pages go. A process
// that is killed leaves a sound database; the next trim() continues. The device has everything when
// the call returns.
//
// Throws Error: path_not_reachable; no_such_file; not_a_file; access_denied; in_use, also when
// others read it through this layer or this program has it open elsewhere; not_a_database;
// version_out_of_range; directory_damaged; damaged when it has errors; cannot_read; cannot_write,
// also when the file system has no holes; disk_full. Nothing is lost but dead payloads then.
QVDBASE_API TrimReport trim(const std::filesystem::path& path, const TrimOptions& options = {});

}  // namespace qvdb
