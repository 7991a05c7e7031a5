// One table's data: T1 to T5.
#include <algorithm>

#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void checkPointer(Check& check, const Table& table, const Slot& slot) {
  const char* const what =
      table.dataState == DataState::outside      ? ", is no place where a block can be."
      : table.dataState == DataState::otherTable ? ", is that of another table's data."
                                                 : ", is not that of a block of table data.";
  check.error(table.dataState == DataState::outside ? "T1" : "T2",
              inSlot(slot, slot::kFirstDataPos), "The position of the table data, ",
              slot.fields.firstDataPos, what);
  // A sound block that the slot should point to.
  const std::vector<Block>& blocks = check.survey.blocks;
  const auto lost = std::ranges::find_if(blocks, [&](const Block& block) {
    return block.kind == BlockKind::tableData && block.owner == table.owner &&
           block.label == Label::detached && block.grade == Grade::a;
  });
  if (lost == blocks.end()) return;
  check.error("T3", inBlock(&slot, *lost), "A sound block of ", counted(lost->length, "byte"),
              " of this table's data lies at ", lost->position, ", and nothing points to it.");
}

// Data that is written over older data has an end mark of its own after it; data that was written
// with spare capacity has fill there.
void checkInnerMark(Check& check, const Block& block, const Slot& slot) {
  if (block.length >= block.capacity || block.flaws != 0) return;
  unsigned char byte = 0;
  const int64_t position = block.dataPos() + block.length;
  if (check.source.readAt(position, &byte, 1) != 1 || byte == kBlockEndMark || byte == 0) return;
  check.information("T5", {.slot = &slot, .offset = position},
                    "There is no end mark directly after the table data.");
}

}  // namespace

void checkTableData(Check& check, const Table& table) {
  const Slot& slot = check.survey.slotOf(table);
  if (table.dataState == DataState::none) return;
  if (table.dataState != DataState::sound) return checkPointer(check, table, slot);
  const Block& block = check.survey.blocks[table.dataBlock];
  checkExtent(check, &slot, block);
  checkInnerMark(check, block, slot);
}

}  // namespace qvdbase::check
