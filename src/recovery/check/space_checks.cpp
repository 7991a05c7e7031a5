// What every byte of the file is, and what is wrong with that: S1 to S8. Holes where payloads
// should be: F3.
#include <algorithm>
#include <map>
#include <tuple>

#include "recovery/check/parts.h"
#include "recovery/survey/payload_checksums.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

using qvdb::SpaceUse;

// What became of blocks that no chain holds, in the order in which they are reported.
struct Fate {
  Label label;
  uint64_t SpaceUse::*part;
  bool isLoss;  // of records
  const char* records;
  const char* tableData;
};

constexpr const char* kNeverInPlace = "table data that was never put in place";
constexpr const char* kOfUnknownTables =
    "blocks of unknown tables, inside blocks that are not whole";

constexpr Fate kFates[] = {
    {Label::superseded, &SpaceUse::superseded, false, "older versions of records",
     "older versions of the table data"},
    {Label::deleted, &SpaceUse::deleted, false, "deleted records", kNeverInPlace},
    {Label::unlinked, &SpaceUse::unlinked, true, "records that were appended but never counted",
     kNeverInPlace},
    {Label::deletedOrUnlinked, &SpaceUse::deleted, false,
     "records that were deleted or never counted", kNeverInPlace},
    {Label::unfinishedRelocation, &SpaceUse::unlinked, true,
     "newer versions of records, left by moves that were cut off", kNeverInPlace},
    {Label::detached, &SpaceUse::lost, true, "records of a chain that no longer leads to them",
     "table data that the slot has lost"},
    {Label::none, &SpaceUse::orphans, false, kOfUnknownTables, kOfUnknownTables}};
constexpr const Fate& kLost = kFates[std::size(kFates) - 2];
constexpr const Fate& kOrphan = kFates[std::size(kFates) - 1];

// Reported by themselves: see intent_checks.cpp.
constexpr Fate kIntent = {Label::none, &SpaceUse::superseded, false, "intents", "intents"};
constexpr Fate kUncommitted = {Label::uncommitted, &SpaceUse::unlinked, false,
                               "records that were never committed",
                               "table data that was never committed"};

struct Heap {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  int64_t first = INT64_MAX;

  void add(const Block& block) {
    ++blocks;
    bytes += static_cast<uint64_t>(block.end - block.position);
    first = std::min(first, block.position);
  }
};

// The live blocks in the order of the file.
std::vector<const Block*> liveBlocks(const Survey& survey) {
  std::vector<const Block*> live;
  for (const uint32_t number : blocksInFileOrder(survey)) {
    if (survey.blocks[number].label == Label::live) live.push_back(&survey.blocks[number]);
  }
  return live;
}

// Why a block that nothing points to is not whole.
std::string whyTorn(const Block& block) {
  if (block.has(kBeyondEnd)) return "it would reach beyond the end of the file";
  if (block.has(kCutShort)) return joined("another block begins at ", block.end, ", inside of it");
  if (block.has(kNoEndMark)) return "its end mark is missing";
  return "its identifiers or lengths are damaged";
}

// How many bytes there are up to the last one that is not zero.
uint64_t usedBytes(Window* window, int64_t begin, int64_t end) {
  int64_t used = begin;
  for (int64_t position = begin; position < end;) {
    const auto count = static_cast<size_t>(
        std::min<int64_t>(end - position, static_cast<int64_t>(Window::kLargestView)));
    const uint8_t* bytes = window->at(position, count);
    if (bytes == nullptr) break;
    size_t last = count;
    while (last > 0 && bytes[last - 1] == 0) --last;
    if (last > 0) used = position + static_cast<int64_t>(last);
    position += static_cast<int64_t>(count);
  }
  return static_cast<uint64_t>(used - begin);
}

class SpaceCheck {
 public:
  explicit SpaceCheck(Check& check) : check_(check), window_(check.source) {}

  SpaceUse run() {
    space_.directory = static_cast<uint64_t>(std::min(survey_.blocksStart, survey_.size));
    for (const Overlap& each : survey_.overlaps) reportOverlap(each);
    for (const Block& each : survey_.blocks) count(each);
    reportUnreferenced();
    for (const LeftoverRange& each : survey_.leftovers) reportLeftover(each);
    reportNested();
    for (const Block* each : liveBlocks(survey_)) lookAtSpare(*each);
    reportDead();
    reportSpare();
    return space_;
  }

 private:
  void reportOverlap(const Overlap& overlap) {
    const Block& first = survey_.blocks[overlap.first];
    check_.error("S1", inBlock(survey_.ownerSlot(first), first), "The block at ", first.position,
                 " would end at ", first.claimedEnd(),
                 ", after the start of the next one in use at ",
                 survey_.blocks[overlap.second].position, ".");
  }

  // ---- blocks, by what they are

  void count(const Block& block) {
    const Fate& fate = fateOf(block);
    const bool isInUse = block.label == Label::live && fate.label != Label::none;
    const auto part = !isInUse                          ? fate.part
                      : block.kind == BlockKind::record ? &SpaceUse::records
                                                        : &SpaceUse::table_data;
    space_.*part += static_cast<uint64_t>(block.end - block.position);
    if (block.isReached() || survey_.isIntent(block) || block.label == Label::uncommitted) return;
    if (block.grade != Grade::a) return reportTorn(block);
    if (survey_.isOrphan(block)) return orphans_[block.owner].add(block);
    heaps_[{block.kind, survey_.owners[block.owner].slot, &fate}].add(block);
  }

  const Fate& fateOf(const Block& block) const {
    if (survey_.isIntent(block)) return kIntent;
    if (block.label == Label::uncommitted) return kUncommitted;
    if (survey_.ownerSlot(block) == nullptr) return kOrphan;
    return *std::find_if(kFates, &kLost,
                         [&](const Fate& each) { return each.label == block.label; });
  }

  void reportTorn(const Block& block) {
    const bool isRecord = block.kind == BlockKind::record;
    check_.warning("S4", inBlock(survey_.ownerSlot(block), block),
                   isRecord ? "The record block at " : "The table data at ", block.position,
                   " is not whole: ", whyTorn(block), ". Nothing points to it.");
  }

  void reportUnreferenced() {
    for (const auto& [key, heap] : heaps_) {
      const auto& [kind, slot, fate] = key;
      const bool isRecord = kind == BlockKind::record;
      check_.add(
          isRecord && fate->isLoss ? qvdb::Severity::warning : qvdb::Severity::information,
          isRecord ? "S2" : "S3", {.slot = survey_.slotAt(slot), .offset = heap.first},
          joined(counted(heap.blocks, "unreferenced block"), ", ", counted(heap.bytes, "byte"),
                 ": ", isRecord ? fate->records : fate->tableData, "."));
    }
    for (const auto& [owner, heap] : orphans_) {
      const uint64_t table = survey_.owners[owner].number;
      check_.error("S8", {.tableID = table, .offset = heap.first},
                   counted(heap.blocks, "whole block"), ", ", counted(heap.bytes, "byte"),
                   ", of the table ", shownId(table), ", which the directory does not have.");
    }
  }

  // ---- bytes that are no block, and blocks that are payload

  void reportLeftover(const LeftoverRange& leftover) {
    const Range& range = leftover.range;
    space_.unknown += static_cast<uint64_t>(range.size());
    if (leftover.kind == Leftover::torn && survey_.endsEarlyBlocks(range)) return;
    const bool isAtEnd = range.end == survey_.size;
    const About about = {.offset = range.begin};
    const std::string bytes = joined(counted(range.size(), "byte"), " at ", range.begin);
    if (leftover.kind == Leftover::torn) {
      check_.warning("S4", about, bytes, " are the beginning of a block that was never finished",
                     isAtEnd ? ", at the end of the file." : ".");
    } else {
      check_.warning("S5", about, bytes, isAtEnd ? ", after the last block," : ", between blocks,",
                     " are no block.");
    }
  }

  void reportNested() {
    const std::vector<int64_t>& blocks = survey_.nestedBlocks;
    const std::vector<int64_t>& databases = survey_.nestedDatabases;
    if (blocks.empty() && databases.empty()) return;
    const int64_t first = blocks.empty() ? databases.front() : blocks.front();
    const std::string what = blocks.empty()
                                 ? counted(databases.size(), "header") + " without a block"
                                 : counted(blocks.size(), "block");
    std::string where;
    if (!databases.empty()) where = joined(", the first one from offset ", databases.front());
    check_.information("S6", {.offset = first}, what,
                       " inside the payloads of others: a database is stored there", where, ".");
  }

  // ---- bytes between payloads and the ends of their blocks

  // Spare bytes that were never used are zeros, as the library fills them. A payload that was
  // written over a longer one leaves the rest of that after it; table data has an end mark between
  // the two.
  void lookAtSpare(const Block& block) {
    if (block.capacity <= block.length || block.isCut()) return;
    int64_t position = block.dataPos() + block.length;
    const int64_t end = position + (block.capacity - block.length);
    space_.reserve += static_cast<uint64_t>(end - position);
    if (block.kind == BlockKind::tableData && window_.byteAt(position) == kBlockEndMark) ++position;
    const uint64_t stale = hasChecksumSpace(block) ? staleBeforeChecksum(position, end)
                                                   : usedBytes(&window_, position, end);
    if (stale == 0) return;
    space_.stale += stale;
    if (++staleBlocks_ == 1) firstStale_ = position;
  }

  // A checksum is no older data. From front to back, as the window likes it.
  uint64_t staleBeforeChecksum(int64_t position, int64_t end) {
    const int64_t sum = end - int64_t{checksum::kSize};
    const uint64_t stale = usedBytes(&window_, position, sum);
    const uint8_t* const bytes = window_.at(sum, checksum::kSize);
    if (bytes != nullptr && isChecksum(bytes)) return stale;
    const uint64_t last = usedBytes(&window_, sum, end);
    return last > 0 ? static_cast<uint64_t>(sum - position) + last : stale;
  }

  void reportSpare() {
    if (space_.reserve > space_.stale) {
      check_.information("S7", {}, counted(space_.reserve - space_.stale, "byte"),
                         " of spare capacity in blocks were never used.");
    }
    if (space_.stale > 0) {
      check_.information("S7", {.offset = firstStale_}, counted(space_.stale, "byte"),
                         " of older data can still be read after the payloads of ",
                         counted(staleBlocks_, "block"), ".");
    }
  }

  // A pack takes along what the chains lead to, and nothing else.
  void reportDead() {
    const uint64_t dead = space_.unused(static_cast<uint64_t>(survey_.size));
    if (dead == 0) return;
    const uint64_t lost = space_.unlinked + space_.lost + space_.orphans;
    std::string warning;
    if (lost > 0) warning = joined("; ", lost, " of them hold what was lost, not deleted");
    check_.information("S7", {}, "Packing would free ", counted(dead, "byte"), " of ", survey_.size,
                       warning, ".");
  }

  Check& check_;
  const Survey& survey_ = check_.survey;
  Window window_;
  SpaceUse space_;
  std::map<std::tuple<BlockKind, int, const Fate*>, Heap> heaps_;  // by kind, slot and fate
  std::map<uint32_t, Heap> orphans_;  // by their table's number among the owners
  uint64_t staleBlocks_ = 0;
  int64_t firstStale_ = -1;
};

// A block is written whole, its spare capacity with fill. So the library did not leave a hole in
// it: a copying program made it of zeros, or the system lost what was written there, as happens on
// file systems that store the size of a file before its contents.
void reportHole(Check& check, const Block& block, int64_t from, int64_t to) {
  const bool isRecord = block.kind == BlockKind::record;
  check.warning("F3", inBlock(check.survey.slotAt(block.slot), block, from - block.position),
                "From here, ", counted(to - from, "byte"), " of ",
                isRecord ? "the record at " : "the table data at ", block.position,
                " are a hole in the file and read as zeros.");
}

}  // namespace

SpaceUse checkSpace(Check& check) {
  return SpaceCheck(check).run();
}

// Blocks and holes both in the order of the file.
void checkHoles(Check& check) {
  std::optional<platform::FileHole> hole = check.source.nextHole(check.survey.blocksStart);
  if (!hole) return;
  for (const Block* block : liveBlocks(check.survey)) {
    const int64_t begin = block->dataPos();
    const int64_t end = begin + block->dataThere();
    if (hole->end <= begin) hole = check.source.nextHole(begin);
    if (!hole) return;
    if (hole->begin >= end) continue;
    reportHole(check, *block, std::max(hole->begin, begin), std::min(hole->end, end));
  }
}

}  // namespace qvdbase::check
