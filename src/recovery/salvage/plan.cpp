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

tablePart1 newSlot(const std::string& name, const unsigned char* id) {
  tablePart1 slot = {};
  slot.slotMark = kSlotMark;
  slot.slotEndMark = kSlotEndMark;
  slot.tableVersion = kNewTableVersion;
  std::memcpy(slot.tableID, id, kIdentifierSize);
  std::memcpy(slot.tableName, name.data(), std::min<size_t>(name.size(), kTableNameSize));
  return slot;
}

void planHeader(const Survey& survey, Plan* plan) {
  plan->header = survey.header;
  internal_Head1& fields = plan->header.fields;
  const bool isUnreadable = survey.isHeaderUnreadable();
  const std::string damaged = isUnreadable ? "cannot be read" : "is damaged";
  const auto note = [&](const auto&... parts) { plan->notes.push_back(joined(parts...)); };
  if (!isSignature(fields.signature)) {
    std::memcpy(fields.signature, "QVdb", kSignatureSize);
    note("The signature of the source ", damaged, "; the new file has 'QVdb'.");
  }
  if (!isVersion(fields.version) || fields.version == kUnfinishedPackVersion) {
    note("The version of the source ", isUnreadable ? damaged : joined("is ", fields.version),
         "; the new file has 100.");
    fields.version = kFinishedVersion;
  }
  if (!identifierSumIsRight(fields.databaseID) || identifierNumber(fields.databaseID) == 0) {
    GenerateUuID(fields.databaseID);
    note("The database identifier of the source ", damaged, "; the new file has a new one.");
  }
}

class Planner {
 public:
  Planner(const Survey& survey, const qvdb::SalvageOptions& options, const Wanted& wanted)
      : survey_(survey), wanted_(wanted.block), selection_(survey, options, wanted) {}

  Plan make() {
    plan_.destination.assign(survey_.blocks.size(), -1);
    planHeader(survey_, &plan_);
    Taken taken = selection_.take();
    if (taken.nameless > 0) {
      note("Left out: " + counted(taken.nameless, "record block") + " with the identifier 0.");
    }
    groups_ = std::move(taken.groups);
    adoptOwners();
    for (const Table& table : survey_.tables) planTable(table);
    planOrphans();
    planLostAndFound(taken.strays);
    return std::move(plan_);
  }

 private:
  const Block& block(uint32_t number) const { return survey_.blocks[number]; }
  const Slot& slotOf(const Table& table) const { return survey_.slotOf(table); }
  bool hasSlot(const Block& block) const { return survey_.owners[block.owner].slot != kNoSlot; }

  void note(std::string text) { plan_.notes.push_back(std::move(text)); }

  // ---- tables of the directory

  // A slot whose identifier was damaged leads to blocks that carry the right one.
  void adoptOwners() {
    for (const Table& table : survey_.tables) {
      const tablePart1& slot = slotOf(table).fields;
      uint32_t owner = table.owner;
      if (groups_[owner].isEmpty()) {
        for (const int64_t position :
             {slot.firstRecordPos, slot.lastRecordPos, slot.firstDataPos}) {
          const uint32_t number = survey_.byPosition.find(position);
          if (number == kNoBlock || hasSlot(block(number))) continue;
          owner = block(number).owner;
          break;
        }
      }
      owners_[table.slot] = owner;
    }
  }

  // What is neither counted nor filled is an AddTable that was cut off.
  bool isPlannable(const Table& table) const {
    return slotOf(table).counted || !groups_[owners_.at(table.slot)].isEmpty();
  }

  void planTable(const Table& table) {
    const Slot& slot = slotOf(table);
    const uint32_t owner = owners_[table.slot];
    Group& group = groups_[owner];
    if (group.isPlanned) {
      return note("Slot " + std::to_string(slot.index) +
                  " has the identifier of another; only the first of them was taken.");
    }
    if (!isPlannable(table)) return;
    PlannedTable planned;
    planned.slot = slot.fields;
    planned.slot.slotMark = kSlotMark;
    planned.slot.slotEndMark = kSlotEndMark;
    giveIdentifier(owner, owner != table.owner, &planned);
    if (planned.slot.tableName[0] == '\0') {
      giveName(&planned, identifierNumber(planned.slot.tableID));
    }
    planned.records = chainOrder(survey_, table, group.members);
    planned.records.insert(planned.records.end(), group.unlinked.begin(), group.unlinked.end());
    planned.data = group.data;
    add(std::move(planned), &group);
  }

  void giveIdentifier(uint32_t owner, bool isAdopted, PlannedTable* planned) {
    if (isAdopted) {
      note("The identifier of table '" + planned->name() +
           "' is damaged; its blocks say which it was.");
    }
    const uint64_t number = survey_.owners[owner].number;
    if (number == 0) {
      GenerateUuID(planned->slot.tableID);
      note("The identifier of table '" + planned->name() + "' is zero; it has a new one.");
    } else if (isOfAnother(owner)) {
      GenerateUuID(planned->slot.tableID);
      note("The identifier of table '" + planned->name() +
           "' is damaged, and now equals that of another; it has a new one.");
    } else {
      internal_ConvertInt64_2UuID(number, planned->slot.tableID);
      given_.insert(number);
    }
  }

  // Two slots may hold the same number, and differ in its sum: it belongs to the one whose sum is
  // right, or else to the first.
  bool isOfAnother(uint32_t owner) const {
    const Owner& mine = survey_.owners[owner];
    if (given_.contains(mine.number)) return true;
    if (identifierSumIsRight(mine.id.data())) return false;
    return std::any_of(survey_.tables.begin(), survey_.tables.end(), [&](const Table& table) {
      const Owner& other = survey_.owners[owners_.at(table.slot)];
      return isPlannable(table) && other.number == mine.number &&
             identifierSumIsRight(other.id.data());
    });
  }

  static std::string madeName(uint64_t number) {
    return "table-" + qvdb::to_string(qvdb::Id{number}).substr(2);
  }

  void giveName(PlannedTable* planned, uint64_t number) {
    const std::string name = madeName(number);
    std::memcpy(planned->slot.tableName, name.data(), name.size());
  }

  // ---- tables that the directory does not have

  void planOrphans() {
    for (size_t owner = 0; owner < groups_.size(); ++owner) {
      Group& group = groups_[owner];
      const bool isKnown = survey_.owners[owner].slot != kNoSlot;
      if (group.isPlanned || isKnown) continue;
      if (!holdsWanted(group)) dropPiecesOfPayloads(&group);
      if (group.isEmpty()) continue;
      PlannedTable planned;
      planned.slot =
          newSlot(madeName(survey_.owners[owner].number), survey_.owners[owner].id.data());
      planned.records = inLinkOrder(survey_, group.members);
      planned.records.insert(planned.records.end(), group.unlinked.begin(), group.unlinked.end());
      planned.data = group.data;
      note("The directory does not have table '" + planned.name() + "'; its name is lost.");
      add(std::move(planned), &group);
    }
  }

  void dropPiecesOfPayloads(Group* group) const {
    const auto isPiece = [&](uint32_t number) {
      return !selection_.isTakenAsOrphan(block(number));
    };
    std::erase_if(group->members, isPiece);
    std::erase_if(group->unlinked, isPiece);
    if (group->data != kNoBlock && isPiece(group->data)) group->data = kNoBlock;
  }

  bool holdsWanted(const Group& group) const {
    return wanted_ != kNoBlock && survey_.owners[block(wanted_).owner].slot == kNoSlot &&
           &groups_[block(wanted_).owner] == &group;
  }

  void planLostAndFound(const std::vector<uint32_t>& strays) {
    if (strays.empty()) return;
    const auto present =
        std::find_if(plan_.tables.begin(), plan_.tables.end(),
                     [](const PlannedTable& table) { return table.name() == kLostAndFound; });
    if (present == plan_.tables.end()) {
      unsigned char id[kIdentifierSize];
      GenerateUuID(id);
      PlannedTable planned;
      planned.slot = newSlot(kLostAndFound, id);
      planned.records = strays;
      Group group;
      return add(std::move(planned), &group);
    }
    for (const uint32_t number : strays) {
      present->records.push_back(number);
      plan_.destination[number] = static_cast<int>(present - plan_.tables.begin());
    }
  }

  void add(PlannedTable planned, Group* group) {
    group->isPlanned = true;
    if (plan_.tables.size() == kMostTables) {
      ++plan_.tablesLeftOut;
      return note("There is no space for table '" + planned.name() + "': a database has 31.");
    }
    const auto place = static_cast<int>(plan_.tables.size());
    std::replace(planned.records.begin(), planned.records.end(), selection_.replaced(), wanted_);
    for (const uint32_t number : planned.records) plan_.destination[number] = place;
    if (planned.data != kNoBlock) plan_.destination[planned.data] = place;
    plan_.tables.push_back(std::move(planned));
  }

  const Survey& survey_;
  const uint32_t wanted_;
  const Selection selection_;
  Plan plan_;
  std::vector<Group> groups_;       // by owner
  std::map<int, uint32_t> owners_;  // of each slot, after adoption
  std::set<uint64_t> given_;        // identifiers of tables that have been planned
};

}  // namespace

Plan makePlan(const Survey& survey, const qvdb::SalvageOptions& options, const Wanted& wanted) {
  return Planner(survey, options, wanted).make();
}

}  // namespace qvdbase::salvage
