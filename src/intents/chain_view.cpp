// Chains of records as they would be with some patches made.
#include "intents/chain_view.h"

#include "format/Aliment8.h"
#include "format/big_endian.h"
#include "format/block_heads.h"

namespace qvdbase::intents {

bool ChainView::read(int64_t position, void* buffer, size_t count) const {
  if (!file_.read(position, buffer, count)) return false;
  patches_.layOver(position, buffer, count);
  return true;
}

std::optional<tablePart1> ChainView::slot(int index) const {
  unsigned char image[format::kSlotImageSize];
  if (!read(format::slotPosition(index), image, sizeof image)) return std::nullopt;
  tablePart1 table;
  format::decodeSlot(image, &table);
  return table;
}

std::optional<recordPart1> ChainView::record(int64_t position, const tablePart1& table) const {
  unsigned char head[format::record::kData];
  if (!read(position, head, sizeof head) || !format::isRecordOf(head, table.tableID)) {
    return std::nullopt;
  }
  return format::decodeRecordHead(head);
}

std::optional<ChainView::Links> ChainView::links(int64_t position, const tablePart1& table) const {
  using namespace format::record;
  unsigned char head[kData];
  if (!read(position, head, sizeof head) || !format::isRecordOf(head, table.tableID)) {
    return std::nullopt;
  }
  return Links{static_cast<int64_t>(format::loadBigEndian<uint64_t>(head + kPrevRecordPos)),
               static_cast<int64_t>(format::loadBigEndian<uint64_t>(head + kNextRecordPos))};
}

bool ChainView::hangsTogether(const tablePart1& table, int64_t block) const {
  const auto head = record(block, table);
  if (!head) return false;
  const int64_t first = table.firstRecordPos;
  const int64_t last = table.lastRecordPos;
  if (head->nextRecordPos == 0) {
    if (last != block) return false;
  } else {
    const auto next = record(head->nextRecordPos, table);
    if (!next || next->prevRecordPos != block) return false;
  }
  if (head->prevRecordPos == 0) return first == block;
  const auto previous = record(head->prevRecordPos, table);
  return previous && previous->nextRecordPos == block;
}

bool ChainView::hasSoundEnds(const tablePart1& table) const {
  if (table.recordCount == 0) return true;
  const auto first = record(table.firstRecordPos, table);
  const auto last = record(table.lastRecordPos, table);
  return first && last && first->prevRecordPos == 0 && last->nextRecordPos == 0;
}

}  // namespace qvdbase::intents
