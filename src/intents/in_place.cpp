// Looking for what transactions have changed in a table, by what the table holds: the places
// themselves can have other values by now.
//
// The table must be sound: patches of a table are written in such an order that a part of them
// leaves it otherwise, until it is mended. Blocks that were taken out must not be in its
// chain. Those that a patch has linked must be in it, or a newer block of the same record. Where a
// record was removed that only the transaction had added, there is no telling: it counts as
// missing.
#include "intents/in_place.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "format/Aliment8.h"
#include "format/big_endian.h"
#include "format/block_heads.h"
#include "intents/chain_view.h"

namespace qvdbase::intents {
namespace {

using format::IntentEntry;
using Identifier = std::array<uint8_t, format::kIdentifierSize>;

Identifier identifierOf(const recordPart1& record) {
  Identifier identifier;
  std::copy_n(record.recordID, identifier.size(), identifier.begin());
  return identifier;
}

tablePart1 decoded(const format::PlaceBytes& image) {
  tablePart1 table;
  format::decodeSlot(image.data(), &table);
  return table;
}

class TableLook {
 public:
  TableLook(const FileBytes& file, int slot) : file_(file), view_(file, none_), slot_(slot) {}

  bool run(const std::vector<RunIntent>& run, size_t committed) {
    const auto table = view_.slot(slot_);
    if (!table || !format::slotHoldsTable(*table) || !isCounted()) return false;
    table_ = *table;
    for (size_t i = 0; i < committed; ++i) {
      for (const IntentEntry& entry : run[i].intent.entries) noteTakenOut(entry);
    }
    for (size_t i = 0; i < committed; ++i) {
      for (const IntentEntry& entry : run[i].intent.entries) {
        if (entry.slot == slot_ && !isWanted(entry, run[i].intent.lengthBefore)) return false;
      }
    }
    for (const int64_t block : takenOut_) linked_.erase(block);
    return findInChain();
  }

 private:
  bool isCounted() const {
    unsigned char count[2];
    return file_.read(format::kTableCountPos, count, sizeof count) &&
           format::loadBigEndian<uint16_t>(count) > slot_;
  }

  // Each record that was taken out has guards of its time and of its length.
  void noteTakenOut(const IntentEntry& entry) {
    const bool isGuard = entry.kind == format::EntryKind::guard && entry.before.size() == 4;
    if (entry.slot != slot_ || !isGuard) return;
    takenOut_.insert(entry.position - format::record::kModifyTime);
    takenOut_.insert(entry.position - format::record::kDataLength);
  }

  // Notes what an entry wants. False where it is seen at once not to be there.
  bool isWanted(const IntentEntry& entry, int64_t lengthBefore) {
    if (entry.position == format::slotPosition(slot_)) {
      return !format::isPatch(entry.kind) || isSlotWanted(entry, lengthBefore);
    }
    if (entry.position < format::kNewFileSize || !format::isPatch(entry.kind)) return true;
    const bool leadsBack = entry.kind == format::EntryKind::backLink;
    const int64_t block = entry.position - (leadsBack ? format::record::kPrevRecordPos
                                                      : format::record::kNextRecordPos);
    if (takenOut_.count(block) != 0) return true;
    wantLinked(static_cast<int64_t>(format::loadBigEndian<uint64_t>(entry.after.data())),
               lengthBefore);
    return true;
  }

  bool isSlotWanted(const IntentEntry& entry, int64_t lengthBefore) {
    const tablePart1 before = decoded(entry.before);
    const tablePart1 after = decoded(entry.after);
    wantLinked(after.firstRecordPos, lengthBefore);
    wantLinked(after.lastRecordPos, lengthBefore);
    const bool hasNewData =
        format::slotHoldsTable(before) && after.firstDataPos != before.firstDataPos;
    return !hasNewData || table_.firstDataPos != before.firstDataPos;
  }

  void wantLinked(int64_t block, int64_t lengthBefore) {
    if (block < lengthBefore || block == 0) return;
    const auto record = view_.record(block, table_);
    linked_[block] = record ? std::optional(identifierOf(*record)) : std::nullopt;
  }

  // Every link is followed in both directions, so that a walk comes to each block once.
  bool findInChain() {
    std::set<Identifier> wanted;
    for (const auto& [block, identifier] : linked_) {
      if (!identifier) return false;
      wanted.insert(*identifier);
    }
    int64_t previous = 0;
    int64_t block = table_.recordCount == 0 ? 0 : int64_t{table_.firstRecordPos};
    uint32_t count = 0;
    for (; block != 0; ++count) {
      const auto record = view_.record(block, table_);
      if (count >= table_.recordCount || !record || record->prevRecordPos != previous) return false;
      if (takenOut_.count(block) != 0) return false;
      wanted.erase(identifierOf(*record));
      previous = block;
      block = record->nextRecordPos;
    }
    const int64_t last = table_.recordCount == 0 ? 0 : int64_t{table_.lastRecordPos};
    return count == table_.recordCount && previous == last && wanted.empty();
  }

  const FileBytes& file_;
  const HeldPatches none_;
  const ChainView view_;
  const int slot_;
  tablePart1 table_{};
  std::set<int64_t> takenOut_;
  std::map<int64_t, std::optional<Identifier>> linked_;
};

}  // namespace

bool isInPlace(const FileBytes& file, const std::vector<RunIntent>& run, size_t committed,
               int slot) {
  return TableLook(file, slot).run(run, committed);
}

}  // namespace qvdbase::intents
