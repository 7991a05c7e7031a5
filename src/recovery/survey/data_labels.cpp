#include "recovery/survey/data_labels.h"

#include <vector>

namespace qvdbase::survey {
namespace {

Label labelOf(const Survey& survey, const Block& data, const Block* current, const Block* newest) {
  if (data.reach & kAsData) return Label::live;
  if (current != nullptr) {
    return data.position > current->position ? Label::unlinked : Label::superseded;
  }
  if (&data != newest) return data.grade == Grade::a ? Label::superseded : Label::unlinked;
  const Slot* const slot = survey.ownerSlot(data);
  const bool wasNeverSet = slot != nullptr && slot->fields.firstDataPos == 0;
  return wasNeverSet ? Label::unlinked : Label::detached;
}

}  // namespace

void labelTableData(Survey* survey) {
  std::vector<const Block*> current(survey->owners.size(), nullptr);
  std::vector<Block*> newest(survey->owners.size(), nullptr);
  for (Block& each : survey->blocks) {
    if (each.kind != BlockKind::tableData) continue;
    if (each.reach & kAsData) current[each.owner] = &each;
    Block*& candidate = newest[each.owner];
    const bool isBetter = candidate == nullptr || each.grade < candidate->grade ||
                          (each.grade == candidate->grade && each.position > candidate->position);
    if (isBetter) candidate = &each;
  }
  for (Block& each : survey->blocks) {
    if (each.kind != BlockKind::tableData) continue;
    each.label = labelOf(*survey, each, current[each.owner], newest[each.owner]);
  }
}

}  // namespace qvdbase::survey
