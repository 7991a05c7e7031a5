#include "upkeep/verdict.h"

#include <algorithm>
#include <vector>

#include "recovery/check/parts.h"
#include "recovery/salvage/plan.h"
#include "recovery/survey/packed_data.h"
#include "recovery/survey/words.h"

using namespace qvdbase::survey;

namespace qvdbase::upkeep {

namespace {

// What such a copy takes along, and how large it will be.
struct Copied {
  std::vector<bool> blocks;
  int64_t size = 0;
};

Copied copiedBlocks(const Survey& survey) {
  Copied copied = {std::vector<bool>(survey.blocks.size(), false), survey.blocksStart};
  const auto take = [&](uint32_t number) {
    const Block& block = survey.blocks[number];
    copied.blocks[number] = true;
    copied.size += block.claimedEnd() - block.position;
  };
  for (const Table& table : survey.tables) {
    const auto& slot = survey.slotOf(table);
    if (!slot.counted) continue;
    const std::vector<uint32_t>& walk = table.forward.blocks;
    const auto count = std::min<size_t>(walk.size(), slot.fields.recordCount);
    std::for_each(walk.begin(), walk.begin() + static_cast<std::ptrdiff_t>(count), take);
    const uint32_t data = dataOf(survey, table);
    if (data != kNoBlock) take(data);
  }
  return copied;
}

// Of a slot whose data a pack has moved: the data is found anyway.
bool isOfPackedData(const Survey& survey, const qvdb::Finding& finding) {
  if (finding.code != "T1" && finding.code != "T2" && finding.code != "T3") return false;
  const Table* table = survey.tableOfSlot(finding.slot);
  return table != nullptr && packedData(survey, *table) != kNoBlock;
}

// Whether a salvage takes such a block without being asked. It leaves out what was deleted or
// replaced, and what was never committed.
bool isSaved(const Block& block) {
  return !block.isDeleted() && block.label != Label::superseded &&
         block.label != Label::uncommitted;
}

void countLoss(const Block& block, Verdict* verdict) {
  if (block.kind == BlockKind::tableData) {
    ++verdict->dataBlocks;
    return;
  }
  ++verdict->records;
  if (block.label != Label::unlinked && block.label != Label::unfinishedRelocation) return;
  if (verdict->cutOff++ == 0) {
    verdict->firstCutOff = joined(shownId(block.recordID), " at offset ", block.position);
  }
}

// What a salvage would bring back is planned only where there is anything beyond the copy.
void countLosses(const Survey& survey, const Copied& copied, Verdict* verdict) {
  bool isAllCopied = true;
  for (size_t number = 0; number < survey.blocks.size(); ++number) {
    const Block& block = survey.blocks[number];
    const bool isTorn = !block.isReached() && block.grade != Grade::a;
    if (isTorn && block.label != Label::uncommitted) ++verdict->tornBlocks;
    if (!copied.blocks[number] && isSaved(block)) isAllCopied = false;
  }
  for (const auto& leftover : survey.leftovers) {
    const bool isEarly = survey.endsEarlyBlocks(leftover.range);
    if (leftover.kind == Leftover::torn && !isEarly) ++verdict->tornBlocks;
  }
  if (isAllCopied) return;
  const salvage::Plan plan = salvage::makePlan(survey, {});
  for (const uint32_t number : blocksInFileOrder(survey)) {
    if (plan.destination[number] < 0 || copied.blocks[number]) continue;
    const Block& block = survey.blocks[number];
    if (block.label != Label::uncommitted) countLoss(block, verdict);
  }
}

}  // namespace

std::string Verdict::why() const {
  std::string text;
  const auto add = [&](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
  if (errors > 0) add(joined("it has ", counted(errors, "error"), " (", firstError, ")"));
  if (records > 0) add(counted(records, "record") + " would be lost");
  if (cutOff > 0) {
    add(joined(counted(cutOff, "of them is from a write", "of them are from writes"),
               " that was cut off (", firstCutOff, ")"));
  }
  if (dataBlocks > 0) {
    add(counted(dataBlocks, "block of table data", "blocks of table data") + " would be lost");
  }
  if (grows) add("the copy would be larger than the file");
  return text;
}

Verdict judgeCopy(const ByteSource& source, const Survey& survey) {
  Verdict verdict;
  const auto note = [&](const qvdb::Finding& finding) {
    if (isOfPackedData(survey, finding)) return;
    verdict.errors += 1 + finding.more;
    if (verdict.firstError.empty()) verdict.firstError = check::inSentence(finding);
  };
  check::findErrors(source, survey, note);
  const Copied copied = copiedBlocks(survey);
  countLosses(survey, copied, &verdict);
  verdict.grows = copied.size > survey.size;
  return verdict;
}

}  // namespace qvdbase::upkeep
