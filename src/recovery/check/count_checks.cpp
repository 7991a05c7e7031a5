// A slot's numbers and positions beside each other: D6 to D9 and R16.
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void checkEnds(const Slot& slot, Findings* findings) {
  const tablePart1& fields = slot.fields;
  const bool isEmpty = fields.recordCount == 0;
  const auto check = [&](int offset, int64_t position, const char* what) {
    if (isEmpty == (position == 0)) return;
    findings->error("D6", inSlot(slot, offset), "The slot counts ",
                    counted(fields.recordCount, "record"), ", but ",
                    isEmpty ? "has the position of a " : "the position of the ", what,
                    isEmpty ? " one." : " one is zero.");
  };
  check(slot::kFirstRecordPos, fields.firstRecordPos, "first");
  check(slot::kLastRecordPos, fields.lastRecordPos, "last");
  if (isEmpty && fields.lastWrittenRecordPos != 0) {
    findings->warning("D6", inSlot(slot, slot::kLastWrittenRecordPos),
                      "The table is empty, but has the position of a last written record.");
  }
}

void checkLastWritten(const Survey& survey, const Table& table, const Slot& slot,
                      Findings* findings) {
  const int64_t position = slot.fields.lastWrittenRecordPos;
  if (slot.fields.recordCount == 0) return;
  const About about = inSlot(slot, slot::kLastWrittenRecordPos);
  const Block* const block = survey.blockAt(position);
  if (block == nullptr || block->owner != table.owner || block->kind != BlockKind::record) {
    findings->warning("D7", about, "The position of the last written record, ", position,
                      ", is not that of a record of the table.");
  } else if (block->label != Label::live) {
    findings->information(
        "R16", about,
        "The last written record is no longer in the chain, as happens when it was moved.");
  }
}

void checkDataCounts(const Slot& slot, Findings* findings) {
  const tablePart1& fields = slot.fields;
  const About about = inSlot(slot, slot::kDataBlockCount);
  const bool hasData = fields.firstDataPos != 0;
  if (hasData != (fields.dataBlockCount != 0) || (hasData && fields.dataWriteCount == 0)) {
    findings->warning("D9", about, "The slot counts ", counted(fields.dataBlockCount, "block"),
                      " of table data, ", fields.dataWriteCount,
                      " written; the position of the first is ", fields.firstDataPos, ".");
  }
  if (fields.lastWrittenDataPos != fields.firstDataPos ||
      fields.lastDataPos != fields.firstDataPos) {
    findings->warning("D9", about, "The three positions of the table data are not the same.");
  }
}

}  // namespace

void checkCounts(const Survey& survey, const Table& table, Findings* findings) {
  const Slot& slot = survey.slotOf(table);
  checkEnds(slot, findings);
  checkLastWritten(survey, table, slot, findings);
  if (slot.fields.recordCount > slot.fields.recordWriteCount) {
    findings->warning("D8", inSlot(slot, slot::kRecordCount), "The slot counts ",
                      counted(slot.fields.recordCount, "record"), ", but only ",
                      slot.fields.recordWriteCount, " were ever added.");
  }
  checkDataCounts(slot, findings);
}

}  // namespace qvdbase::check
