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

class RecordChecks {
 public:
  RecordChecks(const Survey& survey, int64_t now, Findings* findings)
      : survey_(survey), latest_(now + kDay), findings_(*findings) {}

  void run() {
    std::vector<const Block*> live;
    for (const Block& block : survey_.blocks) {
      if (block.kind != BlockKind::record || !block.isReached()) continue;
      checkIdentifier(block);
      checkExtent(survey_, survey_.slotAt(block.slot), block, &findings_);
      if (block.label != Label::live) continue;
      checkTimes(block);
      live.push_back(&block);
    }
    checkDuplicates(std::move(live));
  }

 private:
  About about(const Block& block, int64_t field) const {
    return inBlock(survey_.slotAt(block.slot), block, field);
  }

  void checkIdentifier(const Block& block) {
    const auto report = [&](const char* what) {
      findings_.error("R4", about(block, record::kRecordID), "The record at ", block.position,
                      what);
    };
    if (block.flaws & kWrongIdSum) report(" has an identifier with a wrong sum.");
    if (block.flaws & kZeroId) report(" has the identifier zero.");
  }

  void checkTimes(const Block& block) {
    const auto report = [&](const char* what) {
      findings_.warning("R14", about(block, record::kCreateTime), "The record at ", block.position,
                        what);
    };
    if (block.createTime == 0 || block.modifyTime == 0) {
      report(" has a time of zero.");
    } else if (block.createTime > block.modifyTime) {
      const bool isWrapped = int64_t{block.modifyTime} + kTimesBeginAnew <= latest_;
      report(isWrapped ? " was created before and modified after the 32-bit times began anew."
                       : " was modified before it was created.");
    } else if (block.modifyTime > latest_) {
      report(" has a time in the future.");
    }
  }

  void checkDuplicates(std::vector<const Block*> live) {
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
        findings_.warning("R15", about(here, record::kRecordID), "The records at ", before.position,
                          " and ", here.position, " have the same identifier ",
                          shownId(here.recordID), ".");
      } else {
        ++inTwoTables;
        if (example == nullptr) example = &here;
      }
    }
    if (example == nullptr) return;
    findings_.information(
        "R15", about(*example, record::kRecordID), counted(inTwoTables, "record identifier"),
        " occurs in more than one table, ", shownId(example->recordID), " for one.");
  }

  const Survey& survey_;
  const int64_t latest_;
  Findings& findings_;
};

}  // namespace

void checkRecords(const Survey& survey, int64_t now, Findings* findings) {
  RecordChecks(survey, now, findings).run();
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
    const int field = isRecord ? record::kDataLength : tabledata::kDataLength;
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
