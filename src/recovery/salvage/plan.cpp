// Planning a salvage.
//
// Tables of the directory come first, in its order, each with its chain: what the walk from the
// front reaches, then pieces that no end leads to, then what only the walk from the back reaches,
// then records that were never counted. Where a chain leads to a block that does not count, since
// it is a record's torn new version or has no identifier, the older version takes its place. A
// table whose own identifier was damaged takes the one that the blocks at its positions carry;
// one whose damaged identifier is another table's takes a new one. Blocks of unknown tables make
// tables of their own. What is no part of its table any more goes to "lost-and-found".
#include "recovery/salvage/plan.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "format/identifiers.h"
#include "recovery/salvage/selection.h"
#include "recovery/survey/words.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

constexpr size_t kMostTables = kNewSlotCount - 1;
constexpr const char* kLostAndFound = "lost-and-found";

void setName(const std::string& name, tablePart1* slot) {
  std::memcpy(slot->tableName, name.data(), std::min<size_t>(name.size(), kTableNameSize));
}

tablePart1 newSlot(const std::string& name) {
  tablePart1 slot = {};
  slot.slotMark = kSlotMark;
  slot.slotEndMark = kSlotEndMark;
  slot.tableVersion = kNewTableVersion;
  setName(name, &slot);
  return slot;
}

std::string madeName(uint64_t tableID) {
  return "table-" + shownId(tableID).substr(2);
}

// The header of the new file, and what of it was damaged.
void planHeader(const Survey& survey, Plan* plan) {
  const auto note = [&](auto... parts) { plan->notes.push_back(joined(std::move(parts)...)); };
  plan->header = survey.header.fields;
  const int version = plan->header.version;
  const bool isUnreadable = survey.isHeaderUnreadable();
  const std::string damaged = isUnreadable ? "cannot be read" : "is damaged";
  if (!isSignature(plan->header.signature)) {
    std::memcpy(plan->header.signature, "QVdb", kSignatureSize);
    note("The signature of the source ", damaged, "; the new file has 'QVdb'.");
  }
  if (!isVersion(version) || version == kUnfinishedPackVersion) {
    plan->header.version = kFinishedVersion;
    note("The version of the source ", isUnreadable ? damaged : joined("is ", version),
         "; the new file has 100.");
  }
  unsigned char* const id = plan->header.databaseID;
  if (!identifierSumIsRight(id) || identifierNumber(id) == 0) {
    GenerateUuID(id);
    note("The database identifier of the source ", damaged, "; the new file has a new one.");
  }
}

class Planner {
 public:
  Planner(const Survey& survey, const qvdb::SalvageOptions& options, uint32_t wanted)
      : survey_(survey), wanted_(wanted), taken_(takeBlocks(survey, options, wanted)) {}

  Plan make() {
    planHeader(survey_, &plan_);
    if (taken_.nameless > 0) {
      note("Left out: ", counted(taken_.nameless, "record block"), " with the identifier 0.");
    }
    if (taken_.trimmed > 0) {
      note("Left out: ", counted(taken_.trimmed, "record"),
           " of which the payload was given back to the file system by a trim.");
    }
    for (const Table& table : survey_.tables) owners_[table.slot] = adoptedOwner(table);
    for (const Table& table : survey_.tables) planTable(table);
    for (uint32_t owner = 0; owner < survey_.owners.size(); ++owner) planOrphan(owner);
    if (!taken_.strays.empty()) planLostAndFound();
    setDestinations();
    return std::move(plan_);
  }

 private:
  const Block& block(uint32_t number) const { return survey_.blocks[number]; }

  template <typename... Parts>
  void note(Parts... parts) {
    plan_.notes.push_back(joined(std::move(parts)...));
  }

  // ---- tables of the directory

  // A slot whose identifier was damaged leads to blocks that carry the right one.
  uint32_t adoptedOwner(const Table& table) const {
    if (!taken_.groups[table.owner].isEmpty()) return table.owner;
    const tablePart1& slot = survey_.slotOf(table).fields;
    for (const int64_t position : {slot.firstRecordPos, slot.lastRecordPos, slot.firstDataPos}) {
      const Block* const found = survey_.blockAt(position);
      if (found != nullptr && survey_.ownerSlot(*found) == nullptr) return found->owner;
    }
    return table.owner;
  }

  // A slot that is not counted and has no blocks is what an AddTable leaves that was cut off.
  bool isPlannable(const Table& table) const {
    return survey_.slotOf(table).counted || !taken_.groups[owners_.at(table.slot)].isEmpty();
  }

  void planTable(const Table& table) {
    const uint32_t owner = owners_[table.slot];
    Group& group = taken_.groups[owner];
    if (group.isPlanned) {
      return note("Slot ", table.slot,
                  " has the identifier of another slot; only the first of the two was taken.");
    }
    if (!isPlannable(table)) return;
    group.isPlanned = true;
    tablePart1 slot = survey_.slotOf(table).fields;
    slot.slotMark = kSlotMark;
    slot.slotEndMark = kSlotEndMark;
    giveIdentifier(owner, owner != table.owner, &slot);
    if (slot.tableName[0] == '\0') setName(madeName(identifierNumber(slot.tableID)), &slot);
    add(slot, chainOrder(survey_, table, group.members), group);
  }

  void giveIdentifier(uint32_t owner, bool isAdopted, tablePart1* slot) {
    const uint64_t number = survey_.owners[owner].number;
    const auto noteOf = [&](const char* what) {
      note("The identifier of table '", storedName(*slot), "' is ", what);
    };
    if (isAdopted) noteOf("damaged; it was found in its blocks.");
    if (number != 0 && !isOfAnother(owner)) {
      internal_ConvertInt64_2UuID(number, slot->tableID);
      given_.insert(number);
      return;
    }
    GenerateUuID(slot->tableID);
    noteOf(number == 0 ? "zero; it has a new one."
                       : "damaged, and now equals that of another; it has a new one.");
  }

  // Two slots may hold the same number, and differ in its sum: it belongs to the one whose sum is
  // right, or else to the first.
  bool isOfAnother(uint32_t owner) const {
    const Owner& mine = survey_.owners[owner];
    if (given_.contains(mine.number)) return true;
    if (identifierSumIsRight(mine.id.data())) return false;
    return std::ranges::any_of(survey_.tables, [&](const Table& table) {
      const Owner& other = survey_.owners[owners_.at(table.slot)];
      return isPlannable(table) && other.number == mine.number &&
             identifierSumIsRight(other.id.data());
    });
  }

  // ---- tables that the directory does not have

  void planOrphan(uint32_t owner) {
    const Owner& orphan = survey_.owners[owner];
    Group& group = taken_.groups[owner];
    if (group.isPlanned || orphan.slot != kNoSlot) return;
    const bool holdsWanted = wanted_ != kNoBlock && block(wanted_).owner == owner;
    if (!holdsWanted) dropPiecesOfPayloads(&group);
    if (group.isEmpty()) return;
    tablePart1 slot = newSlot(madeName(orphan.number));
    std::memcpy(slot.tableID, orphan.id.data(), kIdentifierSize);
    note("The directory does not have table '", storedName(slot), "'; its name is lost.");
    add(slot, inLinkOrder(survey_, group.members), group);
  }

  void dropPiecesOfPayloads(Group* group) const {
    const auto isPiece = [&](uint32_t number) {
      return !taken_.takesOrphan(survey_, block(number));
    };
    std::erase_if(group->members, isPiece);
    std::erase_if(group->unlinked, isPiece);
    if (group->data != kNoBlock && isPiece(group->data)) group->data = kNoBlock;
  }

  void planLostAndFound() {
    const auto present = std::ranges::find(plan_.tables, kLostAndFound, &PlannedTable::name);
    if (present != plan_.tables.end()) {
      present->records.insert(present->records.end(), taken_.strays.begin(), taken_.strays.end());
      return;
    }
    tablePart1 slot = newSlot(kLostAndFound);
    GenerateUuID(slot.tableID);
    add(slot, std::move(taken_.strays), {});
  }

  // ---- all of them

  // Adds a table with these records, and with what its group has besides the members.
  void add(const tablePart1& slot, std::vector<uint32_t> records, const Group& group) {
    if (plan_.tables.size() == kMostTables) {
      ++plan_.tablesLeftOut;
      return note("There is no space for table '", storedName(slot),
                  "': a database has at most 31.");
    }
    records.insert(records.end(), group.unlinked.begin(), group.unlinked.end());
    plan_.tables.push_back({slot, std::move(records), group.data});
  }

  void setDestinations() {
    plan_.destination.assign(survey_.blocks.size(), -1);
    for (size_t i = 0; i < plan_.tables.size(); ++i) {
      PlannedTable& table = plan_.tables[i];
      std::ranges::replace(table.records, taken_.replaced, wanted_);
      for (const uint32_t number : table.records) plan_.destination[number] = static_cast<int>(i);
      if (table.data != kNoBlock) plan_.destination[table.data] = static_cast<int>(i);
    }
  }

  const Survey& survey_;
  const uint32_t wanted_;
  Taken taken_;
  Plan plan_;
  std::map<int, uint32_t> owners_;  // of each slot, after adoption
  std::set<uint64_t> given_;        // identifiers of tables that have been planned
};

}  // namespace

Plan makePlan(const Survey& survey, const qvdb::SalvageOptions& options, uint32_t wanted) {
  return Planner(survey, options, wanted).make();
}

}  // namespace qvdbase::salvage
