// qvdb::check: is this file sound? And if it is not: what is wrong, what will fail because of it,
// and what to do.
//
//   const qvdb::CheckReport report = qvdb::check("notes.qvd", [](const qvdb::Finding& finding) {
//     std::cout << finding.code << ": " << finding.message << "\n";
//   });
//   if (report.state == qvdb::CheckState::damaged) ...
//
// The check only reads. It relies on the format and not on the library's own walks: it follows each
// chain from both ends, looks at all bytes that no chain covers, and accounts for every one. It
// takes time in proportion to the blocks and to the bytes that are not in use, and memory in
// proportion to the blocks. No number in the file makes it take more.
//
// The file may be open elsewhere. A check that is disturbed by a writer is repeated; writers of the
// C++ layer and threads of this process rest meanwhile, for two seconds at most. In the end it is
// in_use if the file has changed once more (there are no findings then), or if anything is found in
// a file that another process has open for writing. docs/together.md says which ones never rest.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/checksum.hpp>
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/file_writer.hpp>
#include <qvdbase/qvdb/id.hpp>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvdb {

// How bad a finding is.
enum class Severity {
  information,  // worth knowing, nothing wrong
  warning,      // legal, but dangerous or unusual
  error,        // damage
};

// The word for a severity: "information", "warning" or "error".
QVDBASE_API std::string_view to_string(Severity severity) noexcept;

// Writes this word.
QVDBASE_API std::ostream& operator<<(std::ostream& out, Severity severity);

// One thing that was found.
struct Finding {
  Severity severity = Severity::information;  // how bad it is
  std::string code;                           // "R5"; see finding_codes()
  int slot = -1;                              // the table's slot; -1 when it is about no table
  std::string table;                          // its name, as the file has it
  Id table_id;                                // 0 when it is about no table
  Id record;                                  // 0 when it is about no record
  int64_t offset = -1;                        // where in the file; -1 when nowhere in particular
  std::string message;                        // what was found here, one sentence
  uint64_t more = 0;                          // how many others like it are not reported one by one
};

// What a code means, in general.
struct FindingCode {
  std::string_view code;     // "R5"
  Severity severity;         // the gravest with which it is reported
  std::string_view meaning;  // what it is
  std::string_view fails;    // the library calls that fail because of it
  std::string_view advice;   // what to do
};

// All codes, in the order of the file's parts.
QVDBASE_API std::span<const FindingCode> finding_codes() noexcept;

// The entry of one code; an entry with empty texts when there is none.
QVDBASE_API const FindingCode& finding_code(std::string_view code) noexcept;

// Which of the library's own calls will succeed with a table of this file, predicted from what they
// read.
struct TableOutlook {
  int slot = 0;                  // the table's slot in the directory, from 0
  std::string name;              // its name, as the file has it
  Id id;                         // its identifier
  bool reachable = false;        // the directory leads to it: without that, every call fails
  bool append = false;           // AddRecordData
  bool list = false;             // GetRecordUuIDList
  bool find_all = false;         // GetOneRecordInfo, for every record of the table
  bool delete_all = false;       // DeleteOneRecord, for whichever record of the chain
  bool enlarge_all = false;      // ModifyRecordData beyond the capacity, for whichever record
  bool get_data = false;         // GetTableData; true as well when the table has none
  bool set_data = false;         // SetTableData
  uint32_t counted = 0;          // recordCount of the slot
  uint64_t walked = 0;           // records that the forward walk reaches within the count
  uint64_t found_elsewhere = 0;  // records of the table beyond that, reached or lost
};

// What every byte of the file is. The sum is the size of the file.
struct SpaceUse {
  uint64_t directory = 0;   // header and slots
  uint64_t records = 0;     // blocks of records in use, the reserve included
  uint64_t table_data = 0;  // blocks of table data in use
  uint64_t superseded = 0;  // older versions of records and of table data
  uint64_t deleted = 0;     // records that were deleted
  uint64_t unlinked = 0;    // blocks that never got into a chain, torn ones included
  uint64_t lost = 0;        // blocks that belong to a chain that does not lead to them
  uint64_t orphans = 0;     // blocks of tables that the directory does not have
  uint64_t unknown = 0;     // bytes that are no block
  uint64_t reserve = 0;     // of `records` and `table_data`: spare capacity after the payloads
  uint64_t stale = 0;       // of `reserve`: what holds older data

  // What the directory leads to: itself, and the blocks in use. Packing keeps no more than this.
  uint64_t in_use() const noexcept { return directory + records + table_data; }

  // The rest of a file of `file_size` bytes: what packing frees.
  uint64_t unused(uint64_t file_size) const noexcept {
    return in_use() < file_size ? file_size - in_use() : 0;
  }
};

// What a check found in short.
enum class CheckState {
  sound,    // nothing but information
  unusual,  // warnings
  damaged,  // errors
  in_use,   // it is being written: what was found may be work in progress
};

// The result of a check.
struct CheckReport {
  CheckState state = CheckState::sound;  // the whole in one word
  uint64_t errors = 0;                   // findings of this severity
  uint64_t warnings = 0;                 // findings of this severity
  uint64_t informations = 0;             // findings of this severity
  uint64_t file_size = 0;                // in bytes
  uint64_t blocks = 0;                   // blocks found, whatever they are
  SpaceUse space;                        // what the bytes are
  std::vector<TableOutlook> tables;      // in the order of the slots
  bool pack = false;                     // PackOneDB2NewW will succeed
  int repair = 0;          // what FixOneDBLinkErrorW will report: 0, 1 (failure) or 2 (rewritten)
  PayloadCounts payloads;  // of the records in use, where CheckOptions::payloads asks for it
  FileWriter writer;       // with in_use: who writes to it
};

// What a check looks at, and how.
struct CheckOptions {
  bool categories = false;  // look into the records of "QVrz_Category"
  bool deep = false;        // look for blocks inside the payloads of records (reads everything)
  // Findings of one code and table that are reported one by one; the last one counts the others.
  uint64_t most_alike = 20;
  // The present time in seconds since 1970, for judging times; 0 asks the clock.
  int64_t now = 0;
  int retries = 2;              // how often a check is repeated that a writer has disturbed
  int wait_milliseconds = 200;  // how long it waits before each repetition
  bool payloads = false;        // compare payloads with their checksums (reads all that have one)
};

// Gets the findings of a check, one at a time. What it throws ends the check and leaves it.
using FindingVisitor = std::function<void(const Finding&)>;

// Checks a file. The visitor, which may be empty, gets every finding, the header's first, each
// table's in the order of the slots, and those about space last.
//
// Throws Error with no_such_file, not_a_file, access_denied, cannot_open or path_not_reachable.
// What is wrong inside the file is never thrown.
QVDBASE_API CheckReport check(const std::filesystem::path& path, const FindingVisitor& visitor = {},
                              const CheckOptions& options = {});

// Checks a database that is in memory, which stays the caller's. Nothing is thrown but what the
// visitor throws, and std::bad_alloc.
QVDBASE_API CheckReport check_image(std::span<const std::byte> image,
                                    const FindingVisitor& visitor = {},
                                    const CheckOptions& options = {});

// Opens a database as Database::open() does, and looks at both ends of every table's chain: that
// the slot's count and positions agree, that nothing precedes the first record and nothing follows
// the last, and that the neighbours of both, and of the record written last, point back at them.
// That takes a constant time for each table and finds most of what an interrupted operation leaves,
// above all the states in which records added from now on would be lost. It does not replace
// check(): damage inside a chain is not found.
//
// Throws Error as Database::open() does; directory_damaged for a slot in use without its marks;
// chain_damaged for a table whose ends are not as they should be (the message names the table);
// cannot_read where the system cannot read them.
//
// The same as Database::open() with OpenOptions{.mode = mode, .check = true}.
QVDBASE_API Database open_checked(const std::filesystem::path& path, Mode mode = Mode::read_only);

// Looks at the ends of one table's chain as open_checked() does, in a database that is open, before
// the table is written to. mend() completes what an interrupted operation has left there. The other
// tables are searched for a last record that extends beyond the end of the file: appended bytes
// would be taken for the ones that it lacks. Only salvage() helps then.
//
// Throws Error with chain_damaged, whose remedy() is mend, or cannot_read, and beside other
// processes in_use and changed_meanwhile; not_open; operation() is "write to the table".
QVDBASE_API void check_ends(const Database& database, Id table);

// What link repair (FixOneDBLinkErrorW) would do to a table.
struct RepairedTable {
  int slot = 0;            // the table's slot in the directory, from 0
  std::string name;        // its name, as the file has it
  Id id;                   // its identifier
  bool rewritten = false;  // false: its chain counts as sound, or it is skipped
  uint32_t counted = 0;    // records before, as the slot counts them
  uint64_t reachable = 0;  // records that can still be found: from both ends, and by scanning
  uint64_t kept = 0;       // records that its chain will have afterwards
  uint64_t lost = 0;       // of a chain that is rewritten: reachable ones that drop out of it
  uint64_t missed = 0;     // of one that counts as sound: reachable ones that are not in it
};

// What link repair would do to a file.
struct RepairPreview {
  int result = 0;       // as FixOneDBLinkErrorW will report it: 0 sound, 1 failure, 2 rewritten
  std::string failure;  // why it will fail; empty when it will not
  bool unfinished_pack = false;       // the file is an unfinished pack; repair will hide that
  std::vector<RepairedTable> tables;  // in the order of the slots, up to where it fails
  uint64_t lost = 0;                  // the sum over all tables
  uint64_t missed = 0;                // the sum over all tables
  bool salvage_gives_more = false;    // whether salvage() would lose less
};

// Predicts what link repair would do to a file, without writing. Link repair keeps what the forward
// walk reaches; everything else drops out of the chain. It takes some broken chains for sound, such
// as one with a record that was never counted, and does not change them; check() reports them.
// Throws as check() does.
QVDBASE_API RepairPreview predict_repair(const std::filesystem::path& path);

}  // namespace qvdb
