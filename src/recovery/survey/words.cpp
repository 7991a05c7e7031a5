#include "recovery/survey/words.h"

#include <qvdbase/qvdb/id.hpp>

namespace qvdbase::survey {

std::string hexDigits(unsigned char byte) {
  static constexpr char kDigits[] = "0123456789abcdef";
  return {kDigits[byte >> 4], kDigits[byte & 15]};
}

std::string shown(const std::string& name) {
  std::string result = "'";
  for (const char each : name) {
    const auto byte = static_cast<unsigned char>(each);
    if (byte < 0x20 || byte == 0x7F) {
      result += "\\x" + hexDigits(byte);
    } else {
      if (each == '\'' || each == '\\') result += '\\';
      result += each;
    }
  }
  return result + '\'';
}

std::string shownId(uint64_t id) {
  return qvdb::to_string(qvdb::Id{id});
}

}  // namespace qvdbase::survey
