// qvdb::Error and the words for its reasons.
#include <qvdbase/qvdb/error.hpp>

#include <ostream>
#include <utility>

namespace qvdb {

std::string_view to_string(Reason reason) noexcept {
  switch (reason) {
    case Reason::path_not_reachable:
      return "path not reachable";
    case Reason::no_such_file:
      return "no such file";
    case Reason::not_a_file:
      return "not a file";
    case Reason::file_exists:
      return "the file exists";
    case Reason::access_denied:
      return "access denied";
    case Reason::in_use:
      return "in use";
    case Reason::cannot_open:
      return "cannot be opened";
    case Reason::not_a_database:
      return "not a database";
    case Reason::version_out_of_range:
      return "version out of range";
    case Reason::directory_damaged:
      return "table directory damaged";
    case Reason::chain_damaged:
      return "chain of records damaged";
    case Reason::data_damaged:
      return "data damaged";
    case Reason::bad_name:
      return "no name for a table";
    case Reason::name_too_long:
      return "name too long";
    case Reason::table_missing:
      return "no such table";
    case Reason::table_exists:
      return "the table exists";
    case Reason::directory_full:
      return "no room for another table";
    case Reason::record_missing:
      return "no such record";
    case Reason::empty_payload:
      return "empty payload";
    case Reason::too_large:
      return "too large";
    case Reason::bad_argument:
      return "bad argument";
    case Reason::read_only:
      return "opened for reading only";
    case Reason::disk_full:
      return "disk full";
    case Reason::cannot_read:
      return "cannot be read";
    case Reason::cannot_write:
      return "cannot be written";
    case Reason::not_open:
      return "not open";
    case Reason::cancelled:
      return "cancelled";
    case Reason::appender_open:
      return "an appender is open";
    case Reason::cannot_lock:
      return "cannot be locked";
    case Reason::read_only_file_system:
      return "read-only file system";
    case Reason::size_limit:
      return "too long for the limits of the system";
    case Reason::damaged:
      return "damaged";
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
