#include "recovery/survey/packed_data.h"

#include <algorithm>

namespace qvdbase::survey {
namespace {

// Whether the slot's position may be that of a block which was damaged: what is there is no block,
// or one of a table that the directory does not have. Then an older block must not be taken for it.
bool mayBeDamaged(const Survey& survey, int64_t position) {
  const Block* const block = survey.blockAt(position);
  if (block != nullptr && survey.ownerSlot(*block) == nullptr) return true;
  return std::ranges::any_of(survey.leftovers, [&](const auto& leftover) {
    return position >= leftover.range.begin && position < leftover.range.end;
  });
}

}  // namespace

uint32_t packedData(const Survey& survey, const Table& table) {
  if (table.dataState == DataState::none || table.dataState == DataState::sound) return kNoBlock;
  const tablePart1& slot = survey.slotOf(table).fields;
  if (slot.recordCount == 0 || mayBeDamaged(survey, slot.firstDataPos)) return kNoBlock;
  uint32_t found = kNoBlock;
  for (uint32_t number = 0; number < survey.blocks.size(); ++number) {
    const Block& each = survey.blocks[number];
    if (each.kind != BlockKind::tableData || each.owner != table.owner) continue;
    if (found != kNoBlock) return kNoBlock;
    found = number;
  }
  if (found == kNoBlock) return kNoBlock;
  const Block& data = survey.blocks[found];
  const bool isWhole = !data.isReached() && data.grade == Grade::a;
  return isWhole && data.end == slot.firstRecordPos ? found : kNoBlock;
}

uint32_t dataOf(const Survey& survey, const Table& table) {
  return table.dataState == DataState::sound ? table.dataBlock : packedData(survey, table);
}

}  // namespace qvdbase::survey
