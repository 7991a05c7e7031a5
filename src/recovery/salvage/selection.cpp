#include "recovery/salvage/selection.h"

#include <algorithm>

#include "format/identifiers.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

// Whether tables may be missing from the directory as it was read.
bool directoryIsDamaged(const Survey& survey) {
  if (survey.tables.empty()) return true;
  const Header& header = survey.header;
  const auto counted = static_cast<int>(std::count_if(survey.slots.begin(), survey.slots.end(),
                                                      [](const Slot& s) { return s.isTable(); }));
  const bool someDestroyed = std::any_of(survey.slots.begin(), survey.slots.end(),
                                         [](const Slot& s) { return s.counted && !s.isTable(); });
  return someDestroyed || header.tableCount < 0 || header.tableCount > counted ||
         std::any_of(survey.tables.begin(), survey.tables.end(), [&](const Table& table) {
           return !identifierSumIsRight(survey.slotOf(table).fields.tableID);
         });
}

// No record has the identifier 0: such a block was torn or damaged, and what it is a version of is
// not known.
bool isNameless(const Block& each) {
  return each.kind == BlockKind::record && each.recordID == 0;
}

bool isInChain(const Block& each) {
  return each.label == Label::live || each.label == Label::detached;
}

}  // namespace

Selection::Selection(const Survey& survey, const qvdb::SalvageOptions& options,
                     const Wanted& wanted)
    : survey_(survey),
      options_(options),
      wanted_(wanted.block),
      takesOrphans_(options.orphans || directoryIsDamaged(survey)),
      replaced_(replacedBlock()) {}

bool Selection::gradeSuffices(const Block& each) const {
  return each.isReached() ||
         static_cast<int>(each.grade) <= static_cast<int>(options_.lowest_grade);
}

bool Selection::isTakenAsOrphan(const Block& each) const {
  const bool isWholeFile = options_.from == 0;
  return takesOrphans_ || (isWholeFile && survey_.isOrphan(each));
}

// Another version of the record that is to be brought back.
bool Selection::isOtherVersion(uint32_t number) const {
  if (wanted_ == kNoBlock || number == wanted_) return false;
  const Block& each = block(number);
  const Block& instead = block(wanted_);
  return each.kind == BlockKind::record && each.owner == instead.owner &&
         each.recordID == instead.recordID;
}

uint32_t Selection::replacedBlock() const {
  for (uint32_t number = 0; number < survey_.blocks.size(); ++number) {
    if (isOtherVersion(number) && block(number).label == Label::live) return number;
  }
  return kNoBlock;
}

Taken Selection::take() const {
  Taken taken;
  taken.groups.resize(survey_.owners.size());
  for (const uint32_t number : blocksInFileOrder(survey_)) {
    if (isNameless(block(number))) {
      ++taken.nameless;
    } else {
      place(number, &taken);
    }
  }
  return taken;
}

void Selection::place(uint32_t number, Taken* taken) const {
  const Block& each = block(number);
  Group& group = taken->groups[each.owner];
  if (number == replaced_) return group.members.push_back(number);
  if (number == wanted_) {
    if (replaced_ == kNoBlock) (isInChain(each) ? group.members : group.unlinked).push_back(number);
    return;
  }
  if (isOtherVersion(number) || !gradeSuffices(each)) return;
  if (each.kind == BlockKind::record) return placeRecord(number, each, taken);
  if (isInChain(each) || each.label == Label::unlinked) group.data = number;
}

void Selection::placeRecord(uint32_t number, const Block& each, Taken* taken) const {
  Group* const group = &taken->groups[each.owner];
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
  const bool hasSlot = survey_.owners[each.owner].slot != kNoSlot;
  if (hasSlot || isTakenAsOrphan(each)) taken->strays.push_back(number);
}

}  // namespace qvdbase::salvage
