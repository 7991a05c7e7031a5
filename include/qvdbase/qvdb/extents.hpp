// qvdb::visit_extents: what every byte of a database file is, in the order of the file.
//
//   qvdb::visit_extents("notes.qvd", [](const qvdb::Extent& extent) {
//     std::cout << extent.offset << ": " << extent.size << " bytes, " << extent.use << "\n";
//   });
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/file_writer.hpp>
#include <qvdbase/qvdb/id.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <span>
#include <string_view>

namespace qvdb {

// What a part of a file is. SpaceUse has the sums of most under these names; `torn` and `unknown`
// make SpaceUse::unknown, and `intent` is part of SpaceUse::superseded.
enum class ExtentUse {
  directory,   // header and slots
  record,      // the block of a record in use
  table_data,  // the block of table data in use
  superseded,  // an older version of a record, or of table data
  deleted,     // a record that was deleted
  unlinked,    // a block that never got into a chain
  lost,        // a block that belongs to a chain that does not lead to it
  orphan,      // a block of a table that the directory does not have
  torn,        // bytes that begin like a block
  unknown,     // bytes that begin like nothing
  intent,      // what a transaction noted before it was carried out
};

// The word for it: "directory", "record", "table data", ...
QVDBASE_API std::string_view to_string(ExtentUse use) noexcept;

// Writes this word.
QVDBASE_API std::ostream& operator<<(std::ostream& out, ExtentUse use);

// A part of a file: the directory, a block, or bytes between blocks.
struct Extent {
  ExtentUse use = ExtentUse::unknown;  // what it is
  int64_t offset = 0;                  // where it begins
  int64_t size = 0;                    // in bytes, above 0
  bool is_table_data = false;          // of a block: table data, else a record
  Id table = {};                       // of a block: its table
  Id record = {};                      // of a record: its identifier
  int64_t reserve = 0;  // of a block that is in use: spare bytes between payload and end mark
};

// Gets the extents, one at a time. What it throws ends the visit and is passed on.
using ExtentVisitor = std::function<void(const Extent&)>;

// What a visit found besides.
struct ExtentsReport {
  int64_t file_size = 0;  // the sum of all extents
  bool in_use = false;    // another process has the file open for writing, or changed it meanwhile:
                          // parts can be work in progress
  FileWriter writer;      // with in_use: who writes to it
};

// Visits every part of a file, sound or not: the extents follow one another without gaps, from the
// first byte to the last. The file is only read, by the format alone; it takes the time of a check.
//
// Throws Error with no_such_file, not_a_file, access_denied, cannot_open or path_not_reachable;
// what the visitor throws; std::bad_alloc.
QVDBASE_API ExtentsReport visit_extents(const std::filesystem::path& path,
                                        const ExtentVisitor& visitor);

// The same for a database that is in memory, which stays the caller's. Throws only what the visitor
// throws, and std::bad_alloc.
QVDBASE_API ExtentsReport visit_extents(std::span<const std::byte> image,
                                        const ExtentVisitor& visitor);

}  // namespace qvdb
