// Judging what a file holds of its open intents.
#include "intents/judgement.h"

#include <algorithm>
#include <iterator>
#include <optional>

#include "format/big_endian.h"
#include "intents/chain_view.h"
#include "intents/in_place.h"

namespace qvdbase::intents {
namespace {

using format::EntryKind;
using format::IntentEntry;

bool isHashed(const IntentEntry& entry) {
  return entry.kind == EntryKind::guardByHash;
}

bool isSame(const format::PlaceBytes& one, const format::PlaceBytes& other, const Part& part) {
  const auto begin = static_cast<std::ptrdiff_t>(part.begin);
  const auto end = static_cast<std::ptrdiff_t>(part.end);
  return std::equal(one.begin() + begin, one.begin() + end, other.begin() + begin);
}

std::vector<Part> sectorsOf(const Place& place) {
  constexpr int64_t kSector = 512;
  std::vector<Part> parts;
  for (size_t begin = 0; begin < place.now.size();) {
    const int64_t inSector = (place.position + static_cast<int64_t>(begin)) % kSector;
    const size_t end = std::min(place.now.size(), begin + static_cast<size_t>(kSector - inSector));
    parts.push_back({begin, end});
    begin = end;
  }
  return parts;
}

std::vector<Part> bytesOf(const Place& place) {
  std::vector<Part> parts;
  for (size_t byte = 0; byte < place.now.size(); ++byte) parts.push_back({byte, byte + 1});
  return parts;
}

// What two lists of values were before and after one intent.
void addValues(const IntentEntry& entry, std::vector<const format::PlaceBytes*>* values) {
  values->push_back(&entry.before);
  if (format::isPatch(entry.kind)) values->push_back(&entry.after);
}

bool haveCommon(const std::set<int>& one, const std::set<int>& other) {
  return std::any_of(one.begin(), one.end(), [&](int slot) { return other.count(slot) != 0; });
}

}  // namespace

Judgement::Judgement(const FileBytes& file, const std::vector<RunIntent>& run, Judging judging)
    : file_(file), run_(run), judging_(judging), committed_(run.size()) {
  collectPlaces();
  size_t whole = 0;
  while (whole < run_.size() && isWhole(whole)) ++whole;
  committed_ = whole;
}

void Judgement::collectPlaces() {
  for (size_t i = 0; i < run_.size(); ++i) {
    for (const IntentEntry& entry : run_[i].intent.entries) {
      if (isHashed(entry)) continue;
      Place& place = places_[{entry.position, entry.before.size()}];
      if (place.uses.empty()) {
        place.position = entry.position;
        place.now = format::PlaceBytes(entry.before.size());
        static_cast<void>(file_.read(entry.position, place.now.data(), place.now.size()));
      }
      place.uses.push_back({i, &entry});
    }
  }
}

std::vector<Part> Judgement::partsOf(const Place& place) const {
  return judging_ == Judging::bySectors ? sectorsOf(place) : bytesOf(place);
}

bool Judgement::isOneOf(const Place& place, const Values& values) const {
  const std::vector<Part> parts = partsOf(place);
  return std::all_of(parts.begin(), parts.end(), [&](const Part& part) {
    return std::any_of(values.begin(), values.end(),
                       [&](const auto* value) { return isSame(place.now, *value, part); });
  });
}

// Where a sector of new blocks has not arrived, its zeros look like a link that a later intent has
// ended.
bool Judgement::mayBeMissing(const Place& place, const Part& part) const {
  const bool isInTornBlocks = std::any_of(run_.begin(), run_.end(), [&](const RunIntent& found) {
    return found.isTorn && place.position >= found.blocks && place.position < found.end;
  });
  return isInTornBlocks && std::all_of(place.now.begin() + static_cast<std::ptrdiff_t>(part.begin),
                                       place.now.begin() + static_cast<std::ptrdiff_t>(part.end),
                                       [](unsigned char byte) { return byte == 0; });
}

// Whether a sector of the place holds what only the intent `first` or a later one has put there.
bool Judgement::showsNew(const Place& place, size_t first, Missing missing) const {
  Values older;
  for (const Place::Use& use : place.uses) {
    if (!format::isPatch(use.entry->kind)) continue;
    if (use.intent < first) {
      addValues(*use.entry, &older);
      continue;
    }
    if (older.empty()) older.push_back(&use.entry->before);
    for (const Part& part : sectorsOf(place)) {
      const auto isThere = [&](const auto* value) { return isSame(place.now, *value, part); };
      if (!isThere(&use.entry->after) || std::any_of(older.begin(), older.end(), isThere)) continue;
      if (missing == Missing::counts || !mayBeMissing(place, part)) return true;
    }
  }
  return false;
}

bool Judgement::isVisible(size_t first, Missing missing) const {
  return std::any_of(places_.begin(), places_.end(),
                     [&](const auto& place) { return showsNew(place.second, first, missing); });
}

// An intent was on the device when its blocks are there. Later changes in place can have changed
// these: then a later intent, or a patch that was made, shows that it was.
bool Judgement::isWhole(size_t intent) const {
  const RunIntent& found = run_[intent];
  if (!found.isTorn) return true;
  const auto vouches = [&](const RunIntent& later) {
    return later.intent.synced >= found.intent.sequence;
  };
  if (std::any_of(run_.begin() + static_cast<std::ptrdiff_t>(intent) + 1, run_.end(), vouches)) {
    return true;
  }
  return found.tiles && isVisible(intent, Missing::isNoSign);
}

// An intent that never was committed has changed nothing. Tables in which its places hold something
// else than what was there before were changed by others, or its blocks were.
std::set<int> Judgement::tracesOfUncommitted() const {
  std::set<int> slots;
  if (committed_ == run_.size()) return slots;
  for (const auto& [where, place] : places_) {
    Values known;
    const IntentEntry* own = nullptr;
    for (const Place::Use& use : place.uses) {
      if (use.intent < committed_) addValues(*use.entry, &known);
      if (use.intent == committed_) own = use.entry;
    }
    if (own == nullptr) continue;
    known.push_back(&own->before);
    if (!isOneOf(place, known)) slots.insert(own->slot);
  }
  return slots;
}

// The table that a place belongs to. The count of tables is changed with the last one added.
int Judgement::slotOf(const Place& place) const {
  int slot = place.uses.front().entry->slot;
  if (place.position != format::kTableCountPos) return slot;
  for (const Place::Use& use : place.uses) {
    if (use.intent < committed_) slot = use.entry->slot;
  }
  return slot;
}

// Table data that a transaction has replaced, and that another program has changed in place since,
// while the slot still named it.
bool Judgement::isReplacedDataChanged(const IntentEntry& entry) const {
  const auto length = format::loadBigEndian<uint32_t>(entry.before.data());
  const auto hash = format::loadBigEndian<uint64_t>(entry.after.data());
  if (hashOf(file_, entry.position, length) == hash) return false;
  const HeldPatches none;
  const auto table = ChainView(file_, none).slot(entry.slot);
  return table && table->firstDataPos == entry.position - format::tabledata::kDataLength;
}

std::set<int> Judgement::changedByOthers() const {
  std::set<int> slots;
  for (const auto& [where, place] : places_) {
    if (place.uses.front().intent >= committed_) continue;
    Values known{&place.uses.front().entry->before};
    for (const Place::Use& use : place.uses) {
      if (use.intent < committed_ && format::isPatch(use.entry->kind)) {
        known.push_back(&use.entry->after);
      }
    }
    if (!isOneOf(place, known)) slots.insert(slotOf(place));
  }
  for (size_t i = 0; i < committed_; ++i) {
    for (const IntentEntry& entry : run_[i].intent.entries) {
      if (isHashed(entry) && isReplacedDataChanged(entry)) slots.insert(entry.slot);
    }
  }
  return slots;
}

// Tables that are added: they and their count come all or none.
std::set<int> Judgement::newTables() const {
  std::set<int> slots;
  for (size_t i = 0; i < committed_; ++i) {
    for (const IntentEntry& entry : run_[i].intent.entries) {
      if (!format::isPatch(entry.kind) || entry.position >= format::kNewFileSize) continue;
      const bool isCount = entry.position == format::kTableCountPos;
      if (isCount || entry.before[0] != format::kSlotMark) slots.insert(entry.slot);
    }
  }
  return slots;
}

Judgement::Verdict Judgement::judge(size_t upTo) const {
  Verdict verdict;
  verdict.contradicted = changedByOthers();
  for (const auto& [where, place] : places_) {
    const IntentEntry* latest = nullptr;
    for (const Place::Use& use : place.uses) {
      if (use.intent < upTo && format::isPatch(use.entry->kind)) latest = use.entry;
    }
    if (latest != nullptr) verdict.latest.emplace_back(&place, latest);
  }
  const auto spread = [&, added = newTables()] {
    if (haveCommon(verdict.contradicted, added)) {
      verdict.contradicted.insert(added.begin(), added.end());
    }
  };
  spread();
  lookAround(upTo, &verdict);
  spread();
  return verdict;
}

// What would come out must hang together around every record that is changed, and at the ends.
void Judgement::lookAround(size_t upTo, Verdict* verdict) const {
  HeldPatches patches;
  for (const auto& [place, entry] : verdict->latest) {  // by position here
    if (verdict->contradicted.count(slotOf(*place)) == 0) {
      patches.hold(place->position, entry->after);
    }
  }
  std::set<int64_t> takenOut;
  std::map<int64_t, int> changed;
  std::set<int> slots;
  for (size_t i = 0; i < upTo; ++i) {
    for (const IntentEntry& entry : run_[i].intent.entries) {
      const bool isRecord = entry.position >= format::kNewFileSize && !isHashed(entry);
      if (!isRecord && !isHashed(entry) && entry.position != format::kTableCountPos) {
        slots.insert(entry.slot);
      } else if (isRecord && format::isPatch(entry.kind)) {
        const bool leadsBack = entry.kind == EntryKind::backLink;
        changed[entry.position - (leadsBack ? format::record::kPrevRecordPos
                                            : format::record::kNextRecordPos)] = entry.slot;
      } else if (isRecord && entry.before.size() == 4) {  // a guard of the time or of the length
        takenOut.insert(entry.position - format::record::kModifyTime);
        takenOut.insert(entry.position - format::record::kDataLength);
      }
    }
  }
  const ChainView view(file_, patches);
  for (const int slot : slots) {
    if (verdict->contradicted.count(slot) != 0) continue;
    const auto table = view.slot(slot);
    if (!table || !view.hasSoundEnds(*table)) verdict->contradicted.insert(slot);
  }
  for (const auto& [block, slot] : changed) {
    if (verdict->contradicted.count(slot) != 0 || takenOut.count(block) != 0) continue;
    const auto table = view.slot(slot);
    if (!table || !view.hangsTogether(*table, block)) verdict->contradicted.insert(slot);
  }
}

void Judgement::decide(RecoveryPlan* plan) const {
  size_t upTo = committed_;
  Verdict verdict = judge(upTo);
  // Of an intent nothing of which is visible, and one of whose tables was changed by others,
  // nothing is begun, nor of those after it.
  while (upTo > 0 && haveCommon(verdict.contradicted, run_[upTo - 1].slots) &&
         !isVisible(upTo - 1, Missing::counts)) {
    --upTo;
  }
  if (upTo < committed_) verdict = judge(upTo);
  const std::set<int> traces = tracesOfUncommitted();
  // In the order in which the entries are in the run.
  std::map<const IntentEntry*, const Place*> places;
  for (const auto& [place, entry] : verdict.latest) places[entry] = place;
  for (size_t i = 0; i < upTo; ++i) {
    for (const IntentEntry& entry : run_[i].intent.entries) {
      const auto found = places.find(&entry);
      if (found == places.end()) continue;
      const Place& place = *found->second;
      const int slot = slotOf(place);
      if (verdict.contradicted.count(slot) != 0 || traces.count(slot) != 0) continue;
      if (place.now != entry.after)
        plan->writes.push_back({place.position, entry.after.copy(), slot});
    }
  }
  for (const int slot : verdict.contradicted) {
    if (!isInPlace(file_, run_, committed_, slot)) plan->contradicted.insert(slot);
  }
  plan->contradicted.insert(traces.begin(), traces.end());
  for (size_t i = 0; i < plan->intents.size(); ++i) {
    plan->intents[i].isWhole = i < committed_;
    plan->intents[i].isBegun = i < upTo;
  }
}

}  // namespace qvdbase::intents
