// Identifiers as text.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/id.hpp>

#include <charconv>
#include <ostream>

#include "support/seeded_hash.h"

using namespace qvdbase;

namespace qvdb {

Id new_id() {
  Id id;
  GenerateUuID_Int64(&id.value);
  return id;
}

std::string to_string(Id id) {
  std::string text = "0x0000000000000000";
  uint64_t rest = id.value;
  for (size_t i = text.size() - 1; i >= 2; --i) {
    text[i] = "0123456789abcdef"[rest & 15];
    rest >>= 4;
  }
  return text;
}

std::optional<Id> parse_id(std::string_view text) noexcept {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  if (isHex && text.size() > 16) return std::nullopt;
  Id id;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, id.value, isHex ? 16 : 10);
  if (error != std::errc() || stopped != end) return std::nullopt;
  return id;
}

std::ostream& operator<<(std::ostream& out, Id id) {
  return out << to_string(id);
}

size_t detail::hashOf(Id id) noexcept {
  return support::SeededHash()(id.value);
}

}  // namespace qvdb
