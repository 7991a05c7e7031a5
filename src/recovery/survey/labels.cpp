// Step 5 of a survey: what became of each block.
//
// Blocks are never changed after they leave the chain, and nothing is written over them. So a block
// that its neighbours no longer name was taken out (whoever unlinks a block relinks its neighbours
// first), while one that they still name belongs to a chain that was broken elsewhere.
//
// A batch of records that was cut off before it was linked is the exception: its blocks name each
// other. Where the chain is whole without them, the count of records that were ever written shows
// whether they were in it: a batch is counted as a whole or not at all.
//
// The blocks of one record are in the file in the order in which they were written. Of a record
// that no chain holds, the last whole block is its last version.
//
// After a power failure the device can have the links to a moved record, but only a part of its new
// block. So a block in a chain replaces an older version only if it is complete: it has an
// identifier, and its end mark is there.
#include <algorithm>
#include <span>
#include <tuple>
#include <vector>

#include "recovery/survey/batches.h"
#include "recovery/survey/survey.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

enum class Evidence { none, agree, disagree };

// Whether `nameless`, a block in a chain that lacks its identifier, may hold the record of `older`
// since it was moved: a record keeps the time of its creation, if that reached the device.
bool mayHaveReplaced(const Block* nameless, const Block& older) {
  if (nameless == nullptr || nameless->recordID != 0 || older.recordID == 0) return false;
  return nameless->isReached() && nameless->position > older.position &&
         (nameless->createTime == 0 || nameless->createTime == older.createTime);
}

// The owner's record that begins at `position`; null if there is none.
const Block* recordAt(const Survey& survey, int64_t position, uint32_t owner) {
  const Block* const found = survey.blockAt(position);
  return found != nullptr && found->isRecordOf(owner) ? found : nullptr;
}

// What the neighbours that a block names say of it.
Evidence evidenceFor(const Survey& survey, const Block& asked) {
  bool isTakenOut = false;
  bool isCutOff = false;
  bool isNamed = false;
  // `link` of the neighbour at `position` should lead here; `beyond` is the other neighbour.
  const auto askOne = [&](int64_t position, int64_t Block::*link, int64_t beyond) {
    const Block* const neighbour = recordAt(survey, position, asked.owner);
    if (neighbour == nullptr) return;
    const int64_t named = neighbour->*link;
    const Block* const other = recordAt(survey, named, asked.owner);
    // A neighbour that names a block which is not there proves nothing: a move may have been
    // lost. Unless it names what lies beyond: then the block was taken out in between.
    if (named == asked.position || mayHaveReplaced(other, asked)) {
      isNamed = true;
    } else if (named == 0) {
      isCutOff = true;
    } else if (named == beyond || other != nullptr) {
      isTakenOut = true;
    }
  };
  askOne(asked.prev, &Block::next, asked.next);
  askOne(asked.next, &Block::prev, asked.prev);
  if (isTakenOut) return Evidence::disagree;
  // Where one side still names the block and the other ends before it, the chain was cut, as link
  // repair does it: a deletion relinks both sides.
  if (isNamed) return Evidence::agree;
  return isCutOff ? Evidence::disagree : Evidence::none;
}

// Whether both walks of the owner's chain reach all that its slot counts: then nothing of it is
// missing.
bool isChainSound(const Survey& survey, uint32_t owner) {
  const auto table = std::ranges::find(survey.tables, owner, &Table::owner);
  return table != survey.tables.end() && table->forward.isComplete() &&
         table->backward.isComplete() &&
         table->forward.blocks.size() >= survey.slotOf(*table).fields.recordCount;
}

// ---- versions of a record

// The blocks of one record, in file order.
using Versions = std::span<Block* const>;

bool hasOpenEnd(const Block& asked) {
  return asked.has(kBeyondEnd | kNoEndMark);
}

const Block* wholeVersionBefore(const Block& open, Versions versions) {
  const Block* older = nullptr;
  for (const Block* each : versions) {
    if (each->position >= open.position) break;
    if (!each->isReached() && each->grade == Grade::a) older = each;
  }
  return older;
}

// A block that the walk from the front reaches is preferred to one that only the other reaches.
const Block* reachedVersion(Versions versions, bool mustBeComplete) {
  const Block* last = nullptr;
  const Block* first = nullptr;
  for (const Block* each : versions) {
    if (mustBeComplete && hasOpenEnd(*each)) continue;
    if (each->reach & kForward) last = each;
    if ((each->reach & kBackward) && first == nullptr) first = each;
  }
  return last != nullptr ? last : first;
}

// The block that holds the record; null where neither walk reaches any.
const Block* liveVersion(Versions versions, bool isNameless) {
  if (const Block* const complete = reachedVersion(versions, true)) return complete;
  const Block* const reached = reachedVersion(versions, false);
  if (reached == nullptr || isNameless) return reached;
  const Block* const older = wholeVersionBefore(*reached, versions);
  return older != nullptr ? older : reached;
}

// A version of a record that the block `live` holds.
void labelBeside(const Block& live, Block* version) {
  const bool isComplete = version->recordID == 0 || !hasOpenEnd(*version);
  if (version == &live) {
    version->label = version->isReached() ? Label::live : Label::detached;
  } else if ((version->reach & kForward) && (isComplete || hasOpenEnd(live))) {
    version->label = Label::live;
  } else if (version->reach & kUncounted) {
    version->label = Label::unlinked;
  } else if (version->position > live.position) {
    version->label = Label::unfinishedRelocation;
  } else {
    version->label = Label::superseded;
  }
}

// ---- records of an owner

class Labeller {
 public:
  explicit Labeller(Survey* survey) : survey_(*survey) {}

  void run() {
    std::vector<Block*> records;
    for (Block& each : survey_.blocks) {
      if (each.kind == BlockKind::record) records.push_back(&each);
    }
    std::ranges::sort(records, {}, [](const Block* each) {
      return std::tuple(each->owner, each->recordID, each->position);
    });
    remains_.resize(survey_.owners.size());
    for (const Block* each : records) {
      Remains& remains = remains_[each->owner];
      if (each->recordID == 0) {
        if (each->isReached()) remains.nameless = each;
      } else if (each->isReached() || evidenceFor(survey_, *each) == Evidence::agree) {
        remains.hasChain = true;
      }
    }
    for (auto begin = records.begin(); begin != records.end();) {
      const auto end = std::find_if(
          begin, records.end(), [&](const Block* each) { return !each->isSameRecord(**begin); });
      labelVersions({begin, end});
      begin = end;
    }
    for (uint32_t owner = 0; owner < remains_.size(); ++owner) decide(owner);
    countRecords(records);
  }

 private:
  // What is left of an owner's records.
  struct Remains {
    bool hasChain = false;            // anything of its chain
    const Block* nameless = nullptr;  // one in its chain with identifier 0
    uint64_t distinct = 0;            // records, counted by identifier
    std::vector<Block*> undecided;
    std::vector<Block*> apart;  // detached from a chain that is whole
  };

  void labelVersions(Versions versions) {
    const bool isWhole = std::ranges::any_of(
        versions, [](const Block* each) { return each->isReached() || each->grade == Grade::a; });
    const bool isNameless = versions[0]->recordID == 0;
    if (isWhole && !isNameless) ++remains_[versions[0]->owner].distinct;
    const Block* const live = liveVersion(versions, isNameless);
    if (live == nullptr) return labelUnreached(versions);
    for (Block* each : versions) labelBeside(*live, each);
  }

  void labelUnreached(Versions versions) {
    const Block* last = nullptr;
    for (const Block* each : versions) {
      if (each->grade == Grade::a || each->isReached()) last = each;
    }
    if (last == nullptr) last = versions.back();
    for (Block* each : versions) {
      if (each->reach & kUncounted) {
        each->label = Label::unlinked;
      } else if (each == last) {
        labelLastVersion(each);
      } else {
        const bool isOlder = each->position < last->position;
        each->label = isOlder ? Label::superseded : Label::unfinishedRelocation;
      }
    }
  }

  void labelLastVersion(Block* version) {
    Block& last = *version;
    Remains& remains = remains_[last.owner];
    Evidence evidence = evidenceFor(survey_, last);
    // A block without neighbours is its table's only record or none at all.
    const bool isAlone = last.prev == 0 && last.next == 0;
    if (isAlone && remains.hasChain) {
      evidence = Evidence::disagree;
    } else if (isAlone && mayHaveReplaced(remains.nameless, last)) {
      evidence = Evidence::agree;
    }
    const bool isTorn =
        last.grade != Grade::a && last.next == 0 && last.has(kBeyondEnd | kCutShort | kNoEndMark);
    const bool isSound = isChainSound(survey_, last.owner);
    if (evidence == Evidence::agree || (evidence == Evidence::none && !isSound)) {
      last.label = isTorn && evidence == Evidence::none ? Label::unlinked : Label::detached;
      if (last.grade == Grade::a && isSound) remains.apart.push_back(&last);
    } else if (isTorn) {
      last.label = Label::unlinked;
    } else {
      last.label = Label::deleted;
      // Whatever has had a successor was counted once.
      if (last.next == 0) remains.undecided.push_back(&last);
    }
  }

  // Deleted, or never linked? A block that was deleted as the last of its chain looks like one that
  // was written and never linked, and a batch that was not linked like records that a link repair
  // has cut off. The slot knows how many records were ever counted.
  void decide(uint32_t owner) {
    const int slot = survey_.owners[owner].slot;
    const Remains& remains = remains_[owner];
    if (slot == kNoSlot || remains.undecided.size() + remains.apart.size() == 0) return;
    const uint32_t counted = survey_.slotAt(slot)->fields.recordWriteCount;
    if (remains.distinct <= counted) return;
    const uint64_t neverCounted = remains.distinct - counted;
    const std::vector<Block*> inBatches =
        uncountedBatches(remains.apart, remains.undecided, neverCounted);
    for (Block* each : inBatches) each->label = Label::unlinked;
    if (inBatches.size() == neverCounted) return;
    const bool isEach = neverCounted - inBatches.size() >= remains.undecided.size();
    for (Block* each : remains.undecided) {
      each->label = isEach ? Label::unlinked : Label::deletedOrUnlinked;
    }
  }

  void countRecords(const std::vector<Block*>& records) {
    const Block* counted = nullptr;
    for (const Block* each : records) {
      const bool isMissing = each->label == Label::detached || each->label == Label::unlinked;
      const bool counts = each->label == Label::live || (isMissing && each->grade == Grade::a);
      if (!counts || each->recordID == 0) continue;
      if (counted != nullptr && counted->isSameRecord(*each)) continue;
      ++survey_.owners[each->owner].records;
      counted = each;
    }
  }

  Survey& survey_;
  std::vector<Remains> remains_;  // of each owner
};

// ---- table data

Label labelOf(const Survey& survey, const Block& data, const Block* current, const Block* newest) {
  if (data.reach & kAsData) return Label::live;
  if (current != nullptr) {
    return data.position > current->position ? Label::unlinked : Label::superseded;
  }
  if (&data != newest) return data.grade == Grade::a ? Label::superseded : Label::unlinked;
  const Slot* const slot = survey.ownerSlot(data);
  const bool wasNeverSet = slot != nullptr && slot->fields.firstDataPos == 0;
  return wasNeverSet ? Label::unlinked : Label::detached;
}

// Of the blocks of table data of a table, the one that its slot leads to is in use. If there is
// none, the newest whole one was in use last.
void labelTableData(Survey* survey) {
  std::vector<const Block*> current(survey->owners.size(), nullptr);
  std::vector<Block*> newest(survey->owners.size(), nullptr);
  for (Block& each : survey->blocks) {
    if (each.kind != BlockKind::tableData) continue;
    if (each.reach & kAsData) current[each.owner] = &each;
    Block*& candidate = newest[each.owner];
    const bool isBetter = candidate == nullptr || each.grade < candidate->grade ||
                          (each.grade == candidate->grade && each.position > candidate->position);
    if (isBetter) candidate = &each;
  }
  for (Block& each : survey->blocks) {
    if (each.kind != BlockKind::tableData) continue;
    each.label = labelOf(*survey, each, current[each.owner], newest[each.owner]);
  }
}

}  // namespace

void labelBlocks(Survey* survey) {
  Labeller(survey).run();
  labelTableData(survey);
}

}  // namespace qvdbase::survey
