// What every byte of the file is, and what is wrong with that: S1 to S8.
#include <algorithm>
#include <map>

#include "recovery/check/parts.h"

using namespace qvdbase::format;

namespace qvdbase::check {
namespace {

using survey::Block;
using survey::BlockKind;
using survey::Grade;
using survey::Label;
using survey::Survey;

struct Heap {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  int64_t first = -1;
};

enum class Kind { superseded, deleted, unlinked, undecided, unfinished, lost, orphan };

const char* describe(Kind kind) {
  switch (kind) {
    case Kind::superseded:
      return "older versions of records";
    case Kind::deleted:
      return "deleted records";
    case Kind::unlinked:
      return "records that were appended but never counted";
    case Kind::undecided:
      return "records that were deleted or never counted";
    case Kind::unfinished:
      return "newer versions of records, left by moves that were cut off";
    case Kind::lost:
      return "records of a chain that no longer leads to them";
    case Kind::orphan:
      return "blocks of unknown tables, inside blocks that are not whole";
  }
  return "";
}

class SpaceCheck {
 public:
  SpaceCheck(const survey::ByteSource& source, const Survey& survey, Findings* findings)
      : window_(source), survey_(survey), findings_(*findings) {}

  qvdb::SpaceUse run() {
    space_.directory = static_cast<uint64_t>(std::min(survey_.blocksStart, survey_.size));
    reportOverlaps();
    for (const Block& block : survey_.blocks) place(block);
    reportHeaps();
    reportOrphans();
    reportLeftovers();
    reportNested();
    for (const uint32_t number : survey::blocksInFileOrder(survey_)) {
      if (survey_.blocks[number].label == Label::live) lookBehindPayload(survey_.blocks[number]);
    }
    reportUnused();
    return space_;
  }

 private:
  const survey::Slot* slotOf(const Block& block) const {
    const int slot = survey_.owners[block.owner].slot;
    return slot == survey::kNoSlot ? nullptr : &survey_.slots[static_cast<size_t>(slot)];
  }

  void reportOverlaps() {
    for (const survey::Overlap& overlap : survey_.overlaps) {
      const Block& first = survey_.blocks[overlap.first];
      const Block& second = survey_.blocks[overlap.second];
      findings_.error(
          "S1", {.slot = slotOf(first), .record = first.recordID, .offset = first.position},
          "The block at " + std::to_string(first.position) + " would end at " +
              std::to_string(first.claimedEnd()) + ", behind the start of the next one in use at " +
              std::to_string(second.position) + ".");
    }
  }

  void place(const Block& block) {
    const auto bytes = static_cast<uint64_t>(block.end - block.position);
    uint64_t* const part = partOf(block);
    *part += bytes;
    if (block.isReached()) return;
    if (block.grade != Grade::a) return reportTorn(block);
    if (survey_.isOrphan(block)) return addOrphan(block, bytes);
    const Kind kind = kindOf(block);
    auto& heaps = block.kind == BlockKind::record ? records_ : tableData_;
    Heap& heap = heaps[{survey_.owners[block.owner].slot, kind}];
    ++heap.blocks;
    heap.bytes += bytes;
    if (heap.first < 0) heap.first = block.position;
  }

  void addOrphan(const Block& block, uint64_t bytes) {
    Heap& heap = orphans_[block.owner];
    ++heap.blocks;
    heap.bytes += bytes;
    if (heap.first < 0 || block.position < heap.first) heap.first = block.position;
  }

  uint64_t* partOf(const Block& block) {
    if (survey_.owners[block.owner].slot == survey::kNoSlot) return &space_.orphans;
    switch (block.label) {
      case Label::live:
        return block.kind == BlockKind::record ? &space_.records : &space_.table_data;
      case Label::superseded:
        return &space_.superseded;
      case Label::deleted:
      case Label::deletedOrUnlinked:
        return &space_.deleted;
      case Label::unlinked:
      case Label::unfinishedRelocation:
        return &space_.unlinked;
      case Label::detached:
      case Label::none:
        break;
    }
    return &space_.lost;
  }

  Kind kindOf(const Block& block) const {
    if (survey_.owners[block.owner].slot == survey::kNoSlot) return Kind::orphan;
    switch (block.label) {
      case Label::superseded:
        return Kind::superseded;
      case Label::deleted:
        return Kind::deleted;
      case Label::deletedOrUnlinked:
        return Kind::undecided;
      case Label::unlinked:
        return Kind::unlinked;
      case Label::unfinishedRelocation:
        return Kind::unfinished;
      default:
        return Kind::lost;
    }
  }

  void reportTorn(const Block& block) {
    const bool isRecord = block.kind == BlockKind::record;
    std::string text = std::string(isRecord ? "The record block at " : "The table data at ") +
                       std::to_string(block.position) + " is not whole: ";
    if (block.flaws & survey::kBeyondEnd) {
      text += "it would reach beyond the end of the file";
    } else if (block.flaws & survey::kCutShort) {
      text += "another block begins at " + std::to_string(block.end) + ", inside of it";
    } else if (block.flaws & survey::kNoEndMark) {
      text += "its end mark is missing";
    } else {
      text += "its identifiers or lengths are damaged";
    }
    findings_.warning("S4",
                      {.slot = slotOf(block), .record = block.recordID, .offset = block.position},
                      text + ". Nothing points to it.");
  }

  void reportOrphans() {
    for (const auto& [owner, heap] : orphans_) {
      const uint64_t table = survey_.owners[owner].number;
      findings_.error("S8", {.tableID = table, .offset = heap.first},
                      counted(heap.blocks, "whole block") + ", " + counted(heap.bytes, "byte") +
                          ", of the table " + shownId(table) +
                          ", which the directory does not have.");
    }
  }

  void reportHeaps() {
    for (const auto& [key, heap] : records_) {
      const auto [slot, kind] = key;
      const bool isLoss = kind == Kind::unlinked || kind == Kind::unfinished || kind == Kind::lost;
      reportHeap("S2", isLoss, slot, heap, describe(kind));
    }
    for (const auto& [key, heap] : tableData_) {
      const auto [slot, kind] = key;
      const char* what = kind == Kind::superseded ? "older versions of the table data"
                         : kind == Kind::orphan   ? describe(kind)
                         : kind == Kind::lost     ? "table data that the slot has lost"
                                                  : "table data that was never put in place";
      reportHeap("S3", false, slot, heap, what);
    }
  }

  void reportHeap(const char* code, bool isLoss, int slot, const Heap& heap, const char* what) {
    const About about = {
        .slot = slot == survey::kNoSlot ? nullptr : &survey_.slots[static_cast<size_t>(slot)],
        .offset = heap.first};
    findings_.add(isLoss ? qvdb::Severity::warning : qvdb::Severity::information, code, about,
                  counted(heap.blocks, "unreferenced block") + ", " + counted(heap.bytes, "byte") +
                      ": " + what + ".");
  }

  void reportLeftovers() {
    for (const survey::LeftoverRange& leftover : survey_.leftovers) {
      const survey::Range& range = leftover.range;
      space_.unknown += static_cast<uint64_t>(range.size());
      const bool isAtEnd = range.end == survey_.size;
      const std::string bytes = counted(static_cast<uint64_t>(range.size()), "byte") + " at " +
                                std::to_string(range.begin);
      if (leftover.kind == survey::Leftover::torn) {
        findings_.warning("S4", {.offset = range.begin},
                          bytes + " are the beginning of a block that was never finished" +
                              (isAtEnd ? ", at the end of the file." : "."));
      } else {
        findings_.warning("S5", {.offset = range.begin},
                          bytes + (isAtEnd ? ", behind the last block," : ", between blocks,") +
                              " are no block.");
      }
    }
  }

  void reportNested() {
    const std::vector<int64_t>& blocks = survey_.nestedBlocks;
    const std::vector<int64_t>& databases = survey_.nestedDatabases;
    if (blocks.empty() && databases.empty()) return;
    std::string detail = blocks.empty() ? counted(databases.size(), "header") + " without a block"
                                        : counted(blocks.size(), "block");
    detail += " inside the payloads of others: a database is stored there";
    if (!databases.empty()) {
      detail += ", the first one from offset " + std::to_string(databases.front());
    }
    const int64_t first = blocks.empty() ? databases.front() : blocks.front();
    findings_.information("S6", {.offset = first}, detail + ".");
  }

  // Room that was never used is all zeros, as the library fills it. A payload that was written over
  // a longer one leaves the rest of that behind it; table data has an end mark between the two.
  void lookBehindPayload(const Block& block) {
    if (block.capacity <= block.length || block.isCut()) return;
    int64_t position = block.dataPos() + block.length;
    const int64_t end = position + (block.capacity - block.length);
    space_.reserve += static_cast<uint64_t>(end - position);
    if (block.kind == BlockKind::tableData && window_.byteAt(position) == kBlockEndMark) ++position;
    const uint64_t stale = usedBytes(position, end);
    if (stale == 0) return;
    space_.stale += stale;
    if (++staleBlocks_ == 1) firstStale_ = position;
  }

  // How many bytes there are up to the last one that is not zero.
  uint64_t usedBytes(int64_t begin, int64_t end) {
    int64_t used = begin;
    for (int64_t position = begin; position < end;) {
      const auto count = static_cast<size_t>(
          std::min<int64_t>(end - position, static_cast<int64_t>(survey::Window::kLargestView)));
      const uint8_t* bytes = window_.at(position, count);
      if (bytes == nullptr) break;
      for (size_t i = count; i > 0; --i) {
        if (bytes[i - 1] == 0) continue;
        used = position + static_cast<int64_t>(i);
        break;
      }
      position += static_cast<int64_t>(count);
    }
    return static_cast<uint64_t>(used - begin);
  }

  void reportUnused() {
    // A pack takes along what the chains lead to, and nothing else.
    const uint64_t lost = space_.unlinked + space_.lost + space_.orphans;
    const uint64_t dead = space_.superseded + space_.deleted + space_.unknown + lost;
    if (dead > 0) {
      const std::string warning =
          "; " + std::to_string(lost) + " of them hold what was lost, not deleted";
      findings_.information("S7", {},
                            counted(dead, "byte") + " of " + std::to_string(survey_.size) +
                                " would come back by packing" + (lost > 0 ? warning : "") + ".");
    }
    if (space_.reserve > space_.stale) {
      findings_.information("S7", {},
                            counted(space_.reserve - space_.stale, "byte") +
                                " of spare room in blocks were never used.");
    }
    if (space_.stale > 0) {
      findings_.information("S7", {.offset = firstStale_},
                            counted(space_.stale, "byte") + " of older data can still be read " +
                                "behind the payloads of " + counted(staleBlocks_, "block") + ".");
    }
  }

  survey::Window window_;
  uint64_t staleBlocks_ = 0;
  int64_t firstStale_ = -1;
  const Survey& survey_;
  Findings& findings_;
  qvdb::SpaceUse space_;
  std::map<std::pair<int, Kind>, Heap> records_;
  std::map<std::pair<int, Kind>, Heap> tableData_;
  std::map<uint32_t, Heap> orphans_;  // by their table's number among the owners
};

}  // namespace

qvdb::SpaceUse checkSpace(const survey::ByteSource& source, const Survey& survey,
                          Findings* findings) {
  return SpaceCheck(source, survey, findings).run();
}

}  // namespace qvdbase::check
