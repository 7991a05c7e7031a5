// The words for what a checksum says.
#include <qvdbase/qvdb/checksum.hpp>

#include <ostream>

namespace qvdb {

std::string_view to_string(PayloadState state) noexcept {
  constexpr std::string_view kWords[] = {"verified", "unprotected", "changed elsewhere", "rotten"};
  const auto number = static_cast<size_t>(state);
  return number < std::size(kWords) ? kWords[number] : "unknown state";
}

std::ostream& operator<<(std::ostream& out, PayloadState state) {
  return out << to_string(state);
}

}  // namespace qvdb
