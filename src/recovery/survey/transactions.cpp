// Step 5 of a survey: blocks of transactions that are not complete.
//
// What a transaction writes before its intent comes after a prelude. Without that intent the blocks
// are those of a transaction that was never committed.
//
// A transaction that another program has contradicted in a table is marked so in its intent. What
// it has added to that table was committed and never linked, whatever the counts in the slot say.
// The mark does not say in which of its tables: where a walk reaches any block of the transaction,
// the table has it.
#include <algorithm>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "format/intent.h"
#include "recovery/survey/survey.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

// Where an intent and the blocks of its transaction are. Genuine ones do not overlap.
struct Extent {
  int64_t intent = 0;
  Range all;
};

// What an intent of this database says of itself; nothing where it is damaged.
std::optional<Extent> extentOf(const ByteSource& source, const Survey& survey, const Block& block) {
  std::vector<unsigned char> bytes(static_cast<size_t>(block.end - block.position));
  if (!source.readAll(block.position, bytes.data(), bytes.size())) return std::nullopt;
  const auto intent = decodeIntent(bytes, survey.header.fields.databaseID);
  if (!intent || intent->position != block.position) return std::nullopt;
  if (intent->lengthBefore < survey.blocksStart || intent->lengthBefore > block.position ||
      intent->blocksLength > static_cast<uint64_t>(survey.size - block.end)) {
    return std::nullopt;
  }
  const int64_t end = block.end + static_cast<int64_t>(intent->blocksLength);
  return Extent{block.position, {intent->lengthBefore, end}};
}

bool isMarked(const ByteSource& source, const Block& block) {
  unsigned char state = 0;
  return block.grade == Grade::a && block.length > intent::kState &&
         source.readAll(block.dataPos() + intent::kState, &state, 1) &&
         state == kIntentContradicted;
}

std::optional<Prelude> preludeAt(const ByteSource& source, const Survey& survey,
                                 const Block& block) {
  PreludeBlock bytes;
  if (block.grade != Grade::a || block.end - block.position != prelude::kBlockSize ||
      !source.readAll(block.position, bytes.data(), bytes.size())) {
    return std::nullopt;
  }
  const auto found = decodePrelude(bytes, survey.header.fields.databaseID);
  if (!found || found->position != block.position || found->length < 0) return std::nullopt;
  return found;
}

class Transactions {
 public:
  Transactions(const ByteSource& source, Survey* survey)
      : source_(source), survey_(*survey), order_(blocksInFileOrder(survey_)) {}

  void note() {
    std::optional<Prelude> open;  // whose intent was not found yet
    for (const uint32_t number : order_) {
      const Block& each = survey_.blocks[number];
      if (!survey_.isIntent(each)) continue;
      if (const auto prelude = preludeAt(source_, survey_, each)) {
        if (open) noteUncommitted(*open);
        open = prelude;
        continue;
      }
      noteIntent(each, &open);
    }
    if (open) noteUncommitted(*open);
  }

 private:
  // An intent says where its transaction began. The first one after a prelude is of the same
  // transaction, or of one that came when that was over.
  void noteIntent(const Block& block, std::optional<Prelude>* open) {
    const bool isContradicted = isMarked(source_, block);
    if (isContradicted) survey_.contradicted.push_back(block.position);
    if (!isContradicted && !*open) return;
    const auto extent = extentOf(source_, survey_, block);
    if (!extent) return;
    if (*open && extent->all.begin == (*open)->position) {
      survey_.early.push_back({(*open)->position, {}, 0, true});
      open->reset();
    }
    if (isContradicted && extent->all.begin >= last_) noteContradicted(*extent);
  }

  // Its blocks follow one after the other. Where they were cut off, others can have followed within
  // the length that it says, which are later.
  void noteUncommitted(const Prelude& prelude) {
    const int64_t begin = prelude.position + prelude::kBlockSize;
    const int64_t end = std::min(survey_.size - begin, prelude.length) + begin;
    EarlyBlocks early{prelude.position, {begin, begin}, 0, false};
    std::vector<Block*> own;
    for (const uint32_t number : within({begin, end})) {
      Block& each = survey_.blocks[number];
      const bool isLater = each.kind == BlockKind::record && each.modifyTime > prelude.time;
      if (each.position != early.range.end || isLater || survey_.isIntent(each)) break;
      if (each.isReached()) return noteCommitted(prelude);
      own.push_back(&each);
      early.range.end = each.end;
      if (each.grade != Grade::a) break;
    }
    for (Block* each : own) each->label = Label::uncommitted;
    early.blocks = own.size();
    survey_.early.push_back(early);
  }

  // Something leads to one of its blocks: its intent was damaged.
  void noteCommitted(const Prelude& prelude) {
    survey_.early.push_back({prelude.position, {}, 0, true});
  }

  std::span<const uint32_t> within(const Range& range) const {
    const auto position = [this](uint32_t number) { return survey_.blocks[number].position; };
    const auto begin = std::ranges::lower_bound(order_, range.begin, {}, position);
    const auto end = std::ranges::lower_bound(order_, range.end, {}, position);
    return {begin, end};
  }

  void noteContradicted(const Extent& extent) {
    last_ = extent.all.end;
    const auto own = within(extent.all);
    std::set<uint32_t> complete;  // owners
    for (const uint32_t number : own) {
      const Block& each = survey_.blocks[number];
      if (each.isReached()) complete.insert(each.owner);
    }
    for (const uint32_t number : own) {
      Block& each = survey_.blocks[number];
      each.isOfContradicted = !complete.contains(each.owner);
    }
  }

  const ByteSource& source_;
  Survey& survey_;
  const std::vector<uint32_t> order_;
  int64_t last_ = 0;  // the end of the last extent that was noted
};

}  // namespace

void noteTransactions(const ByteSource& source, Survey* survey) {
  if (survey->ownerNumbers.contains(kIntentTableID)) Transactions(source, survey).note();
}

}  // namespace qvdbase::survey
