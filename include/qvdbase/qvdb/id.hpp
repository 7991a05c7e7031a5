// qvdb::Id: the identifier of a database, a table or a record.
#ifndef QVDBASE_QVDB_ID_HPP
#define QVDBASE_QVDB_ID_HPP

#include <qvdbase/base.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qvdb {

// An identifier, a 64-bit number of its own type so that it is not mistaken for a size or a count.
// The C functions take and return its value.
struct Id {
  std::uint64_t value = 0;

  friend constexpr auto operator<=>(Id, Id) = default;
};

// A new identifier, as new records get one by themselves.
QVDBASE_API Id new_id();

// "0x" and 16 hexadecimal digits.
QVDBASE_API std::string to_string(Id id);

// Reads "0x" and 1 to 16 hexadecimal digits of either case, or a decimal number below 2^64. Nothing
// when the text is anything else.
QVDBASE_API std::optional<Id> parse_id(std::string_view text) noexcept;

}  // namespace qvdb

template <>
struct std::hash<qvdb::Id> {
  std::size_t operator()(qvdb::Id id) const noexcept {
    // Identifiers made in the same second differ in few of their low bits.
    return static_cast<std::size_t>((id.value ^ (id.value >> 32)) * 0x9E3779B97F4A7C15u);
  }
};

#endif
