// One table's data: T1 to T5.
#include <algorithm>

#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void checkPointer(const Survey& survey, const Table& table, const Slot& slot, Findings* findings) {
  const About about = inSlot(slot, slot::kFirstDataPos);
  const std::string where = joined("The position of the table data, ", slot.fields.firstDataPos);
  if (table.dataState == DataState::outside) {
    findings->error("T1", about, where, ", is no place where a block can be.");
  } else if (table.dataState == DataState::otherTable) {
    findings->error("T2", about, where, ", is that of another table's data.");
  } else {
    findings->error("T2", about, where, ", is not that of a block of table data.");
  }
  // A sound block that the slot should point to.
  const auto lost =
      std::find_if(survey.blocks.begin(), survey.blocks.end(), [&](const Block& block) {
        return block.kind == BlockKind::tableData && block.owner == table.owner &&
               block.label == Label::detached && block.grade == Grade::a;
      });
  if (lost == survey.blocks.end()) return;
  findings->error("T3", inBlock(&slot, *lost), "A sound block of ", counted(lost->length, "byte"),
                  " of this table's data lies at ", lost->position, ", and nothing points to it.");
}

// Data that is written over older data has an end mark of its own after it; data that was written
// with spare capacity has fill there.
void checkInnerMark(const ByteSource& source, const Block& block, const Slot& slot,
                    Findings* findings) {
  if (block.length >= block.capacity || block.flaws != 0) return;
  unsigned char byte = 0;
  const int64_t position = block.dataPos() + block.length;
  if (source.readAt(position, &byte, 1) != 1 || byte == kBlockEndMark || byte == 0) return;
  findings->information("T5", {.slot = &slot, .offset = position},
                        "There is no end mark directly after the table data.");
}

}  // namespace

void checkTableData(const ByteSource& source, const Survey& survey, const Table& table,
                    Findings* findings) {
  const Slot& slot = survey.slotOf(table);
  if (table.dataState == DataState::none) return;
  if (table.dataState != DataState::sound) return checkPointer(survey, table, slot, findings);
  const Block& block = survey.blocks[table.dataBlock];
  checkExtent(survey, &slot, block, findings);
  checkInnerMark(source, block, slot, findings);
}

}  // namespace qvdbase::check
