// All findings are counted, and reported up to a limit for each code and table.
#include "recovery/check/findings.h"

#include "format/Aliment8.h"
#include "format/identifiers.h"

namespace qvdbase::check {

void Check::add(qvdb::Severity severity, const char* code, const About& about,
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

}  // namespace qvdbase::check
