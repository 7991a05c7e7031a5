#include "recovery/salvage/selection.h"

#include <algorithm>

#include "format/identifiers.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

// Whether tables may be missing from the directory as it was read.
bool directoryIsDamaged(const Survey& survey) {
  const int tableCount = survey.header.tableCount;
  const auto isDestroyed = [](const Slot& each) { return each.counted && !each.isTable(); };
  const auto hasWrongSum = [&](const Table& each) {
    return !identifierSumIsRight(survey.slotOf(each).fields.tableID);
  };
  return survey.tables.empty() || tableCount < 0 ||
         tableCount > static_cast<int>(survey.tables.size()) ||
         std::ranges::any_of(survey.slots, isDestroyed) ||
         std::ranges::any_of(survey.tables, hasWrongSum);
}

class Selection {
 public:
  Selection(const Survey& survey, const qvdb::SalvageOptions& options, uint32_t wanted)
      : survey_(survey), options_(options), wanted_(wanted) {}

  Taken take() {
    taken_.groups.resize(survey_.owners.size());
    taken_.takesEveryOrphan = options_.orphans || directoryIsDamaged(survey_);
    taken_.takesWholeOrphans = options_.from == 0;
    taken_.replaced = replacedBlock();
    for (const uint32_t number : blocksInFileOrder(survey_)) place(number);
    return std::move(taken_);
  }

 private:
  const Block& block(uint32_t number) const { return survey_.blocks[number]; }

  bool gradeSuffices(const Block& each) const {
    return each.isReached() ||
           static_cast<int>(each.grade) <= static_cast<int>(options_.lowest_grade);
  }

  // Whether it is another version of the record that is to be brought back.
  bool isOtherVersion(uint32_t number) const {
    if (wanted_ == kNoBlock || number == wanted_) return false;
    return block(number).kind == BlockKind::record && block(number).isSameRecord(block(wanted_));
  }

  uint32_t replacedBlock() const {
    for (uint32_t number = 0; number < survey_.blocks.size(); ++number) {
      if (isOtherVersion(number) && block(number).label == Label::live) return number;
    }
    return kNoBlock;
  }

  void place(uint32_t number) {
    const Block& each = block(number);
    if (survey_.isIntent(each)) return;
    if (each.label == Label::uncommitted && number != wanted_) return;
    Group& group = taken_.groups[each.owner];
    // No record has the identifier 0. Such a block was torn or damaged, and nothing says of which
    // record it is a version.
    if (each.kind == BlockKind::record && each.recordID == 0) {
      ++taken_.nameless;
    } else if (number == taken_.replaced) {
      group.members.push_back(number);
    } else if (number == wanted_) {
      if (taken_.replaced != kNoBlock) return;
      (each.isInUse() ? group.members : group.unlinked).push_back(number);
    } else if (isOtherVersion(number) || !gradeSuffices(each)) {
      return;
    } else if (each.kind == BlockKind::record) {
      placeRecord(number, each, &group);
    } else if (each.isInUse() || each.label == Label::unlinked) {
      group.data = number;
    }
  }

  bool isWanted(const Block& each) const {
    if (each.isDeleted()) return options_.deleted;
    return each.label != Label::superseded || options_.versions;
  }

  void placeRecord(uint32_t number, const Block& each, Group* group) {
    if (each.isTrimmed) {
      if (isWanted(each)) ++taken_.trimmed;
      return;
    }
    if (each.isInUse()) return group->members.push_back(number);
    if (each.label == Label::unlinked) return group->unlinked.push_back(number);
    if (!isWanted(each)) return;
    if (each.isDeleted() && options_.in_place_tables) return group->unlinked.push_back(number);
    const bool isKnown = survey_.ownerSlot(each) != nullptr;
    if (isKnown || taken_.takesOrphan(survey_, each)) taken_.strays.push_back(number);
  }

  const Survey& survey_;
  const qvdb::SalvageOptions& options_;
  const uint32_t wanted_;
  Taken taken_;
};

}  // namespace

Taken takeBlocks(const Survey& survey, const qvdb::SalvageOptions& options, uint32_t wanted) {
  return Selection(survey, options, wanted).take();
}

}  // namespace qvdbase::salvage
