// qvdb::mend: complete in place what an interrupted operation has begun.
//
//   qvdb::mend("notes.qvd");
//
// A process that ends in the middle of an operation leaves at most one step unfinished: a record
// that is linked but not counted, so that its table takes no more; a back link to the place from
// which a record has moved; a deletion of which one link is written. Where only one completion
// agrees with everything in the file, mend() writes it: a few links and the slot. It refuses every
// other damage, and changes nothing then; salvage() is for that.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qvdb {

// What becomes of whole blocks without links that an interrupted operation has written: records,
// newer versions, first data of a table (it never returned, so each choice is correct); and that a
// committed transaction has, for a table that another program has changed since (X3 of qvdb check).
enum class CutOffWrites {
  keep,  // they are not changed; salvage() brings them back
  link,  // they are linked into their tables
  // They count as deleted, and table data is overwritten with zeros; at the end of the file they
  // are cut off, torn blocks included. Records that a link repair has removed from their chain stay
  // if the record written last is one of them: their writes have returned.
  discard,
};

// What mend() does.
struct MendOptions {
  CutOffWrites cut_off = CutOffWrites::keep;  // with whole blocks that are not linked
  bool dry_run = false;                       // only report what would be done
};

// The result of mend().
struct MendReport {
  // What was done, or would be, one sentence each. Empty: there was nothing to mend.
  std::vector<std::string> steps;
  // Whole blocks of interrupted writes that are still in the file and could be linked.
  uint64_t left_over = 0;
  uint64_t left_over_data = 0;  // of these, blocks of table data
};

// Mends a database in place. The file is checked before, and so is what it would become: only a
// result without errors, with every record that a salvage of the file would bring back, is written.
// A deletion that was begun is finished, and its record can then be brought back with undelete().
// The links are written first and the slots last, and the device has them when the call returns. A
// process that is killed before that leaves a file that can be mended again.
//
// Throws Error: path_not_reachable; no_such_file; not_a_file; access_denied; in_use, also when the
// file is changed meanwhile or this program has it open elsewhere; not_a_database;
// version_out_of_range; damaged for what cannot be mended (nothing is changed then); cannot_read;
// cannot_write; disk_full.
QVDBASE_API MendReport mend(const std::filesystem::path& path, const MendOptions& options = {});

}  // namespace qvdb
