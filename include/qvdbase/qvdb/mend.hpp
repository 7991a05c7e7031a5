// qvdb::mend: complete in place what an interrupted operation has begun.
//
//   qvdb::mend("notes.qvd");
//
// A process that ends in the middle of an operation leaves at most the step in hand undone: a
// record that is linked but not counted, so that its table takes no more; a back link that still
// names the place from which a record has moved; a deletion of which one link is written. Where
// only one completion fits all that is in the file, mend() writes it: a few links and the slot.
// Every other damage it refuses, and changes nothing then; salvage() is for that.
#ifndef QVDBASE_QVDB_MEND_HPP
#define QVDBASE_QVDB_MEND_HPP

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qvdb {

// What becomes of whole blocks that an interrupted operation has written but not linked: records
// that were about to be added, newer versions of records that were about to be moved. Their
// operations never returned, so that either is right.
enum class CutOffWrites {
  keep,  // they stay as they are; salvage() brings them back
  link,  // they come into their tables
  // They count as deleted; at the end of the file they are cut off, torn blocks included. A batch
  // that may also be what a link repair has cut off a chain stays: its writes may have returned.
  discard,
};

struct MendOptions {
  CutOffWrites cut_off = CutOffWrites::keep;
  bool dry_run = false;  // only say what would be done
};

struct MendReport {
  // What was done, or would be, one sentence each. Empty: there was nothing to mend.
  std::vector<std::string> steps;
  // Whole blocks of writes that were cut off, which are still there and could be linked.
  uint64_t left_over = 0;
};

// Mends a database in place. The file is checked before, and so is what it would become: only a
// result without errors, with every record that a salvage of the file would bring back, is written.
// A deletion that was begun is finished, and its record can then be brought back with undelete().
// The links are written first and the slots last, and the device has them when the call returns. A
// process that is killed meanwhile leaves a file that can be mended again.
//
// Throws Error: path_not_reachable; no_such_file; not_a_file; access_denied; in_use, also when the
// file is changed meanwhile or this program has it open in another place; not_a_database;
// version_out_of_range; damaged for what cannot be mended (nothing is changed then); cannot_read;
// cannot_write; disk_full.
QVDBASE_API MendReport mend(const std::filesystem::path& path, const MendOptions& options = {});

}  // namespace qvdb

#endif
