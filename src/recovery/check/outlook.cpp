// What the library's calls will do with a file, predicted from what they read and in which order.
//
// The predictions are exact for the file as it is, with one exception: where its directory is laid
// out in an unusual way, nothing counts as usable. They apply the rules of the operations to the
// walks of the survey, which has seen more than the operations ever do.
#include <algorithm>
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
  const internal_Head1& header = survey.header.fields;
  return survey.headerThere && isSignature(header.signature) && isVersion(header.version) &&
         survey.header.slotSize == survey.slotStride;
}

// What the calls on one table do.
class TableCalls {
 public:
  // canDeleteAll() and canRelocateAll() need the source.
  TableCalls(const Survey& survey, const Table& table, const ByteSource* source = nullptr)
      : survey_(survey), table_(table), source_(source) {}

  // Whether the walk from the front passes all counted records. One that loops does: the count ends
  // it.
  bool walkSucceeds() const {
    return walked_.size() >= slot_.recordCount || table_.forward.end == WalkEnd::loop;
  }

  bool canList() const {
    return slot_.recordCount == 0 || (walkSucceeds() && canLeaveLastRecord());
  }

  bool canAppend() const {
    if ((slot_.recordCount == 0) != (slot_.firstRecordPos == 0)) return false;
    if (slot_.recordCount == 0) return slot_.lastRecordPos == 0;
    if (slot_.lastRecordPos == 0 || table_.backward.blocks.empty()) return false;
    return survey_.blocks[table_.backward.blocks.front()].next == 0;
  }

  // The readers of table data compare its owner with an identifier that they make from the table's
  // number: that one has the right sum, whatever the sum in the slot is.
  bool canReadData() const {
    if (slot_.firstDataPos == 0) return true;
    const Block* const block = survey_.blockAt(slot_.firstDataPos);
    return block != nullptr && block->kind == BlockKind::tableData && !block->has(kWrongTableSum) &&
           survey_.owners[block->owner].number == identifierNumber(slot_.tableID) &&
           hasAllData(*block);
  }

  // The test that pack and link repair make before they touch the records.
  bool dataIsWhole() const {
    if (table_.dataState == DataState::none) return true;
    return table_.dataState == DataState::sound &&
           !survey_.blocks[table_.dataBlock].has(kBeyondEnd | kNoEndMark);
  }

  bool hasRecords() const { return slot_.recordCount != 0 && slot_.firstRecordPos != 0; }

  bool canPack() const {
    if (!dataIsWhole()) return false;
    if (!hasRecords()) return true;
    return (walkSucceeds() || table_.forward.isComplete()) && canLeaveLastRecord() &&
           all(&TableCalls::hasAllData);
  }

  bool canDeleteAll() const { return walkSucceeds() && all(&TableCalls::canDelete); }
  bool canRelocateAll() const { return walkSucceeds() && all(&TableCalls::canRelocate); }

 private:
  struct Links {
    int64_t prev;
    int64_t next;
  };

  bool all(bool (TableCalls::*can)(const Block&) const) const {
    return std::ranges::all_of(
        walked_, [&](uint32_t number) { return (this->*can)(survey_.blocks[number]); });
  }

  // Walks also seek to where the last counted record's link leads, though they do not read there:
  // only a position below zero fails.
  bool canLeaveLastRecord() const {
    if (slot_.recordCount == 0 || walked_.size() < slot_.recordCount) return true;
    return survey_.blocks[walked_.back()].next >= 0;
  }

  bool hasAllData(const Block& block) const {
    return block.dataPos() + int64_t{block.length} <= survey_.size;
  }

  // What deletion and relocation ask of the neighbours of a record.
  bool canDelete(const Block& each) const {
    if (each.position == slot_.firstRecordPos) {
      if (each.prev != 0) return false;
      return each.next == 0 ? slot_.recordCount == 1 : linksAt(each.next, each).has_value();
    }
    if (each.prev == 0 || !linksAt(each.prev, each)) return false;
    if (each.position == slot_.lastRecordPos) return each.next == 0;
    return each.next != 0 && linksAt(each.next, each);
  }

  bool canRelocate(const Block& each) const {
    const auto leadsHere = [&](int64_t neighbour, int64_t Links::*link) {
      if (neighbour == 0) return true;
      const std::optional<Links> links = linksAt(neighbour, each);
      return links && (*links).*link == each.position;
    };
    return leadsHere(each.prev, &Links::next) && leadsHere(each.next, &Links::prev);
  }

  // The links of the record of this table at `position`, wherever that is; `neighbour` names it.
  std::optional<Links> linksAt(int64_t position, const Block& neighbour) const {
    const auto near = static_cast<uint32_t>(&neighbour - survey_.blocks.data());
    const uint32_t number = survey_.numberAt(position, near);
    if (number != kNoBlock && survey_.blocks[number].isReached()) {
      const Block& block = survey_.blocks[number];
      if (!block.isRecordOf(table_.owner)) return std::nullopt;
      return Links{block.prev, block.next};
    }
    unsigned char bytes[record::kData];
    if (source_->readAt(position, bytes, sizeof bytes) != sizeof bytes) return std::nullopt;
    if (!isRecordOf(bytes, slot_.tableID)) return std::nullopt;
    const recordPart1 head = decodeRecordHead(bytes);
    return Links{head.prevRecordPos, head.nextRecordPos};
  }

  const Survey& survey_;
  const Table& table_;
  const ByteSource* const source_;
  const tablePart1& slot_ = survey_.slotOf(table_).fields;
  const std::span<const uint32_t> walked_ = countedBlocks(survey_, table_);
};

uint64_t distinctRecords(const Survey& survey, std::span<const uint32_t> reached) {
  if (!survey.hasEqualRecords) return reached.size();
  std::vector<uint64_t> records = sortedRecords(survey, reached);
  records.erase(std::unique(records.begin(), records.end()), records.end());
  return records.size();
}

// Link repair on one table. Why it fails there; empty when it does not.
std::string repairTable(const Survey& survey, const Table& table, qvdb::RepairedTable* repaired) {
  const Slot& slot = survey.slotOf(table);
  const uint32_t count = slot.fields.recordCount;
  repaired->slot = slot.index;
  repaired->name = storedName(slot.fields);
  repaired->id.value = identifierNumber(slot.fields.tableID);
  repaired->counted = count;
  repaired->reachable = survey.owners[table.owner].records;
  const TableCalls calls(survey, table);
  if (!calls.dataIsWhole()) {
    return "the data of table " + shown(repaired->name) + " is not where it should be";
  }
  const std::span<const uint32_t> forward = countedBlocks(survey, table);
  const std::vector<uint32_t>& backward = table.backward.blocks;
  if (calls.hasRecords()) {
    if (forward.empty() && backward.empty()) {
      return "no record of table " + shown(repaired->name) + " can be reached";
    }
    // Sound to it is a chain of which both walks reach as many records as are counted.
    repaired->rewritten = !forward.empty() && (forward.size() < count || backward.size() < count);
    repaired->kept = forward.size();
  }
  const uint64_t kept = distinctRecords(survey, forward.first(static_cast<size_t>(repaired->kept)));
  const uint64_t others = repaired->reachable - std::min(repaired->reachable, kept);
  (repaired->rewritten ? repaired->lost : repaired->missed) = others;
  return {};
}

// The same of all tables.
std::string repairTables(const Survey& survey, qvdb::RepairPreview* preview) {
  if (!headerIsUsable(survey)) return "the header is not that of a usable database";
  for (const Slot& slot : survey.slots) {
    if (!slot.counted) break;
    if (!slot.holdsTable()) return joined("slot ", slot.index, " lacks its marks");
    qvdb::RepairedTable repaired;
    std::string failure = repairTable(survey, *survey.tableOfSlot(slot.index), &repaired);
    if (!failure.empty()) return failure;
    if (repaired.rewritten) preview->result = 2;
    preview->lost += repaired.lost;
    preview->missed += repaired.missed;
    preview->tables.push_back(std::move(repaired));
  }
  const bool fits = survey.header.tableCount <= static_cast<int>(survey.slots.size());
  return fits ? "" : "the number of tables is impossible";
}

// Whether the directory leads to the slot.
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

}  // namespace

qvdb::TableOutlook outlookOf(const ByteSource& source, const Survey& survey, const Table& table) {
  const Slot& slot = survey.slotOf(table);
  const tablePart1& fields = slot.fields;
  qvdb::TableOutlook outlook;
  outlook.slot = slot.index;
  outlook.name = storedName(fields);
  outlook.id.value = identifierNumber(fields.tableID);
  outlook.reachable = isReachable(survey, slot);
  outlook.counted = fields.recordCount;
  outlook.walked = countedBlocks(survey, table).size();
  const uint64_t found = survey.owners[table.owner].records;
  outlook.found_elsewhere = found - std::min(found, outlook.walked);
  if (!outlook.reachable) return outlook;
  const TableCalls calls(survey, table, &source);
  outlook.append = calls.canAppend();
  outlook.list = calls.canList();
  outlook.find_all = outlook.list && outlook.found_elsewhere == 0;
  outlook.delete_all = calls.canDeleteAll();
  outlook.enlarge_all = calls.canRelocateAll();
  outlook.get_data = calls.canReadData();
  outlook.set_data = table.dataState == DataState::none || table.dataState == DataState::sound;
  return outlook;
}

bool willPack(const Survey& survey) {
  if (!headerIsUsable(survey) || survey.header.slotCount != survey.slots.size()) return false;
  for (const Slot& slot : survey.slots) {
    if (!slot.counted) break;
    if (!slot.holdsTable()) return false;
    if (!TableCalls(survey, *survey.tableOfSlot(slot.index)).canPack()) return false;
  }
  return survey.header.tableCount <= static_cast<int>(survey.slots.size());
}

qvdb::RepairPreview willRepair(const Survey& survey) {
  qvdb::RepairPreview preview;
  preview.unfinished_pack = survey.header.fields.version == kUnfinishedPackVersion;
  preview.failure = repairTables(survey, &preview);
  if (!preview.failure.empty()) preview.result = 1;
  preview.salvage_gives_more = preview.lost > 0 || preview.missed > 0 || preview.result == 1;
  return preview;
}

}  // namespace qvdbase::check
