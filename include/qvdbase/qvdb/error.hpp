// qvdb::Error: what every operation of the C++ layer throws when it fails.
#ifndef QVDBASE_QVDB_ERROR_HPP
#define QVDBASE_QVDB_ERROR_HPP

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
// looking at the file afterwards, so another program that changes the file meanwhile can mislead
// it.
enum class Reason {
  // Paths and files
  path_not_reachable,  // no path that the library can take, or a folder on the way is not there
  no_such_file,
  not_a_file,     // a folder, a device, ...
  file_exists,    // create: it is there already and is not empty
  access_denied,  // the system does not let us read or write it
  in_use,         // open elsewhere, in a way that excludes this one
  cannot_open,    // none of these: too many open files, a failing device, ...

  // What the file holds
  not_a_database,        // it does not begin as a database does
  version_out_of_range,  // the version is not in 100 to 199
  directory_damaged,     // a table's slot, or the number of tables, is damaged
  chain_damaged,         // the records of a table cannot be followed; see Error::record_number
  data_damaged,          // a table's data block, or a payload, is not where it should be

  // What was asked for
  bad_name,  // a table name that is empty or holds a zero byte
  name_too_long,
  table_missing,
  table_exists,
  directory_full,  // 31 tables
  record_missing,
  empty_payload,  // no operation throws this any more: a record can be changed to hold nothing
  too_large,      // more bytes than a record or a table's data can hold, or than memory can
  bad_argument,

  // Writing
  read_only,  // the database was opened for reading
  disk_full,
  cannot_read,
  cannot_write,

  not_open,   // the database was closed
  cancelled,  // the caller's progress function asked to stop

  appender_open,  // an appender or a writer is open, and this would disturb it: finish it first

  // Files again
  cannot_lock,            // the file system has no locks, so that no writer could be kept out
  read_only_file_system,  // nothing can be written where the file is, or would be
  size_limit,             // the file would be longer than this process, or the file system, allows

  // What the file holds again
  damaged,  // what the operation would leave behind is more than dead space; see qvdb::check
};

// The reason in a few words, for example "no such file".
QVDBASE_API std::string_view to_string(Reason reason) noexcept;

// Writes these words.
QVDBASE_API std::ostream& operator<<(std::ostream& out, Reason reason);

// What else is known of a failure. Each may be empty.
struct ErrorDetails {
  std::filesystem::path path;  // the file that it is about, as the caller named it
  std::string table;           // the table's name, or what was given for one
  std::error_code system_code;
  std::optional<uint64_t> record_number;
};

// A failed operation. what() is one sentence in English that names the file; names of tables and
// files are in it unchanged, control characters included.
class QVDBASE_API Error : public std::runtime_error {
 public:
  // operation  what was tried, for example "open the database"; must outlive the error, as a
  //            literal does
  // message    what() returns it
  Error(const char* operation, Reason reason, const std::string& message,
        ErrorDetails details = {});
  Error(const Error&) noexcept;
  Error& operator=(const Error&) noexcept;
  ~Error() override;

  // What was tried.
  const char* operation() const noexcept { return operation_; }

  Reason reason() const noexcept { return reason_; }

  // The file, as the caller named it; empty where the operation has none.
  const std::filesystem::path& path() const noexcept { return details_->path; }

  // The name of the table in which it failed; empty where it is not about one table. With
  // table_missing: what was looked for, a name or an identifier.
  const std::string& table() const noexcept { return details_->table; }

  // The system's own code, where a call to the system failed and its code is known. Of
  // std::system_category(): comparable with std::errc.
  std::error_code system_code() const noexcept { return details_->system_code; }

  // With chain_damaged: the first record that cannot be read, counted from 1 in the order of the
  // chain, where the operation has come that far.
  std::optional<uint64_t> record_number() const noexcept { return details_->record_number; }

 private:
  const char* operation_;
  Reason reason_;
  std::shared_ptr<const ErrorDetails> details_;  // shared, so that copying an error never fails
};

}  // namespace qvdb

#endif
