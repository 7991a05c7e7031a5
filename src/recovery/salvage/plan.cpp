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
#include <cctype>
#include <cstring>
#include <map>
#include <set>

#include "format/identifiers.h"
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

// The members of a table that take the place of blocks which do not count: found by the identifier
// or, where the block has none, by the links, which a moved record takes along.
class OlderVersions {
 public:
  OlderVersions(const Survey& survey, const std::vector<uint32_t>& members) : survey_(survey) {
    for (const uint32_t number : members) {
      const Block& each = survey.blocks[number];
      if (each.reach & kForward) continue;
      byRecord_[each.recordID] = number;
      if (each.next != 0) byNext_[each.next] = number;
      byPrev_[each.prev] = number;
    }
  }

  uint32_t instead(uint32_t number) const {
    const Block& asked = survey_.blocks[number];
    if (asked.recordID != 0) return found(byRecord_, asked.recordID);
    const uint32_t sameNext = found(byNext_, asked.next);
    return sameNext != kNoBlock ? sameNext : found(byPrev_, asked.prev);
  }

 private:
  template <typename Key>
  static uint32_t found(const std::map<Key, uint32_t>& numbers, Key key) {
    const auto place = numbers.find(key);
    return place == numbers.end() ? kNoBlock : place->second;
  }

  const Survey& survey_;
  std::map<uint64_t, uint32_t> byRecord_;
  std::map<int64_t, uint32_t> byNext_;
  std::map<int64_t, uint32_t> byPrev_;
};

class Planner {
 public:
  Planner(const Survey& survey, const qvdb::SalvageOptions& options, const Wanted& wanted)
      : survey_(survey), options_(options), wanted_(wanted.block) {
    takesOrphans_ = options.orphans || directoryIsDamaged();
    replaced_ = replacedBlock();
  }

  Plan make() {
    plan_.destination.assign(survey_.blocks.size(), -1);
    planHeader();
    groupBlocks();
    if (nameless_ > 0) {
      note("Left out: " + counted(nameless_, "record block") + " with the identifier 0.");
    }
    adoptOwners();
    for (const Table& table : survey_.tables) planTable(table);
    planOrphans();
    planLostAndFound();
    return std::move(plan_);
  }

 private:
  struct Group {
    std::vector<uint32_t> members;   // records that belong to the table, in file order
    std::vector<uint32_t> unlinked;  // records that were never counted, in file order
    uint32_t data = kNoBlock;
    bool isPlanned = false;
    bool isEmpty() const { return members.empty() && unlinked.empty() && data == kNoBlock; }
  };

  const Block& block(uint32_t number) const { return survey_.blocks[number]; }
  const Slot& slotOf(const Table& table) const { return survey_.slotOf(table); }

  void note(std::string text) { plan_.notes.push_back(std::move(text)); }

  // Whether tables may be missing from the directory as it was read.
  bool directoryIsDamaged() const {
    if (survey_.tables.empty()) return true;
    const Header& header = survey_.header;
    const auto counted = static_cast<int>(std::count_if(survey_.slots.begin(), survey_.slots.end(),
                                                        [](const Slot& s) { return s.isTable(); }));
    const bool someDestroyed = std::any_of(survey_.slots.begin(), survey_.slots.end(),
                                           [](const Slot& s) { return s.counted && !s.isTable(); });
    return someDestroyed || header.tableCount < 0 || header.tableCount > counted ||
           std::any_of(survey_.tables.begin(), survey_.tables.end(), [&](const Table& table) {
             return !identifierSumIsRight(slotOf(table).fields.tableID);
           });
  }

  void planHeader() {
    plan_.header = survey_.header;
    internal_Head1& fields = plan_.header.fields;
    const bool lettersRight =
        std::toupper(fields.signature[0]) == 'Q' && std::toupper(fields.signature[1]) == 'V';
    if (!lettersRight) {
      std::memcpy(fields.signature, "QVdb", kSignatureSize);
      note("The signature of the source is damaged; the new file has 'QVdb'.");
    }
    const bool versionRight = fields.version >= kFirstVersion && fields.version <= kLastVersion;
    if (!versionRight || fields.version == kUnfinishedPackVersion) {
      note("The version of the source is " + std::to_string(fields.version) +
           "; the new file has 100.");
      fields.version = kFinishedVersion;
    }
    if (!identifierSumIsRight(fields.databaseID) || identifierNumber(fields.databaseID) == 0) {
      GenerateUuID(fields.databaseID);
      note("The database identifier of the source is damaged; the new file has a new one.");
    }
  }

  // ---- what is taken

  bool gradeSuffices(const Block& each) const {
    return each.isReached() ||
           static_cast<int>(each.grade) <= static_cast<int>(options_.lowest_grade);
  }

  bool isOrphan(const Block& each) const { return survey_.owners[each.owner].slot == kNoSlot; }

  // A block of a table that the directory does not have counts as lost, unless it may be a piece of
  // a payload. In an image it may as well be of another database.
  bool isTakenAsOrphan(const Block& each) const {
    const bool isWholeFile = options_.from == 0;
    return takesOrphans_ || (isWholeFile && survey_.isOrphan(each));
  }

  // Another version of the record that is to be brought back.
  bool isOtherVersion(uint32_t number) const {
    if (wanted_ == kNoBlock || number == wanted_) return false;
    const Block& each = block(number);
    const Block& instead = block(wanted_);
    return each.kind == BlockKind::record && each.owner == instead.owner &&
           each.recordID == instead.recordID;
  }

  // The version in use, whose place in the chain the wanted one takes.
  uint32_t replacedBlock() const {
    for (uint32_t number = 0; number < survey_.blocks.size(); ++number) {
      if (isOtherVersion(number) && block(number).label == Label::live) return number;
    }
    return kNoBlock;
  }

  void groupBlocks() {
    groups_.resize(survey_.owners.size());
    for (const uint32_t number : blocksInFileOrder(survey_)) {
      const Block& each = block(number);
      if (isNameless(each)) {
        ++nameless_;
        continue;
      }
      Group& group = groups_[each.owner];
      if (number == replaced_) {
        group.members.push_back(number);  // add() puts the wanted one there
      } else if (number == wanted_) {
        if (replaced_ == kNoBlock) placeWanted(number, each, &group);
      }
      if (number == wanted_ || isOtherVersion(number) || !gradeSuffices(each)) continue;
      if (each.kind == BlockKind::tableData) {
        if (isCurrentData(each)) group.data = number;
      } else {
        placeRecord(number, each, &group);
      }
    }
  }

  // No record has the identifier 0: such a block was torn or damaged, and what it is a version of
  // is not known.
  static bool isNameless(const Block& each) {
    return each.kind == BlockKind::record && each.recordID == 0;
  }

  static void placeWanted(uint32_t number, const Block& each, Group* group) {
    const bool isMember = each.label == Label::live || each.label == Label::detached;
    (isMember ? group->members : group->unlinked).push_back(number);
  }

  static bool isCurrentData(const Block& data) {
    return data.label == Label::live || data.label == Label::detached ||
           data.label == Label::unlinked;
  }

  void placeRecord(uint32_t number, const Block& each, Group* group) {
    switch (each.label) {
      case Label::live:
      case Label::detached:
        return group->members.push_back(number);
      case Label::unlinked:
        return group->unlinked.push_back(number);
      case Label::deleted:
      case Label::deletedOrUnlinked:
        if (!options_.deleted) return;
        if (options_.in_place_tables) return group->unlinked.push_back(number);
        break;
      case Label::superseded:
        if (!options_.versions) return;
        break;
      case Label::unfinishedRelocation:
      case Label::none:
        break;
    }
    if (!isOrphan(each) || isTakenAsOrphan(each)) strays_.push_back(number);
  }

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
          if (number == kNoBlock || !isOrphan(block(number))) continue;
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
    planned.records = chainOf(table, group);
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
           "' is damaged, and as it stands is that of another; it has a new one.");
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

  std::vector<uint32_t> chainOf(const Table& table, const Group& group) const {
    std::vector<uint32_t> chain;
    std::vector<bool> isMember(survey_.blocks.size(), false);
    for (const uint32_t number : group.members) isMember[number] = true;
    const auto take = [&](uint32_t number) {
      if (!isMember[number]) return;
      isMember[number] = false;
      chain.push_back(number);
    };
    const OlderVersions older(survey_, group.members);
    const auto takeOrReplace = [&](uint32_t number) {
      if (!isMember[number]) number = older.instead(number);
      if (number != kNoBlock) take(number);
    };
    for (const uint32_t number : table.forward.blocks) takeOrReplace(number);

    std::vector<uint32_t> detached;
    for (const uint32_t number : group.members) {
      if (isMember[number] && !(block(number).reach & kBackward)) detached.push_back(number);
    }
    for (const uint32_t number : inLinkOrder(survey_, detached)) take(number);
    const std::vector<uint32_t>& backward = table.backward.blocks;
    std::for_each(backward.rbegin(), backward.rend(), takeOrReplace);
    for (const uint32_t number : group.members) take(number);
    chain.insert(chain.end(), group.unlinked.begin(), group.unlinked.end());
    return chain;
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
    const auto isPiece = [&](uint32_t number) { return !isTakenAsOrphan(block(number)); };
    std::erase_if(group->members, isPiece);
    std::erase_if(group->unlinked, isPiece);
    if (group->data != kNoBlock && isPiece(group->data)) group->data = kNoBlock;
  }

  bool holdsWanted(const Group& group) const {
    return wanted_ != kNoBlock && survey_.owners[block(wanted_).owner].slot == kNoSlot &&
           &groups_[block(wanted_).owner] == &group;
  }

  void planLostAndFound() {
    if (strays_.empty()) return;
    const auto present =
        std::find_if(plan_.tables.begin(), plan_.tables.end(),
                     [](const PlannedTable& table) { return table.name() == kLostAndFound; });
    if (present == plan_.tables.end()) {
      unsigned char id[kIdentifierSize];
      GenerateUuID(id);
      PlannedTable planned;
      planned.slot = newSlot(kLostAndFound, id);
      planned.records = strays_;
      Group group;
      return add(std::move(planned), &group);
    }
    for (const uint32_t number : strays_) {
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
    std::replace(planned.records.begin(), planned.records.end(), replaced_, wanted_);
    for (const uint32_t number : planned.records) plan_.destination[number] = place;
    if (planned.data != kNoBlock) plan_.destination[planned.data] = place;
    plan_.tables.push_back(std::move(planned));
  }

  const Survey& survey_;
  const qvdb::SalvageOptions& options_;
  const uint32_t wanted_;
  uint32_t replaced_ = kNoBlock;
  bool takesOrphans_ = false;
  Plan plan_;
  std::vector<Group> groups_;       // by owner
  std::map<int, uint32_t> owners_;  // of each slot, after adoption
  std::set<uint64_t> given_;        // identifiers of tables that have been planned
  std::vector<uint32_t> strays_;
  uint64_t nameless_ = 0;  // record blocks with the identifier 0
};

qvdb::BlockLabel publicLabel(Label label) {
  switch (label) {
    case Label::live:
      return qvdb::BlockLabel::live;
    case Label::superseded:
      return qvdb::BlockLabel::superseded;
    case Label::unfinishedRelocation:
      return qvdb::BlockLabel::unfinished;
    case Label::deleted:
      return qvdb::BlockLabel::deleted;
    case Label::unlinked:
      return qvdb::BlockLabel::unlinked;
    case Label::deletedOrUnlinked:
      return qvdb::BlockLabel::deleted_or_unlinked;
    case Label::detached:
    case Label::none:
      break;
  }
  return qvdb::BlockLabel::lost;
}

}  // namespace

Plan makePlan(const Survey& survey, const qvdb::SalvageOptions& options, const Wanted& wanted) {
  return Planner(survey, options, wanted).make();
}

qvdb::FoundBlock describe(const Survey& survey, uint32_t number) {
  const Block& block = survey.blocks[number];
  const Owner& owner = survey.owners[block.owner];
  qvdb::FoundBlock found;
  found.is_table_data = block.kind == BlockKind::tableData;
  found.label = publicLabel(block.label);
  found.grade = static_cast<qvdb::BlockGrade>(block.grade);
  if (block.isReached() && block.flaws != 0) found.grade = qvdb::BlockGrade::b;
  found.is_orphan = owner.slot == kNoSlot;
  found.table.value = owner.number;
  if (!found.is_orphan) {
    found.table_name = format::storedName(survey.slots[static_cast<size_t>(owner.slot)].fields);
  }
  found.record.value = block.recordID;
  found.offset = block.position;
  found.length = block.length;
  found.there = static_cast<uint64_t>(block.dataThere());
  found.capacity = block.capacity;
  found.create_time = block.createTime;
  found.modify_time = block.modifyTime;
  return found;
}

}  // namespace qvdbase::salvage
