// Blocks as the public interface describes them.
#include <qvdbase/qvdb/salvage.hpp>

#include "format/Aliment8.h"
#include "recovery/salvage/plan.h"

using namespace qvdbase::survey;
using qvdb::BlockGrade;
using qvdb::BlockLabel;

static_assert(static_cast<int>(Label::live) == static_cast<int>(BlockLabel::live));
static_assert(static_cast<int>(Label::deletedOrUnlinked) ==
              static_cast<int>(BlockLabel::deleted_or_unlinked));

namespace {

BlockLabel labelOf(const Block& block) {
  if (block.label == Label::none) return BlockLabel::lost;
  // Its transaction was interrupted.
  if (block.label == Label::uncommitted) return BlockLabel::unlinked;
  return static_cast<BlockLabel>(block.label);
}

}  // namespace

qvdb::FoundBlock qvdbase::salvage::describe(const Survey& survey, uint32_t number) {
  const Block& block = survey.blocks[number];
  const Slot* const slot = survey.ownerSlot(block);
  const bool isFlawed = block.isReached() && block.flaws != 0;
  qvdb::FoundBlock found;
  found.is_table_data = block.kind == BlockKind::tableData;
  found.label = labelOf(block);
  found.grade = isFlawed ? BlockGrade::b : static_cast<BlockGrade>(block.grade);
  found.is_orphan = slot == nullptr;
  found.table.value = survey.owners[block.owner].number;
  if (slot != nullptr) found.table_name = format::storedName(slot->fields);
  found.record.value = block.recordID;
  found.offset = block.position;
  found.length = block.length;
  found.there = static_cast<uint64_t>(block.dataThere());
  found.capacity = block.capacity;
  found.create_time = block.createTime;
  found.modify_time = block.modifyTime;
  found.is_trimmed = block.isTrimmed;
  return found;
}

std::string_view qvdb::to_string(BlockLabel label) noexcept {
  constexpr std::string_view kNames[] = {"live",    "lost",     "superseded",         "unfinished",
                                         "deleted", "unlinked", "deleted or unlinked"};
  const auto number = static_cast<size_t>(label);
  return number < std::size(kNames) ? kNames[number] : "";
}
