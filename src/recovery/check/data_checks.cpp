// One table's data: T1 to T5.
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

// The sound block of the table's data that its slot should point to.
const Block* lostData(const Survey& survey, const Table& table) {
  for (const Block& block : survey.blocks) {
    if (block.kind == BlockKind::tableData && block.owner == table.owner &&
        block.label == Label::detached && block.grade == Grade::a) {
      return &block;
    }
  }
  return nullptr;
}

void checkPointer(const Survey& survey, const Table& table, const Slot& slot, Findings* findings) {
  const int64_t position = slot.fields.firstDataPos;
  const About about = {.slot = &slot, .offset = slot.position + slot::kFirstDataPos};
  const std::string where = "The position of the table data, " + std::to_string(position) + ", ";
  if (table.dataState == DataState::outside) {
    findings->error("T1", about, where + "is no place where a block can be.");
  } else {
    findings->error("T2", about,
                    where + (table.dataState == DataState::otherTable
                                 ? "is that of another table's data."
                                 : "is not that of a block of table data."));
  }
  if (const Block* lost = lostData(survey, table)) {
    findings->error("T3", {.slot = &slot, .offset = lost->position},
                    "A sound block of " + counted(lost->length, "byte") +
                        " of this table's data lies at " + std::to_string(lost->position) +
                        ", and nothing points to it.");
  }
}

void checkBlock(const Survey& survey, const Block& block, const Slot& slot, Findings* findings) {
  const auto report = [&](int64_t offset, std::string text) {
    findings->error("T4", {.slot = &slot, .offset = offset}, std::move(text));
  };
  if (block.flaws & kLengthAboveCapacity) {
    report(block.position + tabledata::kDataLength,
           "The table data claims " + counted(block.length, "byte") + " in a capacity of " +
               std::to_string(block.capacity) + ".");
  }
  if (block.flaws & kBeyondEnd) {
    report(block.position, "The table data would end at " + std::to_string(block.claimedEnd()) +
                               ", beyond the end of the file at " + std::to_string(survey.size) +
                               ".");
  } else if (block.flaws & kNoEndMark) {
    report(block.claimedEnd() - 1,
           "The table data has no end mark at " + std::to_string(block.claimedEnd() - 1) + ".");
  }
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
  checkBlock(survey, block, slot, findings);
  checkInnerMark(source, block, slot, findings);
}

}  // namespace qvdbase::check
