// One table's chain: R1 to R3, R5 to R10, and D7 for what the slot itself points to.
#include <algorithm>

#include "recovery/check/parts.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::check {
namespace {

class ChainCheck {
 public:
  ChainCheck(Check& check, const Table& table)
      : check_(check), survey_(check.survey), table_(table) {}

  void run() {
    checkEnd(table_.forward, kIsForward);
    checkEnd(table_.backward, !kIsForward);
    checkSharing();
    if (count_ == 0) return;
    checkLength();
    checkBackLinks();
    checkOnlyBackward();
  }

 private:
  static constexpr bool kIsForward = true;

  const Block& block(uint32_t number) const { return survey_.blocks[number]; }

  // Where a walk could not continue: the link, and what it leads to.
  void checkEnd(const Walk& walk, bool isForward) {
    if (walk.end == WalkEnd::complete) return;
    if (walk.blocks.empty()) {
      const int field = isForward ? slot::kFirstRecordPos : slot::kLastRecordPos;
      return explainEnd(walk, "D7", inSlot(slot_, field), "The position of the ",
                        isForward ? "first" : "last", " record");
    }
    const Block& last = block(walk.blocks.back());
    const int64_t field = isForward ? record::kNextRecordPos : record::kPrevRecordPos;
    explainEnd(walk, "R1", inBlock(&slot_, last, field), "The ", isForward ? "next" : "previous",
               " link of the record at ", last.position);
  }

  // `bad` is the code of a link that leads to where no block can begin.
  template <typename... Link>
  void explainEnd(const Walk& walk, const char* bad, const About& about, const Link&... link) {
    const auto error = [&](const char* code, const auto&... what) {
      check_.error(code, about, link..., ", ", walk.stoppedAt, what...);
    };
    switch (walk.end) {
      case WalkEnd::complete:
        return;
      case WalkEnd::outside:
        return error(bad, ", is no place where a block can be: blocks lie from ",
                     survey_.blocksStart, " to ", survey_.size, ".");
      case WalkEnd::notRecord:
        if (isInsideBlock(walk.stoppedAt)) return error(bad, ", leads into the middle of a block.");
        return error("R2", ", leads to no record block.");
      case WalkEnd::otherTable:
        return error("R3", ", leads to a record of another table.");
      case WalkEnd::loop:
        return error("R9", ", leads back to a record that was passed.");
      case WalkEnd::unreadable:
        return error("F5", ", leads to where the system cannot read.");
    }
  }

  bool isInsideBlock(int64_t position) const {
    if (survey_.blockAt(position) != nullptr) return false;
    return std::ranges::any_of(survey_.blocks, [&](const Block& each) {
      return position > each.position && position < each.end;
    });
  }

  // Blocks that the chain of an earlier slot holds already: possible where two slots have the same
  // identifier.
  void checkSharing() {
    const auto shared = std::ranges::count_if(
        table_.forward.blocks, [&](uint32_t number) { return block(number).slot != slot_.index; });
    if (shared == 0) return;
    check_.error("R3", inSlot(slot_), counted(shared, "record"),
                 " of the chain are in another table's chain, too.");
  }

  void checkLength() {
    const std::vector<uint32_t>& blocks = table_.forward.blocks;
    const WalkEnd end = table_.forward.end;
    if (blocks.size() < count_ && end != WalkEnd::loop) {
      About about = inSlot(slot_, slot::kRecordCount);
      if (!blocks.empty()) about = inBlock(&slot_, block(blocks.back()), record::kNextRecordPos);
      check_.error("R5", about, "The chain ", end == WalkEnd::complete ? "ends" : "breaks",
                   " after ", counted(blocks.size(), "record"), " of ", count_, ".");
    }
    if (blocks.empty() || (blocks.size() < count_ && end != WalkEnd::complete)) return;

    const Block& last = block(countedBlocks(survey_, table_).back());
    if (last.next != 0) {
      check_.error("R6", inBlock(&slot_, last, record::kNextRecordPos), "The last of ",
                   counted(count_, "counted record"), ", at ", last.position,
                   ", has a successor at ", last.next, ".");
    }
    if (last.position != slot_.fields.lastRecordPos) {
      check_.error("R7", inSlot(slot_, slot::kLastRecordPos), "The walk from the front ends at ",
                   last.position, ", but the slot's last record is at ", slot_.fields.lastRecordPos,
                   ".");
    }
  }

  void checkBackLinks() {
    int64_t predecessor = 0;
    for (const uint32_t number : countedBlocks(survey_, table_)) {
      const Block& each = block(number);
      if (each.prev != predecessor) {
        check_.error("R8", inBlock(&slot_, each, record::kPrevRecordPos), "The record at ",
                     each.position, " names ", each.prev, " as its predecessor; ",
                     predecessor == 0 ? "it is the first of the chain."
                                      : joined("it follows ", predecessor, "."));
      }
      predecessor = each.position;
    }
  }

  void checkOnlyBackward() {
    uint64_t onlyHere = 0;
    uint64_t older = 0;
    const Block* first = nullptr;
    for (const uint32_t number : table_.backward.blocks) {
      const Block& each = block(number);
      if (each.reach & (kForward | kUncounted)) continue;
      if (first == nullptr) first = &each;
      ++(each.label == Label::superseded ? older : onlyHere);
    }
    if (first == nullptr) return;
    std::string text;
    if (onlyHere > 0) {
      text = joined(counted(onlyHere, "record"), " that the walk from the front does not reach; ",
                    "link repair would drop them", older > 0 ? ", and to " : "");
    }
    if (older > 0) {
      text +=
          joined(counted(older, "older version"), " of records, left by a move that was cut off");
    }
    check_.error("R10", inBlock(&slot_, *first), "From the back, the chain leads to ", text, ".");
  }

  Check& check_;
  const Survey& survey_;
  const Table& table_;
  const Slot& slot_ = survey_.slotOf(table_);
  const uint64_t count_ = slot_.fields.recordCount;
};

}  // namespace

std::span<const uint32_t> countedBlocks(const Survey& survey, const Table& table) {
  const std::span<const uint32_t> blocks = table.forward.blocks;
  return blocks.first(std::min<size_t>(blocks.size(), survey.slotOf(table).fields.recordCount));
}

void checkChain(Check& check, const Table& table) {
  ChainCheck(check, table).run();
}

}  // namespace qvdbase::check
