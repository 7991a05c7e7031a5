// Gathering the entries of an intent.
//
// For each table that is changed, in this order: guards of the records that were taken out of its
// chain, the guard of table data that was replaced, links, the slot, which is a guard where it is
// unchanged. After all tables their count. The patches among them are written in this order: a slot
// never names what is not linked yet.
//
// Links of records that were taken out are changed, too, as the operations have changed them: two
// neighbours that left the chain together must not lead to each other, or a program that comes to
// one of them by its position would take it for one of the chain.
#include "intents/gathering.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include "format/Aliment8.h"
#include "format/big_endian.h"
#include "format/block_heads.h"
#include "intents/chain_view.h"

namespace qvdbase::intents {
namespace {

using format::EntryKind;
using format::IntentEntry;
using format::PlaceBytes;
using Positions = std::vector<int64_t>;  // sorted

constexpr int64_t kLinkSize = 8;
constexpr int kMostTables = format::kNewSlotCount - 1;

// The file as the transaction leaves it, but for its patches.
class StagedReader : public Reader {
 public:
  StagedReader(const FileBytes& file, const StagedChanges& changes)
      : file_(file),
        blocks_(changes.blocks),
        limit_(changes.base + changes.spilled),
        start_(limit_ + changes.gap) {}

  int64_t size() const override { return start_ + static_cast<int64_t>(blocks_.size()); }

  bool read(int64_t position, void* buffer, size_t count) const override {
    auto* to = static_cast<unsigned char*>(buffer);
    if (position < limit_) {
      const auto inFile = std::min(count, static_cast<size_t>(limit_ - position));
      if (!file_.read(position, to, inFile)) return false;
      position += static_cast<int64_t>(inFile);
      to += inFile;
      count -= inFile;
    }
    if (count == 0) return true;
    if (position < start_) return false;
    std::copy_n(blocks_.begin() + static_cast<ptrdiff_t>(position - start_), count, to);
    return true;
  }

 private:
  const FileBytes& file_;
  const std::vector<unsigned char>& blocks_;
  int64_t limit_;
  int64_t start_;  // of the blocks
};

struct Place {
  int64_t position;
  PlaceBytes before;
  PlaceBytes after;

  bool isChanged() const { return before != after; }
};

struct Link {
  Place place;
  int64_t block;
  bool leadsBack;
};

// All that is changed of one table.
struct TableChanges {
  std::optional<Place> slot;
  std::vector<Link> links;  // in the order in which they were made
};

int64_t numberIn(const PlaceBytes& link) {
  return static_cast<int64_t>(format::loadBigEndian<uint64_t>(link.data()));
}

bool has(const Positions& positions, int64_t position) {
  return std::binary_search(positions.begin(), positions.end(), position);
}

Positions sorted(Positions positions) {
  std::sort(positions.begin(), positions.end());
  positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
  return positions;
}

tablePart1 decoded(const PlaceBytes& image) {
  tablePart1 table;
  format::decodeSlot(image.data(), &table);
  return table;
}

class Gathering {
 public:
  Gathering(const FileBytes& file, const HeldPatches& held, const StagedChanges& changes)
      : file_(file),
        changes_(changes),
        limit_(changes.base + changes.spilled),
        before_(file, held),
        staged_(file, changes),
        stagedBytes_(staged_),
        laidOver_(held),
        after_(stagedBytes_, laidOver_) {}

  Gathered run() {
    Gathered gathered;
    const bool isDone = sortPatches() && addAll();
    if (file_.hasFailed()) obstacle_ = Obstacle::cannotRead;
    gathered.obstacle = obstacle_;
    if (isDone && obstacle_ == Obstacle::none) gathered.entries = std::move(entries_);
    return gathered;
  }

 private:
  bool refuse(Obstacle obstacle) {
    obstacle_ = obstacle;
    return false;
  }

  // First the directory: the tables in it are needed to know whose records are changed.
  bool sortPatches() {
    for (const Patch& patch : changes_.patches) {
      if (patch.before.empty() || patch.before.size() != patch.after.size()) {
        return refuse(Obstacle::notTakable);
      }
      if (!isUnchanged(patch)) return refuse(Obstacle::changedMeanwhile);
      if (patch.position < format::kNewFileSize && !sortIntoDirectory(patch)) return false;
    }
    readTables();
    for (const Patch& patch : changes_.patches) {
      if (patch.position >= format::kNewFileSize && !sortIntoRecords(patch)) return false;
    }
    return true;
  }

  bool isUnchanged(const Patch& patch) const {
    PlaceBytes now(patch.before.size());
    return before_.read(patch.position, now.data(), now.size()) && now == patch.before;
  }

  bool sortIntoDirectory(const Patch& patch) {
    const int64_t end = patch.position + static_cast<int64_t>(patch.after.size());
    if (end > format::kNewFileSize) return refuse(Obstacle::notTakable);
    int64_t at = patch.position;
    while (at < end) {
      const bool isCount = at < format::kDirectoryPos;
      const int index =
          isCount ? -1 : static_cast<int>((at - format::kDirectoryPos) / format::kSlotImageSize);
      const int64_t begin = isCount ? format::kTableCountPos : format::slotPosition(index);
      const int64_t size = isCount ? 2 : format::kSlotImageSize;
      if (at < begin || at >= begin + size || index >= kMostTables) {
        return refuse(Obstacle::notTakable);
      }
      std::optional<Place>& place = isCount ? count_ : tables_[index].slot;
      if (!layOverSlot(patch, begin, size, &place)) return false;
      at = begin + size;
      if (isCount && at < end) return refuse(Obstacle::notTakable);
    }
    return true;
  }

  // Lays a patch over a slot or the count, which gets its bytes before that when it is new.
  bool layOverSlot(const Patch& patch, int64_t begin, int64_t size, std::optional<Place>* place) {
    if (!*place) {
      PlaceBytes now(static_cast<size_t>(size));
      if (!before_.read(begin, now.data(), now.size())) return refuse(Obstacle::changedMeanwhile);
      *place = Place{begin, now, now};
    }
    const int64_t from = std::max(begin, patch.position);
    const int64_t to =
        std::min(begin + size, patch.position + static_cast<int64_t>(patch.after.size()));
    std::copy(patch.after.begin() + (from - patch.position),
              patch.after.begin() + (to - patch.position),
              (*place)->after.begin() + (from - begin));
    laidOver_.hold(begin, (*place)->after);
    return true;
  }

  void readTables() {
    for (int index = 0; index < kMostTables; ++index) {
      const auto table = after_.slot(index);
      if (table && format::slotHoldsTable(*table)) slots_.emplace_back(index, *table);
    }
  }

  // The table that a block is a record of, or -1.
  int tableOf(int64_t block) const {
    unsigned char head[format::record::kData];
    if (block < format::kNewFileSize || !before_.read(block, head, sizeof head)) return -1;
    for (const auto& [index, table] : slots_) {
      if (format::isRecordOf(head, table.tableID)) return index;
    }
    return -1;
  }

  bool sortIntoRecords(const Patch& patch) {
    const auto size = static_cast<int64_t>(patch.after.size());
    if (patch.position > limit_ - size) return refuse(Obstacle::notTakable);
    if (size == 2 * kLinkSize) {
      const int64_t block = patch.position - format::record::kPrevRecordPos;
      return addLink(patch, block, true) && addLink(patch, block, false);
    }
    if (size != kLinkSize) return refuse(Obstacle::notTakable);
    const int64_t asPrevious = patch.position - format::record::kPrevRecordPos;
    const int64_t asNext = patch.position - format::record::kNextRecordPos;
    const bool canLeadBack = tableOf(asPrevious) >= 0;
    const bool canLeadOn = tableOf(asNext) >= 0;
    // Two headers eight bytes apart are no two records: at most one of them can be one of a chain.
    if (canLeadBack && canLeadOn) return refuse(Obstacle::notTakable);
    return canLeadBack ? addLink(patch, asPrevious, true) : addLink(patch, asNext, false);
  }

  bool addLink(const Patch& patch, int64_t block, bool leadsBack) {
    const int table = tableOf(block);
    if (table < 0) return refuse(Obstacle::notTakable);
    const int64_t begin =
        block + (leadsBack ? format::record::kPrevRecordPos : format::record::kNextRecordPos);
    const int64_t offset = begin - patch.position;
    Place place{begin, PlaceBytes(patch.before.data() + offset, kLinkSize),
                PlaceBytes(patch.after.data() + offset, kLinkSize)};
    laidOver_.hold(begin, place.after);
    if (place.isChanged()) tables_[table].links.push_back({std::move(place), block, leadsBack});
    return true;
  }

  bool addAll() {
    for (auto& [index, changes] : tables_) {
      if (!addTable(index, &changes)) return false;
    }
    if (count_ && count_->isChanged()) {
      const int count = format::loadBigEndian<uint16_t>(count_->after.data());
      if (count < 1 || count > kMostTables) return refuse(Obstacle::notTakable);
      addPatch(count - 1, EntryKind::patch, *count_);
    }
    return true;
  }

  bool addTable(int index, TableChanges* changes) {
    Place slot;
    if (changes->slot) {
      slot = *changes->slot;
    } else {
      slot = {format::slotPosition(index), PlaceBytes(format::kSlotImageSize), {}};
      if (!before_.read(slot.position, slot.before.data(), slot.before.size())) return false;
      slot.after = slot.before;
    }
    std::vector<Link>& links = changes->links;
    if (links.empty() && !slot.isChanged()) return true;
    const tablePart1 before = decoded(slot.before);
    const tablePart1 after = decoded(slot.after);
    const Positions takenOut = findTakenOut(before, after, links);
    for (Link& link : links) {
      if (has(takenOut, link.block)) leadToLinked(after, &link);
    }
    constexpr size_t kMostOfRecord = 4;
    entries_.reserve(entries_.size() + links.size() + kMostOfRecord * takenOut.size() + 2);
    if (!guardRecords(index, takenOut, links) || !guardReplacedData(index, before, after)) {
      return false;
    }
    for (const Link& link : links) {
      if (!link.place.isChanged()) continue;
      addPatch(index, link.leadsBack ? EntryKind::backLink : EntryKind::patch, link.place);
    }
    if (slot.isChanged()) {
      addPatch(index, EntryKind::patch, slot);
    } else {
      addGuard(index, slot.position, std::move(slot.before));
    }
    return true;
  }

  // Every record that is not in the chain any more had a link changed, or a neighbour or the slot
  // did that named it.
  Positions findTakenOut(const tablePart1& before, const tablePart1& after,
                         const std::vector<Link>& links) const {
    Positions candidates;
    candidates.reserve(2 * links.size() + 2);
    if (format::slotHoldsTable(before)) {
      candidates = {before.firstRecordPos, before.lastRecordPos};
    }
    for (const Link& link : links) {
      candidates.push_back(link.block);
      candidates.push_back(numberIn(link.place.before));
    }
    Positions takenOut;
    for (const int64_t block : sorted(std::move(candidates))) {
      if (block >= limit_ || !before_.links(block, after)) continue;
      if (!isLinked(block, after)) takenOut.push_back(block);
    }
    return takenOut;
  }

  // A record that was taken out must not lead to a block that only the transaction has ever linked:
  // where a part of the patches is made, programs come there. It leads to what follows the nearest
  // record on its other side that stays, so that a walk that goes on from it misses none.
  void leadToLinked(const tablePart1& table, Link* link) const {
    constexpr int kMostSteps = 100'000;
    const int64_t wanted = numberIn(link->place.after);
    if (wanted == 0 || isLinked(wanted, table)) return;
    int64_t to = link->leadsBack ? int64_t{table.lastRecordPos} : int64_t{table.firstRecordPos};
    int64_t block = link->block;
    for (int step = 0; block != 0; ++step) {
      const auto head = after_.record(block, table);
      if (!head || step == kMostSteps) {
        link->place.after = link->place.before;
        return;
      }
      if (block != link->block && isLinked(block, table)) {
        to = link->leadsBack ? int64_t{head->prevRecordPos} : int64_t{head->nextRecordPos};
        break;
      }
      block = link->leadsBack ? int64_t{head->nextRecordPos} : int64_t{head->prevRecordPos};
    }
    format::storeBigEndian(link->place.after.data(), static_cast<uint64_t>(to));
  }

  bool isLinked(int64_t block, const tablePart1& table) const {
    const auto own = after_.links(block, table);
    if (!own) return false;
    if (own->previous == 0) return table.firstRecordPos == block;
    const auto previous = after_.links(own->previous, table);
    return previous && previous->next == block;
  }

  // Links that are changed are patches, with what they were before.
  bool guardRecords(int table, const Positions& blocks, const std::vector<Link>& links) {
    constexpr std::pair<int64_t, size_t> kGuarded[] = {{format::record::kModifyTime, 4},
                                                       {format::record::kPrevRecordPos, 8},
                                                       {format::record::kNextRecordPos, 8},
                                                       {format::record::kDataLength, 4}};
    Positions changed;
    changed.reserve(links.size());
    for (const Link& link : links) {
      if (link.place.isChanged()) changed.push_back(link.place.position);
    }
    changed = sorted(std::move(changed));
    for (const int64_t block : blocks) {
      unsigned char head[format::record::kData];
      if (!before_.read(block, head, sizeof head)) return false;
      for (const auto& [offset, size] : kGuarded) {
        if (!has(changed, block + offset)) addGuard(table, block + offset, {head + offset, size});
      }
    }
    return true;
  }

  bool guardReplacedData(int index, const tablePart1& before, const tablePart1& after) {
    const int64_t block = before.firstDataPos;
    if (!format::slotHoldsTable(before) || block == 0 || block == after.firstDataPos) return true;
    unsigned char head[format::tabledata::kData];
    if (!before_.read(block, head, sizeof head)) return refuse(Obstacle::changedMeanwhile);
    const uint64_t length = uint64_t{format::decodeTableDataHead(head).dataCapacity} + 8;
    if (length > std::numeric_limits<uint32_t>::max()) return refuse(Obstacle::tooLarge);
    const int64_t place = block + format::tabledata::kDataLength;
    const auto hash = hashOf(file_, place, length);
    if (!hash) return refuse(Obstacle::changedMeanwhile);
    IntentEntry entry{static_cast<uint8_t>(index), EntryKind::guardByHash, place, PlaceBytes(4),
                      PlaceBytes(8)};
    format::storeBigEndian(entry.before.data(), static_cast<uint32_t>(length));
    format::storeBigEndian(entry.after.data(), *hash);
    entries_.push_back(std::move(entry));
    return true;
  }

  void addPatch(int table, EntryKind kind, const Place& place) {
    entries_.push_back(
        {static_cast<uint8_t>(table), kind, place.position, place.before, place.after});
  }

  void addGuard(int table, int64_t position, PlaceBytes before) {
    entries_.push_back(
        {static_cast<uint8_t>(table), EntryKind::guard, position, std::move(before), {}});
  }

  const FileBytes& file_;
  const StagedChanges& changes_;
  const int64_t limit_;
  const ChainView before_;
  const StagedReader staged_;
  const FileBytes stagedBytes_;
  HeldPatches laidOver_;  // those that were held, and those of the transaction
  const ChainView after_;

  Obstacle obstacle_ = Obstacle::none;
  std::optional<Place> count_;
  std::map<int, TableChanges> tables_;
  std::vector<std::pair<int, tablePart1>> slots_;
  std::vector<IntentEntry> entries_;
};

void moveLink(int64_t from, int64_t shift, unsigned char* link) {
  const auto position = static_cast<int64_t>(format::loadBigEndian<uint64_t>(link));
  if (position >= from) format::storeBigEndian(link, static_cast<uint64_t>(position + shift));
}

// Slots store positions least significant byte first.
void moveSlot(int64_t from, int64_t shift, PlaceBytes* image) {
  for (const int field : {format::slot::kFirstRecordPos, format::slot::kLastWrittenRecordPos,
                          format::slot::kLastRecordPos, format::slot::kFirstDataPos,
                          format::slot::kLastWrittenDataPos, format::slot::kLastDataPos}) {
    const auto at = image->begin() + field;
    std::reverse(at, at + 8);
    moveLink(from, shift, image->data() + field);
    std::reverse(at, at + 8);
  }
}

// The length of the block at the beginning of `bytes`, or 0 when there is no whole one.
size_t blockLength(const unsigned char* bytes, size_t size) {
  constexpr auto kDataHead = static_cast<size_t>(format::tabledata::kData);
  constexpr auto kRecordHead = static_cast<size_t>(format::record::kData);
  if (size <= kDataHead || !format::isBlockStart(bytes)) return 0;
  uint64_t length = 0;
  if (bytes[0] == format::kTableDataMark) {
    length = kDataHead + uint64_t{format::decodeTableDataHead(bytes).dataCapacity} + 1;
  } else if (size > kRecordHead) {
    length = kRecordHead + uint64_t{format::decodeRecordHead(bytes).dataCapacity} + 1;
  }
  if (length == 0 || length > size) return 0;
  const auto whole = static_cast<size_t>(length);
  return bytes[whole - 1] == format::kBlockEndMark ? whole : 0;
}

}  // namespace

Gathered gather(const FileBytes& file, const HeldPatches& held, const StagedChanges& changes) {
  return Gathering(file, held, changes).run();
}

bool movePositions(int64_t from, int64_t shift, std::vector<format::IntentEntry>* entries,
                   std::vector<unsigned char>* blocks) {
  for (IntentEntry& entry : *entries) {
    if (!format::isPatch(entry.kind)) continue;
    if (entry.after.size() == kLinkSize) moveLink(from, shift, entry.after.data());
    if (entry.after.size() == format::kSlotImageSize) moveSlot(from, shift, &entry.after);
  }
  for (size_t at = 0; at < blocks->size();) {
    unsigned char* block = blocks->data() + at;
    const size_t length = blockLength(block, blocks->size() - at);
    if (length == 0) return false;
    if (block[0] == format::kRecordMark) {
      moveLink(from, shift, block + format::record::kPrevRecordPos);
      moveLink(from, shift, block + format::record::kNextRecordPos);
    }
    at += length;
  }
  return true;
}

}  // namespace qvdbase::intents
