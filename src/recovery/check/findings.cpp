// Findings are counted all, and told up to a limit for each code and table.
#include "recovery/check/findings.h"

#include <qvdbase/qvdb/id.hpp>

#include "format/Aliment8.h"
#include "format/identifiers.h"

namespace qvdbase::check {

void Findings::add(qvdb::Severity severity, const char* code, const About& about,
                   std::string message) {
  ++counts_[static_cast<size_t>(severity)];
  const int slot = about.slot != nullptr ? about.slot->index : -1;
  Alike& alike = alike_[{code, slot, severity}];
  if (++alike.count > mostAlike_ && alike.count > 1) {
    ++findings_[alike.last].more;
    return;
  }
  alike.last = findings_.size();
  qvdb::Finding finding;
  finding.severity = severity;
  finding.code = code;
  finding.slot = slot;
  finding.table_id.value = about.tableID;
  if (about.slot != nullptr) {
    finding.table = format::storedName(about.slot->fields);
    qvdb::Id& id = finding.table_id;
    internal_ConvertUuID_2Int64(about.slot->fields.tableID, &id.value);
  }
  finding.record.value = about.record;
  finding.offset = about.offset;
  finding.message = std::move(message);
  findings_.push_back(std::move(finding));
}

std::string counted(uint64_t count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string counted(uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string shown(const std::string& name) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "'";
  for (const char each : name) {
    const auto byte = static_cast<unsigned char>(each);
    if (byte < 0x20 || byte == 0x7F) {
      text += "\\x";
      text += kDigits[byte >> 4];
      text += kDigits[byte & 15];
    } else {
      if (each == '\'' || each == '\\') text += '\\';
      text += each;
    }
  }
  return text + "'";
}

std::string shownId(uint64_t id) {
  return qvdb::to_string(qvdb::Id{id});
}

}  // namespace qvdbase::check
