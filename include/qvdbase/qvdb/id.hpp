// qvdb::Id: the identifier of a database, a table or a record.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/cpp20.hpp>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace qvdb {

// An identifier, a 64-bit number of its own type so that it is not mistaken for a size or a count.
// The C functions take and return its value.
struct Id {
  uint64_t value = 0;  // 0 means none

  // Compares the values.
  friend constexpr auto operator<=>(Id, Id) = default;
};

// A new identifier, as AddRecordData makes one for each record.
QVDBASE_API Id new_id();

// The identifier as text: "0x" and 16 hexadecimal digits.
QVDBASE_API std::string to_string(Id id);

// Reads "0x" and 1 to 16 hexadecimal digits of either case, or a decimal number below 2^64. Nothing
// when the text is anything else.
QVDBASE_API std::optional<Id> parse_id(std::string_view text) noexcept;

// Writes an identifier as to_string() does.
QVDBASE_API std::ostream& operator<<(std::ostream& out, Id id);

namespace detail {
QVDBASE_API size_t hashOf(Id id) noexcept;
}

}  // namespace qvdb

// For unordered containers.
template <>
struct std::hash<qvdb::Id> {
  // A hash that differs in each process: identifiers come from files, whose makers could otherwise
  // choose them so that all fall into one bucket.
  size_t operator()(qvdb::Id id) const noexcept { return qvdb::detail::hashOf(id); }
};
