// Live records, one by one: R4, R11 to R15. T4, the same of a block of table data.
#include <algorithm>
#include <tuple>

#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

constexpr int64_t kDay = 24 * 60 * 60;
constexpr int64_t kTimesBeginAnew = int64_t{1} << 32;  // in 2106

About about(const Survey& survey, const Block& block, int64_t field) {
  return inBlock(survey.slotAt(block.slot), block, field);
}

void checkIdentifier(const Survey& survey, const Block& block, Findings* findings) {
  const auto report = [&](const char* what) {
    findings->error("R4", about(survey, block, record::kRecordID), "The record at ", block.position,
                    what);
  };
  if (block.flaws & kWrongIdSum) report(" has an identifier with a wrong sum.");
  if (block.flaws & kZeroId) report(" has the identifier zero.");
}

void checkTimes(const Survey& survey, const Block& block, int64_t latest, Findings* findings) {
  const auto report = [&](const char* what) {
    findings->warning("R14", about(survey, block, record::kCreateTime), "The record at ",
                      block.position, what);
  };
  if (block.createTime == 0 || block.modifyTime == 0) {
    report(" has a time of zero.");
  } else if (block.createTime > block.modifyTime) {
    const bool isWrapped = int64_t{block.modifyTime} + kTimesBeginAnew <= latest;
    report(isWrapped ? " was created before and modified after the 32-bit times began anew."
                     : " was modified before it was created.");
  } else if (block.modifyTime > latest) {
    report(" has a time in the future.");
  }
}

void checkDuplicates(const Survey& survey, std::vector<const Block*> live, Findings* findings) {
  std::sort(live.begin(), live.end(), [](const Block* a, const Block* b) {
    return std::tie(a->recordID, a->owner, a->position) <
           std::tie(b->recordID, b->owner, b->position);
  });
  uint64_t inTwoTables = 0;
  const Block* example = nullptr;
  for (size_t i = 1; i < live.size(); ++i) {
    const Block& before = *live[i - 1];
    const Block& here = *live[i];
    if (before.recordID != here.recordID) continue;
    if (before.owner == here.owner) {
      findings->warning("R15", about(survey, here, record::kRecordID), "The records at ",
                        before.position, " and ", here.position, " have the same identifier ",
                        shownId(here.recordID), ".");
    } else {
      ++inTwoTables;
      if (example == nullptr) example = &here;
    }
  }
  if (example == nullptr) return;
  findings->information(
      "R15", about(survey, *example, record::kRecordID), counted(inTwoTables, "record identifier"),
      " occurs in more than one table, ", shownId(example->recordID), " for one.");
}

}  // namespace

void checkRecords(const Survey& survey, int64_t now, Findings* findings) {
  std::vector<const Block*> live;
  for (const Block& block : survey.blocks) {
    if (block.kind != BlockKind::record || !block.isReached()) continue;
    checkIdentifier(survey, block, findings);
    checkExtent(survey, survey.slotAt(block.slot), block, findings);
    if (block.label != Label::live) continue;
    checkTimes(survey, block, now + kDay, findings);
    live.push_back(&block);
  }
  checkDuplicates(survey, std::move(live), findings);
}

std::vector<uint64_t> sortedRecords(const Survey& survey, std::span<const uint32_t> blocks) {
  std::vector<uint64_t> records;
  for (const uint32_t number : blocks) records.push_back(survey.blocks[number].recordID);
  std::sort(records.begin(), records.end());
  return records;
}

void checkExtent(const Survey& survey, const Slot* slot, const Block& block, Findings* findings) {
  if ((block.flaws & (kLengthAboveCapacity | kBeyondEnd | kNoEndMark)) == 0) return;
  const bool isRecord = block.kind == BlockKind::record;
  const std::string subject =
      isRecord ? joined("The record at ", block.position) : "The table data";
  if (block.flaws & kLengthAboveCapacity) {
    const int64_t field = isRecord ? record::kDataLength : tabledata::kDataLength;
    findings->error(isRecord ? "R11" : "T4", inBlock(slot, block, field), subject, " claims ",
                    counted(block.length, "byte"), isRecord ? " of data" : "", " in a capacity of ",
                    block.capacity, ".");
  }
  const int64_t end = block.claimedEnd();
  if (block.flaws & kBeyondEnd) {
    findings->error(isRecord ? "R12" : "T4", inBlock(slot, block), subject, " would end at ", end,
                    ", beyond the end of the file at ", survey.size, ".");
  } else if (block.flaws & kNoEndMark) {
    findings->error(isRecord ? "R13" : "T4", inBlock(slot, block, end - 1 - block.position),
                    subject, " has no end mark at ", end - 1, ".");
  }
}

}  // namespace qvdbase::check
