// A slot's numbers and positions beside each other: D6 to D9 and R16.
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

void checkEnds(const Slot& slot, Findings* findings) {
  const tablePart1& fields = slot.fields;
  const auto report = [&](int offset, const char* what) {
    findings->error(
        "D6", {.slot = &slot, .offset = slot.position + offset},
        "The slot counts " + counted(fields.recordCount, "record") + ", but " + what + ".");
  };
  const bool isEmpty = fields.recordCount == 0;
  if (isEmpty && fields.firstRecordPos != 0) {
    report(slot::kFirstRecordPos, "has the position of a first one");
  } else if (!isEmpty && fields.firstRecordPos == 0) {
    report(slot::kFirstRecordPos, "the position of the first one is zero");
  }
  if (isEmpty && fields.lastRecordPos != 0) {
    report(slot::kLastRecordPos, "has the position of a last one");
  } else if (!isEmpty && fields.lastRecordPos == 0) {
    report(slot::kLastRecordPos, "the position of the last one is zero");
  }
  if (isEmpty && fields.lastWrittenRecordPos != 0) {
    findings->warning("D6", {.slot = &slot, .offset = slot.position + slot::kLastWrittenRecordPos},
                      "The table is empty, but has the position of a last written record.");
  }
}

void checkLastWritten(const Survey& survey, const Table& table, const Slot& slot,
                      Findings* findings) {
  const int64_t position = slot.fields.lastWrittenRecordPos;
  if (slot.fields.recordCount == 0) return;
  const About about = {.slot = &slot, .offset = slot.position + slot::kLastWrittenRecordPos};
  const uint32_t number = survey.byPosition.find(position);
  const bool isOwn = number != kNoBlock && survey.blocks[number].owner == table.owner &&
                     survey.blocks[number].kind == BlockKind::record;
  if (!isOwn) {
    findings->warning("D7", about,
                      "The position of the last written record, " + std::to_string(position) +
                          ", is not that of a record of the table.");
  } else if (survey.blocks[number].label != Label::live) {
    findings->information("R16", about,
                          "The last written record is no longer in the chain, as happens when it "
                          "was moved.");
  }
}

void checkDataCounts(const Slot& slot, Findings* findings) {
  const tablePart1& fields = slot.fields;
  const About about = {.slot = &slot, .offset = slot.position + slot::kDataBlockCount};
  const bool hasData = fields.firstDataPos != 0;
  if (hasData != (fields.dataBlockCount != 0) || (hasData && fields.dataWriteCount == 0)) {
    findings->warning("D9", about,
                      "The slot counts " + counted(fields.dataBlockCount, "block") +
                          " of table data, " + std::to_string(fields.dataWriteCount) +
                          " written; the position of the first is " +
                          std::to_string(fields.firstDataPos) + ".");
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
    findings->warning("D8", {.slot = &slot, .offset = slot.position + slot::kRecordCount},
                      "The slot counts " + counted(slot.fields.recordCount, "record") +
                          ", but only " + std::to_string(slot.fields.recordWriteCount) +
                          " were ever added.");
  }
  checkDataCounts(slot, findings);
}

}  // namespace qvdbase::check
