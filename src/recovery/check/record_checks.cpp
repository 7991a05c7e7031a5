// Live records, one by one: R4, R11 to R15. T4, the same of a block of table data.
#include <algorithm>
#include <tuple>
#include <utility>

#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

constexpr int64_t kDay = 24 * 60 * 60;
constexpr int64_t kTimesBeginAnew = int64_t{1} << 32;  // in 2106

About about(const Check& check, const Block& block, int64_t field) {
  return inBlock(check.survey.slotAt(block.slot), block, field);
}

void checkIdentifier(Check& check, const Block& block) {
  const auto report = [&](const char* what) {
    check.error("R4", about(check, block, record::kRecordID), "The record at ", block.position,
                what);
  };
  if (block.flaws & kWrongIdSum) report(" has an identifier with a wrong sum.");
  if (block.flaws & kZeroId) report(" has the identifier zero.");
}

void checkTimes(Check& check, const Block& block, int64_t latest) {
  const auto report = [&](const char* what) {
    check.warning("R14", about(check, block, record::kCreateTime), "The record at ", block.position,
                  what);
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

// Whether two of these can have the same identifier, as far as that is known without a search.
bool mayBeDuplicates(const Survey& survey, const std::vector<const Block*>& live) {
  return survey.hasEqualRecords || std::ranges::any_of(live, [&](const Block* each) {
           return each->owner != live.front()->owner;
         });
}

void checkDuplicates(Check& check, std::vector<const Block*> live) {
  if (!mayBeDuplicates(check.survey, live)) return;
  std::ranges::sort(live, {}, [](const Block* each) {
    return std::tuple(each->recordID, each->owner, each->position);
  });
  uint64_t inTwoTables = 0;
  const Block* example = nullptr;
  for (size_t i = 1; i < live.size(); ++i) {
    const Block& before = *live[i - 1];
    const Block& here = *live[i];
    if (before.recordID != here.recordID) continue;
    if (before.owner == here.owner) {
      check.warning("R15", about(check, here, record::kRecordID), "The records at ",
                    before.position, " and ", here.position, " have the same identifier ",
                    shownId(here.recordID), ".");
    } else {
      ++inTwoTables;
      if (example == nullptr) example = &here;
    }
  }
  if (example == nullptr) return;
  check.information("R15", about(check, *example, record::kRecordID),
                    counted(inTwoTables, "record identifier"), " occurs in more than one table, ",
                    shownId(example->recordID), " for one.");
}

}  // namespace

void checkRecords(Check& check, int64_t now) {
  std::vector<const Block*> live;
  for (const Block& block : check.survey.blocks) {
    if (block.kind != BlockKind::record || !block.isReached()) continue;
    checkIdentifier(check, block);
    checkExtent(check, check.survey.slotAt(block.slot), block);
    if (block.label != Label::live) continue;
    checkTimes(check, block, now + kDay);
    live.push_back(&block);
  }
  checkDuplicates(check, std::move(live));
}

std::vector<uint64_t> sortedRecords(const Survey& survey, std::span<const uint32_t> blocks) {
  std::vector<uint64_t> records;
  for (const uint32_t number : blocks) records.push_back(survey.blocks[number].recordID);
  std::ranges::sort(records);
  return records;
}

void checkExtent(Check& check, const Slot* slot, const Block& block) {
  if ((block.flaws & (kLengthAboveCapacity | kBeyondEnd | kNoEndMark)) == 0) return;
  const bool isRecord = block.kind == BlockKind::record;
  const std::string subject =
      isRecord ? joined("The record at ", block.position) : "The table data";
  const auto report = [&](const char* code, int64_t field, const auto&... what) {
    check.error(isRecord ? code : "T4", inBlock(slot, block, field), subject, what...);
  };
  if (block.flaws & kLengthAboveCapacity) {
    report("R11", isRecord ? record::kDataLength : tabledata::kDataLength, " claims ",
           counted(block.length, "byte"), isRecord ? " of data" : "", " in a capacity of ",
           block.capacity, ".");
  }
  const int64_t end = block.claimedEnd();
  if (block.flaws & kBeyondEnd) {
    report("R12", 0, " would end at ", end, ", beyond the end of the file at ", check.survey.size,
           ".");
  } else if (block.flaws & kNoEndMark) {
    report("R13", end - 1 - block.position, " has no end mark at ", end - 1, ".");
  }
}

}  // namespace qvdbase::check
