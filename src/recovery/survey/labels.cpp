// Step 5 of a survey: what became of each block.
//
// Blocks are never changed after they leave the chain, and nothing is written over them. So a block
// that its neighbours no longer name was taken out (whoever unlinks a block relinks its neighbours
// first), while one that they still name belongs to a chain that was broken elsewhere.
//
// A batch of records that was cut off before it was linked is the exception: its blocks name each
// other. Of a chain that is whole without them, the count of records that were ever written says
// whether they were part of it.
//
// The blocks of one record are in the file in the order in which they were written. Of a record
// that no chain holds, the last whole block is its last version.
//
// A power failure can leave a moved record's links on the device, and of its new block only a part.
// So a block in a chain replaces an older version only if it is complete: it has an identifier, and
// its end mark is there.
#include <algorithm>

#include "recovery/survey/survey.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

enum class Evidence { none, agree, disagree };

class Labeller {
 public:
  explicit Labeller(Survey* survey) : survey_(*survey) {}

  void run() {
    std::vector<uint32_t> records;
    for (uint32_t i = 0; i < survey_.blocks.size(); ++i) {
      if (survey_.blocks[i].kind == BlockKind::record) records.push_back(i);
    }
    std::sort(records.begin(), records.end(), [&](uint32_t a, uint32_t b) {
      const Block& x = survey_.blocks[a];
      const Block& y = survey_.blocks[b];
      if (x.owner != y.owner) return x.owner < y.owner;
      if (x.recordID != y.recordID) return x.recordID < y.recordID;
      return x.position < y.position;
    });
    distinct_.assign(survey_.owners.size(), 0);
    hasChain_.assign(survey_.owners.size(), false);
    nameless_.assign(survey_.owners.size(), nullptr);
    for (const uint32_t number : records) {
      const Block& each = block(number);
      if (each.recordID == 0) {
        if (each.isReached()) nameless_[each.owner] = &each;
      } else if (each.isReached() || askNeighbours(each) == Evidence::agree) {
        hasChain_[each.owner] = true;
      }
    }
    undecided_.assign(survey_.owners.size(), {});
    apart_.assign(survey_.owners.size(), {});
    for (size_t begin = 0; begin < records.size();) {
      size_t end = begin + 1;
      while (end < records.size() && isSameRecord(records[begin], records[end])) ++end;
      labelVersions(&records[begin], end - begin);
      begin = end;
    }
    for (uint32_t owner = 0; owner < undecided_.size(); ++owner) decide(owner);
    countRecords(records);
    labelTableData();
  }

 private:
  Block& block(uint32_t number) { return survey_.blocks[number]; }

  bool isSameRecord(uint32_t a, uint32_t b) {
    return block(a).owner == block(b).owner && block(a).recordID == block(b).recordID;
  }

  // All blocks of one record, in file order.
  void labelVersions(const uint32_t* versions, size_t count) {
    const bool isWhole = std::any_of(versions, versions + count, [&](uint32_t number) {
      return block(number).isReached() || block(number).grade == Grade::a;
    });
    const bool isNameless = block(versions[0]).recordID == 0;
    if (isWhole && !isNameless) ++distinct_[block(versions[0]).owner];
    const Block* const live = liveVersion(versions, count, isNameless);
    for (size_t i = 0; i < count; ++i) labelBeside(live, &block(versions[i]));
    if (live == nullptr) labelUnreached(versions, count);
  }

  // The block that holds the record: what the walk from the front reaches comes before what only
  // the walk from the back does. Null where neither reaches any.
  const Block* liveVersion(const uint32_t* versions, size_t count, bool isNameless) {
    const Block* reached = nullptr;
    const Block* complete = nullptr;
    for (const Reach direction : {kBackward, kForward}) {
      const Block* first = nullptr;
      const Block* firstComplete = nullptr;
      for (size_t i = 0; i < count; ++i) {
        const Block& each = block(versions[i]);
        if (!(each.reach & direction)) continue;
        if (first == nullptr || direction == kForward) first = &each;
        if (hasOpenEnd(each)) continue;
        if (firstComplete == nullptr || direction == kForward) firstComplete = &each;
      }
      if (first != nullptr) reached = first;
      if (firstComplete != nullptr) complete = firstComplete;
    }
    if (complete != nullptr) return complete;
    if (reached == nullptr || isNameless) return reached;
    const Block* const older = wholeVersionBefore(*reached, versions, count);
    return older != nullptr ? older : reached;
  }

  const Block* wholeVersionBefore(const Block& open, const uint32_t* versions, size_t count) {
    const Block* older = nullptr;
    for (size_t i = 0; i < count && block(versions[i]).position < open.position; ++i) {
      const Block& each = block(versions[i]);
      if (!each.isReached() && each.grade == Grade::a) older = &each;
    }
    return older;
  }

  static bool hasOpenEnd(const Block& asked) {
    return (asked.flaws & (kBeyondEnd | kNoEndMark)) != 0;
  }

  // A version of a record that the block `live` holds.
  static void labelBeside(const Block* live, Block* version) {
    if (live == nullptr) return;
    const bool isComplete = version->recordID == 0 || !hasOpenEnd(*version);
    if (version == live) {
      version->label = version->isReached() ? Label::live : Label::detached;
    } else if ((version->reach & kForward) && (isComplete || hasOpenEnd(*live))) {
      version->label = Label::live;
    } else if (version->reach & kUncounted) {
      version->label = Label::unlinked;
    } else if (version->position > live->position) {
      version->label = Label::unfinishedRelocation;
    } else {
      version->label = Label::superseded;
    }
  }

  void labelUnreached(const uint32_t* versions, size_t count) {
    size_t last = count;
    for (size_t i = 0; i < count; ++i) {
      const Block& each = block(versions[i]);
      if (each.grade == Grade::a || each.isReached()) last = i;
    }
    if (last == count) last = count - 1;
    for (size_t i = 0; i < count; ++i) {
      Block& each = block(versions[i]);
      if (each.reach & kUncounted) {
        each.label = Label::unlinked;
      } else if (i != last) {
        each.label = i < last ? Label::superseded : Label::unfinishedRelocation;
      } else {
        labelLastVersion(versions[i]);
      }
    }
  }

  void labelLastVersion(uint32_t number) {
    Block& last = block(number);
    Evidence evidence = askNeighbours(last);
    // A block without neighbours is its table's only record or none at all.
    const bool standsAlone = last.prev == 0 && last.next == 0;
    if (standsAlone && hasChain_[last.owner]) {
      evidence = Evidence::disagree;
    } else if (standsAlone && mayHaveReplaced(nameless_[last.owner], last)) {
      evidence = Evidence::agree;
    }
    const bool isTorn = last.grade != Grade::a && last.next == 0 &&
                        (last.flaws & (kBeyondEnd | kCutShort | kNoEndMark)) != 0;
    if (evidence == Evidence::agree || (evidence == Evidence::none && !isChainSound(last.owner))) {
      last.label = isTorn && evidence == Evidence::none ? Label::unlinked : Label::detached;
      const bool isWhole = last.grade == Grade::a;
      if (isWhole && isChainSound(last.owner)) apart_[last.owner].push_back(number);
    } else if (isTorn) {
      last.label = Label::unlinked;
    } else {
      last.label = Label::deleted;
      // Whatever has had a successor was counted once.
      if (last.next == 0) undecided_[last.owner].push_back(number);
    }
  }

  bool isRecordOf(uint32_t owner, int64_t position) {
    const uint32_t number = survey_.byPosition.find(position);
    return number != kNoBlock && block(number).kind == BlockKind::record &&
           block(number).owner == owner;
  }

  // Whether the block in a chain, which has no identifier, may be the moved record of the other: a
  // record keeps the time of its creation, as far as that reached the device.
  static bool mayHaveReplaced(const Block* nameless, const Block& older) {
    if (nameless == nullptr || nameless->recordID != 0 || older.recordID == 0) return false;
    return nameless->isReached() && nameless->position > older.position &&
           (nameless->createTime == 0 || nameless->createTime == older.createTime);
  }

  Evidence askNeighbours(const Block& asked) {
    bool isTakenOut = false;
    bool isCutOff = false;
    bool isNamed = false;
    // `link` of the neighbour at `position` should lead here; `beyond` is the other neighbour.
    const auto ask = [&](int64_t position, int64_t Block::*link, int64_t beyond) {
      if (!isRecordOf(asked.owner, position)) return;
      const int64_t named = block(survey_.byPosition.find(position)).*link;
      const bool isReplaced = isRecordOf(asked.owner, named) &&
                              mayHaveReplaced(&block(survey_.byPosition.find(named)), asked);
      // A neighbour that names a block which is not there proves nothing: a move may have been
      // lost. Unless it names what lies beyond: then the block was taken out in between.
      if (named == asked.position || isReplaced) {
        isNamed = true;
      } else if (named == 0) {
        isCutOff = true;
      } else if (named == beyond || isRecordOf(asked.owner, named)) {
        isTakenOut = true;
      }
    };
    ask(asked.prev, &Block::next, asked.next);
    ask(asked.next, &Block::prev, asked.prev);
    if (isTakenOut) return Evidence::disagree;
    // Where one side still names the block and the other ends before it, the chain was cut, as link
    // repair does it: a deletion relinks both sides.
    if (isNamed) return Evidence::agree;
    return isCutOff ? Evidence::disagree : Evidence::none;
  }

  // Whether both walks of the owner's chain meet all that its slot counts: then nothing of it is
  // missing.
  bool isChainSound(uint32_t owner) {
    for (const Table& table : survey_.tables) {
      if (table.owner != owner) continue;
      const Slot& slot = survey_.slotOf(table);
      if (table.forward.end != WalkEnd::complete || table.backward.end != WalkEnd::complete) {
        return false;
      }
      return table.forward.blocks.size() >= slot.fields.recordCount;
    }
    return false;
  }

  // Deleted, or never linked? A block that was deleted as the last of its chain looks like one that
  // was written and never linked. The slot knows how many records were ever counted.
  void decide(uint32_t owner) {
    const int slot = survey_.owners[owner].slot;
    const std::vector<uint32_t>& undecided = undecided_[owner];
    const std::vector<uint32_t>& apart = apart_[owner];
    if (slot == kNoSlot || undecided.size() + apart.size() == 0) return;
    const uint32_t counted = survey_.slots[static_cast<size_t>(slot)].fields.recordWriteCount;
    if (distinct_[owner] <= counted) return;
    const uint64_t neverCounted = distinct_[owner] - counted;
    const bool all = neverCounted >= undecided.size();
    for (const uint32_t number : undecided) {
      block(number).label = all ? Label::unlinked : Label::deletedOrUnlinked;
    }
    if (neverCounted < undecided.size() + apart.size()) return;
    for (const uint32_t number : apart) block(number).label = Label::unlinked;
  }

  void countRecords(const std::vector<uint32_t>& records) {
    const Block* counted = nullptr;
    for (const uint32_t number : records) {
      const Block& each = block(number);
      const bool isMissing = each.label == Label::detached || each.label == Label::unlinked;
      const bool counts = each.label == Label::live || (isMissing && each.grade == Grade::a);
      const bool isCounted =
          counted != nullptr && counted->owner == each.owner && counted->recordID == each.recordID;
      if (!counts || isCounted || each.recordID == 0) continue;
      ++survey_.owners[each.owner].records;
      counted = &each;
    }
  }

  void labelTableData() {
    std::vector<const Block*> current(survey_.owners.size(), nullptr);
    std::vector<Block*> newest(survey_.owners.size(), nullptr);
    for (Block& each : survey_.blocks) {
      if (each.kind != BlockKind::tableData) continue;
      if (each.reach & kAsData) current[each.owner] = &each;
      Block*& candidate = newest[each.owner];
      const bool isBetter = candidate == nullptr || each.grade < candidate->grade ||
                            (each.grade == candidate->grade && each.position > candidate->position);
      if (isBetter) candidate = &each;
    }
    for (Block& each : survey_.blocks) {
      if (each.kind != BlockKind::tableData) continue;
      each.label = labelOfData(each, current[each.owner], newest[each.owner]);
    }
  }

  Label labelOfData(const Block& data, const Block* current, const Block* newest) const {
    if (data.reach & kAsData) return Label::live;
    if (current != nullptr) {
      return data.position > current->position ? Label::unlinked : Label::superseded;
    }
    if (&data != newest) return data.grade == Grade::a ? Label::superseded : Label::unlinked;
    const int slot = survey_.owners[data.owner].slot;
    const bool wasNeverSet =
        slot != kNoSlot && survey_.slots[static_cast<size_t>(slot)].fields.firstDataPos == 0;
    return wasNeverSet ? Label::unlinked : Label::detached;
  }

  Survey& survey_;
  std::vector<bool> hasChain_;          // whether anything of each owner's chain is left
  std::vector<const Block*> nameless_;  // of each owner, one in its chain with identifier 0
  std::vector<uint64_t> distinct_;      // records of each owner, counted by identifier
  std::vector<std::vector<uint32_t>> undecided_;  // of each owner
  std::vector<std::vector<uint32_t>> apart_;  // of each owner: detached from a chain that is whole
};

}  // namespace

void labelBlocks(Survey* survey) {
  Labeller(survey).run();
}

}  // namespace qvdbase::survey
