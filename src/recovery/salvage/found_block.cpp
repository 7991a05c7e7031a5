// Blocks as the public interface describes them.
#include <qvdbase/qvdb/salvage.hpp>

#include "format/Aliment8.h"
#include "recovery/salvage/plan.h"

using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

qvdb::BlockLabel publicLabel(Label label) {
  switch (label) {
    case Label::live:
      return qvdb::BlockLabel::live;
    case Label::superseded:
      return qvdb::BlockLabel::superseded;
    case Label::unfinishedRelocation:
      return qvdb::BlockLabel::unfinished;
    case Label::deleted:
      return qvdb::BlockLabel::deleted;
    case Label::unlinked:
      return qvdb::BlockLabel::unlinked;
    case Label::deletedOrUnlinked:
      return qvdb::BlockLabel::deleted_or_unlinked;
    case Label::detached:
    case Label::none:
      break;
  }
  return qvdb::BlockLabel::lost;
}

}  // namespace

qvdb::FoundBlock describe(const Survey& survey, uint32_t number) {
  const Block& block = survey.blocks[number];
  const Owner& owner = survey.owners[block.owner];
  qvdb::FoundBlock found;
  found.is_table_data = block.kind == BlockKind::tableData;
  found.label = publicLabel(block.label);
  found.grade = static_cast<qvdb::BlockGrade>(block.grade);
  if (block.isReached() && block.flaws != 0) found.grade = qvdb::BlockGrade::b;
  found.is_orphan = owner.slot == kNoSlot;
  found.table.value = owner.number;
  if (!found.is_orphan) {
    found.table_name = format::storedName(survey.slotAt(owner.slot)->fields);
  }
  found.record.value = block.recordID;
  found.offset = block.position;
  found.length = block.length;
  found.there = static_cast<uint64_t>(block.dataThere());
  found.capacity = block.capacity;
  found.create_time = block.createTime;
  found.modify_time = block.modifyTime;
  return found;
}

}  // namespace qvdbase::salvage
