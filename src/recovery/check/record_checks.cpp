// Live records, one by one: R4, R11 to R15.
#include <algorithm>

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
    for (const Block& block : survey_.blocks) {
      if (block.kind != BlockKind::record || !block.isReached()) continue;
      checkFlaws(block);
      if (block.label == Label::live) checkTimes(block);
    }
    checkDuplicates();
  }

 private:
  About about(const Block& block, int64_t field) const {
    return {.slot = survey_.slotAt(block.slot),
            .record = block.recordID,
            .offset = block.position + field};
  }

  static std::string theRecord(const Block& block) {
    return "The record at " + std::to_string(block.position);
  }

  void checkFlaws(const Block& block) {
    if (block.flaws & kWrongIdSum) {
      findings_.error("R4", about(block, record::kRecordID),
                      theRecord(block) + " has an identifier with a wrong sum.");
    }
    if (block.flaws & kZeroId) {
      findings_.error("R4", about(block, record::kRecordID),
                      theRecord(block) + " has the identifier zero.");
    }
    if (block.flaws & kLengthAboveCapacity) {
      findings_.error("R11", about(block, record::kDataLength),
                      theRecord(block) + " claims " + counted(block.length, "byte") +
                          " of data in a capacity of " + std::to_string(block.capacity) + ".");
    }
    if (block.flaws & kBeyondEnd) {
      findings_.error("R12", about(block, 0),
                      theRecord(block) + " would end at " + std::to_string(block.claimedEnd()) +
                          ", beyond the end of the file at " + std::to_string(survey_.size) + ".");
    } else if (block.flaws & kNoEndMark) {
      findings_.error(
          "R13", about(block, block.claimedEnd() - 1 - block.position),
          theRecord(block) + " has no end mark at " + std::to_string(block.claimedEnd() - 1) + ".");
    }
  }

  void checkTimes(const Block& block) {
    const auto report = [&](const char* what) {
      findings_.warning("R14", about(block, record::kCreateTime), theRecord(block) + what);
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

  void checkDuplicates() {
    std::vector<const Block*> live;
    for (const Block& block : survey_.blocks) {
      if (block.kind == BlockKind::record && block.label == Label::live) live.push_back(&block);
    }
    std::sort(live.begin(), live.end(), [](const Block* a, const Block* b) {
      if (a->recordID != b->recordID) return a->recordID < b->recordID;
      if (a->owner != b->owner) return a->owner < b->owner;
      return a->position < b->position;
    });
    uint64_t inTwoTables = 0;
    const Block* example = nullptr;
    for (size_t i = 1; i < live.size(); ++i) {
      const Block& before = *live[i - 1];
      const Block& here = *live[i];
      if (before.recordID != here.recordID) continue;
      if (before.owner == here.owner) {
        findings_.warning("R15", about(here, record::kRecordID),
                          "The records at " + std::to_string(before.position) + " and " +
                              std::to_string(here.position) + " have the same identifier " +
                              shownId(here.recordID) + ".");
      } else {
        ++inTwoTables;
        if (example == nullptr) example = &here;
      }
    }
    if (example == nullptr) return;
    findings_.information("R15", about(*example, record::kRecordID),
                          counted(inTwoTables, "record identifier") +
                              " occurs in more than one table, " + shownId(example->recordID) +
                              " for one.");
  }

  const Survey& survey_;
  const int64_t latest_;
  Findings& findings_;
};

}  // namespace

void checkRecords(const Survey& survey, int64_t now, Findings* findings) {
  RecordChecks(survey, now, findings).run();
}

}  // namespace qvdbase::check
