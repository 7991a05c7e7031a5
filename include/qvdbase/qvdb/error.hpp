// qvdb::Error: what every operation of the C++ layer throws when it fails.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace qvdb {

// Why an operation failed. The C functions report only that they did; the reason is found by
// looking at the file afterwards, so that it can be wrong when another program changes the file
// meanwhile.
enum class Reason {
  // Paths and files
  path_not_reachable,  // the library cannot take the path, or a folder in it does not exist
  no_such_file,        // nothing has this name
  not_a_file,          // a folder, a device, ...
  file_exists,         // it exists, is not empty, and was not to be replaced
  access_denied,       // the system does not allow this user to read or write it
  in_use,              // open elsewhere, in a way that excludes this opener
  cannot_open,         // none of these: too many open files, a failing device, ...

  // What the file holds
  not_a_database,        // it does not begin as a database does
  version_out_of_range,  // the version is not in 100 to 199
  directory_damaged,     // a table's slot, or the number of tables, is damaged
  chain_damaged,         // the records of a table cannot be followed; see Error::record_number
  data_damaged,          // a table's data block, or a payload, is not where it should be

  // What was asked for
  bad_name,        // a table name that is empty or holds a zero byte
  name_too_long,   // a table name of more than 32 bytes
  table_missing,   // no table has this name or identifier
  table_exists,    // a table has this name, or this identifier, already
  directory_full,  // 31 tables
  record_missing,  // no record, or no version of it, is there
  empty_payload,   // no operation throws this any more: a record can be changed to hold nothing
  too_large,       // more bytes than a record or a table's data can hold, or than memory can
  bad_argument,    // a value that the operation does not allow; the message says which

  // Reading and writing
  read_only,     // the database was opened for reading
  disk_full,     // no space on the device, or none within this user's limits
  cannot_read,   // the system could not read the file
  cannot_write,  // the system could not write the file

  not_open,   // the database was closed
  cancelled,  // the caller's progress function asked to stop

  appender_open,  // an appender or a writer is open that this would disturb: finish it first

  // Files again
  cannot_lock,            // the file system has no locks, so that other writers cannot be excluded
  read_only_file_system,  // nothing can be written where the file is, or would be
  size_limit,             // the file would be longer than this process, or the file system, allows

  // What the file holds again
  damaged,  // the operation would lose more than dead space; qvdb::check says what

  // What the caller holds is of an earlier state of the file: find it again. Or another process
  // changed the file again and again while it was read: do it again. Nothing is known to be
  // damaged.
  changed_meanwhile,

  opened_elsewhere,  // a child process got the database by fork: it can only read until reopen()

  key_exists,  // another record has a key that a unique KeyIndex allows once

  record_exists,  // a record of the table has this identifier already

  payload_damaged,  // a payload does not agree with its checksum: its bytes have changed
};

// The reason in a few words, for example "no such file".
QVDBASE_API std::string_view to_string(Reason reason) noexcept;

// Writes these words.
QVDBASE_API std::ostream& operator<<(std::ostream& out, Reason reason);

// What helps, where that is more than the reason says by itself.
enum class Remedy {
  usual,        // what helps against the reason
  mend,         // mend() completes what was interrupted; where it refuses, salvage() helps
  salvage,      // mend() has refused: salvage() writes what can be saved into a new file
  remove_link,  // a symbolic link that leads nowhere has the name: remove it, or take another name
  create_folder,    // a folder is missing: create it, or ask the operation to
  other_name,       // the name is taken, and the operation replaces nothing: choose another name
  other_folder,     // the same of a name in a folder for several files: choose another folder
  restore_payload,  // bytes have changed: take the payload from a copy of the file, and modify()
                    // the record to hold it; salvage() copies it as it is
};

// What else is known about a failure. Each may be empty.
struct ErrorDetails {
  std::filesystem::path path;             // the file that it is about, as the caller named it
  std::string table;                      // the table's name, or what was given for one
  std::error_code system_code;            // as Error::system_code()
  std::optional<uint64_t> record_number;  // as Error::record_number()
  Remedy remedy = Remedy::usual;          // as Error::remedy()
  std::optional<int64_t> position = {};   // as Error::position()
};

// A failed operation. what() is one sentence in English that names the file; names of tables and
// files are in it unchanged, control characters included.
class QVDBASE_API Error : public std::runtime_error {
 public:
  // Makes an error.
  //
  // operation  what was tried, for example "open the database"; must outlive the error, as a
  //            literal does
  // reason     why it failed
  // message    what() returns it
  // details    what else is known
  Error(const char* operation, Reason reason, const std::string& message,
        ErrorDetails details = {});
  Error(const Error&) noexcept;             // a copy, which cannot fail
  Error& operator=(const Error&) noexcept;  // a copy, which cannot fail
  ~Error() override;                        // frees what no copy needs any more

  // What was tried, for example "open the database".
  const char* operation() const noexcept { return operation_; }

  // Why it failed.
  Reason reason() const noexcept { return reason_; }

  // The file, as the caller named it; empty where the operation has none.
  const std::filesystem::path& path() const noexcept { return details_->path; }

  // The name of the table in which it failed; empty where it does not concern one table. With
  // table_missing: the name or identifier that was looked for.
  const std::string& table() const noexcept { return details_->table; }

  // The system's own code, where a call to the system failed and its code is known. Of
  // std::system_category(): comparable with std::errc.
  std::error_code system_code() const noexcept { return details_->system_code; }

  // With chain_damaged: the first record that cannot be read, counted from 1 in the order of the
  // chain, where the operation got that far.
  std::optional<uint64_t> record_number() const noexcept { return details_->record_number; }

  // What helps, where that is more than the reason says by itself.
  Remedy remedy() const noexcept { return details_->remedy; }

  // With payload_damaged: where the record's block is in the file.
  std::optional<int64_t> position() const noexcept { return details_->position; }

 private:
  const char* operation_;
  Reason reason_;
  std::shared_ptr<const ErrorDetails> details_;  // shared, so that copying an error never fails
};

}  // namespace qvdb
