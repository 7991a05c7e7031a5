#include "recovery/mend/left_over.h"

#include <algorithm>

#include "format/layout.h"

using namespace qvdbase::survey;

namespace qvdbase::mend {

bool isLeftOver(const Block& block) {
  const bool isCutOff =
      block.label == Label::unlinked || block.label == Label::unfinishedRelocation;
  return isCutOff && block.kind == BlockKind::record && !block.isReached() &&
         block.grade == Grade::a;
}

std::vector<uint32_t> tailApart(const Survey& survey, const Table& table) {
  const tablePart1& slot = survey.slotOf(table).fields;
  const auto isWhole = [&](const Walk& walk) {
    return walk.isComplete() && walk.blocks.size() == slot.recordCount;
  };
  if (!isWhole(table.forward) || !isWhole(table.backward)) return {};
  std::vector<uint32_t> tail;
  int64_t previous = slot.lastRecordPos;
  for (const uint32_t number : blocksInFileOrder(survey)) {
    const Block& each = survey.blocks[number];
    const bool isApart =
        each.isRecordOf(table.owner) && each.label == Label::detached && !each.isReached();
    if (!isApart) continue;
    const bool isNamed = tail.empty() || survey.blocks[tail.back()].next == each.position;
    if (each.grade != Grade::a || each.prev != previous || !isNamed) return {};
    tail.push_back(number);
    previous = each.position;
  }
  return tail;
}

std::vector<uint32_t> tailToDiscard(const Survey& survey, const Table& table) {
  const int64_t lastWritten = survey.slotOf(table).fields.lastWrittenRecordPos;
  std::vector<uint32_t> tail = tailApart(survey, table);
  const bool wasLinked = std::ranges::any_of(
      tail, [&](uint32_t number) { return survey.blocks[number].position == lastWritten; });
  if (wasLinked) tail.clear();
  return tail;
}

bool isLeftOverData(const Survey& survey, const Block& block) {
  if (block.kind != BlockKind::tableData || block.label != Label::unlinked) return false;
  const Slot* slot = survey.ownerSlot(block);
  const bool isWhole = !block.isReached() && block.grade == Grade::a;
  return isWhole && slot != nullptr && slot->fields.firstDataPos == 0;
}

}  // namespace qvdbase::mend
