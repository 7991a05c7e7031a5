// qvdb::Error and the words for its reasons.
#include <qvdbase/qvdb/error.hpp>

#include <ostream>
#include <utility>

namespace qvdb {

namespace {

struct Words {
  Reason reason;
  std::string_view words;
};

constexpr Words kWords[] = {{Reason::path_not_reachable, "path not reachable"},
                            {Reason::no_such_file, "no such file"},
                            {Reason::not_a_file, "not a file"},
                            {Reason::file_exists, "the file exists"},
                            {Reason::access_denied, "access denied"},
                            {Reason::in_use, "in use"},
                            {Reason::cannot_open, "cannot be opened"},
                            {Reason::not_a_database, "not a database"},
                            {Reason::version_out_of_range, "version out of range"},
                            {Reason::directory_damaged, "table directory damaged"},
                            {Reason::chain_damaged, "chain of records damaged"},
                            {Reason::data_damaged, "data damaged"},
                            {Reason::bad_name, "not a name for a table"},
                            {Reason::name_too_long, "name too long"},
                            {Reason::table_missing, "no such table"},
                            {Reason::table_exists, "the table exists"},
                            {Reason::directory_full, "the directory is full"},
                            {Reason::record_missing, "no such record"},
                            {Reason::empty_payload, "empty payload"},
                            {Reason::too_large, "too large"},
                            {Reason::bad_argument, "bad argument"},
                            {Reason::read_only, "opened for reading only"},
                            {Reason::disk_full, "disk full"},
                            {Reason::cannot_read, "cannot be read"},
                            {Reason::cannot_write, "cannot be written"},
                            {Reason::not_open, "not open"},
                            {Reason::cancelled, "cancelled"},
                            {Reason::appender_open, "an appender is open"},
                            {Reason::cannot_lock, "cannot be locked"},
                            {Reason::read_only_file_system, "read-only file system"},
                            {Reason::size_limit, "too long for the limits of the system"},
                            {Reason::damaged, "damaged"},
                            {Reason::changed_meanwhile, "changed meanwhile"},
                            {Reason::opened_elsewhere, "opened by another process"},
                            {Reason::key_exists, "the key exists"},
                            {Reason::record_exists, "the record exists"},
                            {Reason::payload_damaged, "payload damaged"}};

}  // namespace

std::string_view to_string(Reason reason) noexcept {
  for (const Words& each : kWords) {
    if (each.reason == reason) return each.words;
  }
  return "unknown reason";
}

std::ostream& operator<<(std::ostream& out, Reason reason) {
  return out << to_string(reason);
}

Error::Error(const char* operation, Reason reason, const std::string& message, ErrorDetails details)
    : std::runtime_error(message),
      operation_(operation),
      reason_(reason),
      details_(std::make_shared<const ErrorDetails>(std::move(details))) {}

Error::Error(const Error&) noexcept = default;
Error& Error::operator=(const Error&) noexcept = default;
Error::~Error() = default;

}  // namespace qvdb
