// What the library's calls will do with a file, worked out from what they read and in which order.
//
// These are exact for the file as it is, unless its directory is laid out in another way than every
// other: then nothing counts as usable. They follow the rules of the operations themselves,
// applied to the walks of the survey, which saw more than the operations ever do.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <optional>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "format/identifiers.h"
#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

bool headerIsUsable(const Survey& survey) {
  const Header& header = survey.header;
  return survey.headerThere && std::toupper(header.fields.signature[0]) == 'Q' &&
         std::toupper(header.fields.signature[1]) == 'V' &&
         header.fields.version >= kFirstVersion && header.fields.version <= kLastVersion &&
         header.slotSize == survey.slotStride;
}

// Whether the walk from the front gets through all counted records. One that loops does: it is the
// count that ends it.
bool walkSucceeds(const Table& table, uint32_t count) {
  return table.forward.blocks.size() >= count || table.forward.end == WalkEnd::loop;
}

// Walks go where the last counted record's link leads, too, though they do not read there: only a
// position below zero cannot be gone to.
bool canLeaveLastRecord(const Survey& survey, const Table& table, uint32_t count) {
  if (count == 0 || table.forward.blocks.size() < count) return true;
  return survey.blocks[table.forward.blocks[count - 1]].next >= 0;
}

bool canList(const Survey& survey, const Table& table, uint32_t count) {
  return count == 0 || (walkSucceeds(table, count) && canLeaveLastRecord(survey, table, count));
}

bool canAppend(const Survey& survey, const Table& table, const tablePart1& slot) {
  if ((slot.recordCount == 0) != (slot.firstRecordPos == 0)) return false;
  if (slot.recordCount == 0) return slot.lastRecordPos == 0;
  if (slot.lastRecordPos == 0 || table.backward.blocks.empty()) return false;
  return survey.blocks[table.backward.blocks.front()].next == 0;
}

// The readers of table data compare its owner with the identifier made afresh from the number, and
// so with the right sum, whatever the sum in the slot is.
bool canReadData(const Survey& survey, const tablePart1& slot) {
  if (slot.firstDataPos == 0) return true;
  const uint32_t number = survey.byPosition.find(slot.firstDataPos);
  if (number == kNoBlock) return false;
  const Block& block = survey.blocks[number];
  return block.kind == BlockKind::tableData && !(block.flaws & kWrongTableSum) &&
         survey.owners[block.owner].number == identifierNumber(slot.tableID) &&
         block.dataPos() + int64_t{block.length} <= survey.size;
}

// The test that pack and link repair make before they touch the records.
bool dataIsWhole(const Survey& survey, const Table& table) {
  if (table.dataState == DataState::none) return true;
  if (table.dataState != DataState::sound) return false;
  return (survey.blocks[table.dataBlock].flaws & (kBeyondEnd | kNoEndMark)) == 0;
}

bool hasRecords(const tablePart1& slot) {
  return slot.recordCount != 0 && slot.firstRecordPos != 0;
}

bool canPackRecords(const Survey& survey, const Table& table, const tablePart1& slot) {
  if (!hasRecords(slot)) return true;
  const bool walks =
      walkSucceeds(table, slot.recordCount) || table.forward.end == WalkEnd::complete;
  if (!walks || !canLeaveLastRecord(survey, table, slot.recordCount)) return false;
  const size_t count = std::min<size_t>(table.forward.blocks.size(), slot.recordCount);
  return std::all_of(table.forward.blocks.begin(),
                     table.forward.blocks.begin() + static_cast<std::ptrdiff_t>(count),
                     [&](uint32_t number) {
                       const Block& block = survey.blocks[number];
                       return block.dataPos() + int64_t{block.length} <= survey.size;
                     });
}

// What deletion and relocation ask of the neighbours of every record that the walk from the front
// reaches within the count.
class NeighbourCheck {
 public:
  NeighbourCheck(const ByteSource& source, const Survey& survey, const Table& table)
      : source_(source), survey_(survey), table_(table), slot_(survey.slotOf(table).fields) {}

  bool canDeleteAll() const {
    return everyRecord([&](const Block& each) { return canDelete(each); });
  }
  bool canEnlargeAll() const {
    return everyRecord([&](const Block& each) { return canRelocate(each); });
  }

 private:
  template <typename Can>
  bool everyRecord(Can can) const {
    const auto& walk = table_.forward.blocks;
    if (!walkSucceeds(table_, slot_.recordCount)) return false;
    const size_t count = std::min<size_t>(walk.size(), slot_.recordCount);
    return std::all_of(walk.begin(), walk.begin() + static_cast<std::ptrdiff_t>(count),
                       [&](uint32_t number) { return can(survey_.blocks[number]); });
  }

  bool canDelete(const Block& each) const {
    if (each.position == slot_.firstRecordPos) {
      if (each.prev != 0) return false;
      return each.next == 0 ? slot_.recordCount == 1 : headAt(each.next).has_value();
    }
    if (each.prev == 0 || !headAt(each.prev)) return false;
    if (each.position == slot_.lastRecordPos) return each.next == 0;
    return each.next != 0 && headAt(each.next);
  }

  bool canRelocate(const Block& each) const {
    const auto leadsHere = [&](int64_t neighbour, int64_t recordPart1::*link) {
      if (neighbour == 0) return true;
      const std::optional<recordPart1> head = headAt(neighbour);
      return head && (*head).*link == each.position;
    };
    return leadsHere(each.prev, &recordPart1::nextRecordPos) &&
           leadsHere(each.next, &recordPart1::prevRecordPos);
  }

  // The links of the record of this table at `position`, wherever that is.
  std::optional<recordPart1> headAt(int64_t position) const {
    const uint32_t number = survey_.byPosition.find(position);
    if (number != kNoBlock && survey_.blocks[number].isReached()) {
      const Block& block = survey_.blocks[number];
      if (block.kind != BlockKind::record || block.owner != table_.owner) return std::nullopt;
      recordPart1 head = {};
      head.prevRecordPos = block.prev;
      head.nextRecordPos = block.next;
      return head;
    }
    unsigned char bytes[record::kData];
    if (source_.readAt(position, bytes, sizeof bytes) != sizeof bytes) return std::nullopt;
    const recordPart1 head = decodeRecordHead(bytes);
    const bool isOwn = head.blockMark == kRecordMark && head.headerSize == kRecordHeaderSize &&
                       std::memcmp(head.tableID, slot_.tableID, sizeof head.tableID) == 0;
    return isOwn ? std::optional(head) : std::nullopt;
  }

  const ByteSource& source_;
  const Survey& survey_;
  const Table& table_;
  const tablePart1& slot_;
};

uint64_t distinctRecords(const Survey& survey, const Table& table, uint64_t count) {
  std::vector<uint64_t> records;
  for (size_t i = 0; i < count; ++i) {
    records.push_back(survey.blocks[table.forward.blocks[i]].recordID);
  }
  std::sort(records.begin(), records.end());
  return static_cast<uint64_t>(std::unique(records.begin(), records.end()) - records.begin());
}

// Link repair on one table. False when it fails there.
bool repairTable(const Survey& survey, const Table& table, qvdb::RepairedTable* repaired,
                 std::string* failure) {
  const Slot& slot = survey.slotOf(table);
  const uint64_t count = slot.fields.recordCount;
  repaired->slot = slot.index;
  repaired->name = format::storedName(slot.fields);
  repaired->id.value = identifierNumber(slot.fields.tableID);
  repaired->counted = slot.fields.recordCount;
  repaired->reachable = survey.owners[table.owner].records;
  if (!dataIsWhole(survey, table)) {
    *failure = "the data of table " + shown(repaired->name) + " is not where it should be";
    return false;
  }
  const auto forward = std::min<uint64_t>(table.forward.blocks.size(), count);
  const auto backward = std::min<uint64_t>(table.backward.blocks.size(), count);
  repaired->kept = forward;
  if (!hasRecords(slot.fields)) {
    repaired->kept = 0;
  } else if (forward == 0 && backward == 0) {
    *failure = "no record of table " + shown(repaired->name) + " can be reached";
    return false;
  } else {
    // Sound to it is a chain of which both walks reach as many records as are counted.
    repaired->rewritten = forward > 0 && (forward < count || backward < count);
  }
  const uint64_t kept = distinctRecords(survey, table, repaired->kept);
  const uint64_t others = repaired->reachable - std::min(repaired->reachable, kept);
  (repaired->rewritten ? repaired->lost : repaired->missed) = others;
  return true;
}

}  // namespace

bool isReachable(const Survey& survey, const Slot& slot) {
  if (!headerIsUsable(survey) || !slot.counted) return false;
  const uint64_t number = identifierNumber(slot.fields.tableID);
  for (const Slot& each : survey.slots) {
    if (!each.holdsTable()) return false;
    if (each.index == slot.index) return true;
    if (identifierNumber(each.fields.tableID) == number) return false;  // found instead
  }
  return false;
}

qvdb::TableOutlook outlookOf(const ByteSource& source, const Survey& survey, const Table& table) {
  const Slot& slot = survey.slotOf(table);
  const tablePart1& fields = slot.fields;
  qvdb::TableOutlook outlook;
  outlook.slot = slot.index;
  outlook.name = format::storedName(fields);
  outlook.id.value = identifierNumber(fields.tableID);
  outlook.reachable = isReachable(survey, slot);
  outlook.counted = fields.recordCount;
  outlook.walked = std::min<uint64_t>(table.forward.blocks.size(), fields.recordCount);
  const uint64_t found = survey.owners[table.owner].records;
  outlook.found_elsewhere = found - std::min(found, outlook.walked);
  if (!outlook.reachable) return outlook;
  outlook.append = canAppend(survey, table, fields);
  outlook.list = canList(survey, table, fields.recordCount);
  outlook.find_all = outlook.list && outlook.found_elsewhere == 0;
  const NeighbourCheck neighbours(source, survey, table);
  outlook.delete_all = neighbours.canDeleteAll();
  outlook.enlarge_all = neighbours.canEnlargeAll();
  outlook.get_data = canReadData(survey, fields);
  outlook.set_data = table.dataState == DataState::none || table.dataState == DataState::sound;
  return outlook;
}

bool willPack(const Survey& survey) {
  if (!headerIsUsable(survey) || survey.header.slotCount != survey.slots.size()) return false;
  for (const Slot& slot : survey.slots) {
    if (!slot.counted) break;
    if (!slot.holdsTable()) return false;
    const Table* table = survey.tableOfSlot(slot.index);
    if (!dataIsWhole(survey, *table) || !canPackRecords(survey, *table, slot.fields)) return false;
  }
  return survey.header.tableCount <= static_cast<int>(survey.slots.size());
}

qvdb::RepairPreview willRepair(const Survey& survey) {
  qvdb::RepairPreview preview;
  preview.unfinished_pack = survey.header.fields.version == kUnfinishedPackVersion;
  if (!headerIsUsable(survey)) preview.failure = "the header is not that of a usable database";
  for (const Slot& slot : survey.slots) {
    if (!slot.counted || !preview.failure.empty()) break;
    if (!slot.holdsTable()) {
      preview.failure = "slot " + std::to_string(slot.index) + " lacks its marks";
      break;
    }
    qvdb::RepairedTable repaired;
    if (!repairTable(survey, *survey.tableOfSlot(slot.index), &repaired, &preview.failure)) break;
    if (repaired.rewritten) preview.result = 2;
    preview.lost += repaired.lost;
    preview.missed += repaired.missed;
    preview.tables.push_back(std::move(repaired));
  }
  if (preview.failure.empty() && survey.header.tableCount > static_cast<int>(survey.slots.size())) {
    preview.failure = "the number of tables is impossible";
  }
  if (!preview.failure.empty()) preview.result = 1;
  preview.salvage_gives_more = preview.lost > 0 || preview.missed > 0 || preview.result == 1;
  return preview;
}

}  // namespace qvdbase::check
