// Step 6 of a survey: what became of each block.
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
// Blocks of a transaction that was never committed have their label already, and say nothing about
// others.
//
// After a power failure the device can have the links to a moved record, but only a part of its new
// block. So a block in a chain replaces an older version only if it is complete: it has an
// identifier, and its end mark is there.
#include <algorithm>
#include <span>
#include <vector>

#include "recovery/survey/batches.h"
#include "recovery/survey/survey.h"
#include "support/keyed_numbers.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

using support::KeyedNumber;

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
    remains_.resize(survey_.owners.size());
    for (Block& each : survey_.blocks) {
      if (each.kind != BlockKind::record || each.label == Label::uncommitted) continue;
      noteChain(each);
      if (each.reach & (kForward | kBackward)) each.label = Label::live;
    }
    const std::vector<KeyedNumber> records = blocksByRecord();
    eachRecord(records, [&](std::span<const KeyedNumber> blocks) { labelRecord(blocks); });
    for (uint32_t owner = 0; owner < remains_.size(); ++owner) decide(owner);
    eachRecord(records, [&](std::span<const KeyedNumber> blocks) { countRecord(blocks); });
  }

 private:
  // ---- the blocks of each record

  // The note of a block: its owner, and whether a walk within the chain's ends reaches it. The last
  // bit answers most questions without a look at the block, which would wait for the memory.
  static uint32_t noteOf(const Block& block) {
    return block.owner << 1 | ((block.reach & (kForward | kBackward)) != 0 ? 1 : 0);
  }
  static uint32_t ownerOf(const KeyedNumber& block) { return block.note >> 1; }

  // By owner, identifier and position.
  std::vector<KeyedNumber> blocksByRecord() const {
    std::vector<KeyedNumber> records;
    records.reserve(survey_.blocks.size());
    for (const uint32_t number : blocksInFileOrder(survey_)) {
      const Block& each = survey_.blocks[number];
      if (each.kind != BlockKind::record || each.label == Label::uncommitted) continue;
      records.push_back({each.recordID, number, noteOf(each)});
    }
    support::sortByKey(&records);
    if (!std::ranges::is_sorted(records, {}, ownerOf)) {
      std::ranges::stable_sort(records, {}, ownerOf);
    }
    return records;
  }

  template <typename Visit>
  static void eachRecord(std::span<const KeyedNumber> blocks, Visit visit) {
    while (!blocks.empty()) {
      size_t count = 1;
      while (count < blocks.size() && blocks[count].key == blocks[0].key &&
             ownerOf(blocks[count]) == ownerOf(blocks[0])) {
        ++count;
      }
      visit(blocks.first(count));
      blocks = blocks.subspan(count);
    }
  }

  // Whether it is one block, and in the chain: it is labelled as live already.
  static bool isPlain(std::span<const KeyedNumber> blocks) {
    return blocks.size() == 1 && (blocks[0].note & 1) != 0;
  }

  void labelRecord(std::span<const KeyedNumber> blocks) {
    if (isPlain(blocks)) {
      if (blocks[0].key != 0) ++remains_[ownerOf(blocks[0])].distinct;
      return;
    }
    versions_.clear();
    for (const KeyedNumber& each : blocks) versions_.push_back(&survey_.blocks[each.number]);
    labelVersions(versions_);
  }

  void countRecord(std::span<const KeyedNumber> blocks) {
    if (blocks[0].key == 0) return;
    const bool counts = isPlain(blocks) || std::ranges::any_of(blocks, [&](const auto& each) {
                          return countsAsRecord(survey_.blocks[each.number]);
                        });
    if (counts) ++survey_.owners[ownerOf(blocks[0])].records;
  }

  static bool countsAsRecord(const Block& block) {
    const bool isMissing = block.label == Label::detached || block.label == Label::unlinked;
    return block.label == Label::live || (isMissing && block.grade == Grade::a);
  }

  // What is left of an owner's records.
  struct Remains {
    bool hasChain = false;            // anything of its chain
    const Block* nameless = nullptr;  // one in its chain with identifier 0
    uint64_t distinct = 0;            // records, counted by identifier
    std::vector<Block*> undecided;
    std::vector<Block*> apart;  // detached from a chain that is whole
  };

  void noteChain(const Block& block) {
    Remains& remains = remains_[block.owner];
    if (block.recordID == 0) {
      const bool isLater =
          remains.nameless == nullptr || block.position > remains.nameless->position;
      if (block.isReached() && isLater) remains.nameless = &block;
    } else if (!remains.hasChain) {
      remains.hasChain = block.isReached() || evidenceFor(survey_, block) == Evidence::agree;
    }
  }

  void labelVersions(Versions versions) {
    if (std::ranges::count_if(versions, &Block::isReached) > 1) survey_.hasEqualRecords = true;
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
    if (last.isOfContradicted && last.grade == Grade::a && last.recordID != 0) {
      last.label = Label::unlinked;
      --remains.distinct;  // the slot does not count it
      return;
    }
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

  Survey& survey_;
  std::vector<Remains> remains_;  // of each owner
  std::vector<Block*> versions_;  // of the record that is looked at
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
    if (each.kind != BlockKind::tableData || each.label == Label::uncommitted) continue;
    if (each.reach & kAsData) current[each.owner] = &each;
    Block*& candidate = newest[each.owner];
    const bool isBetter = candidate == nullptr || each.grade < candidate->grade ||
                          (each.grade == candidate->grade && each.position > candidate->position);
    if (isBetter) candidate = &each;
  }
  for (Block& each : survey->blocks) {
    if (each.kind != BlockKind::tableData || each.label == Label::uncommitted) continue;
    each.label = labelOf(*survey, each, current[each.owner], newest[each.owner]);
  }
}

}  // namespace

void labelBlocks(Survey* survey) {
  Labeller(survey).run();
  labelTableData(survey);
}

}  // namespace qvdbase::survey
