#include "recovery/mend/mend_plan.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "recovery/check/parts.h"
#include "recovery/mend/chain_completion.h"
#include "recovery/mend/left_over.h"
#include "recovery/mend/open_transactions.h"
#include "recovery/salvage/plan.h"
#include "recovery/survey/packed_data.h"
#include "recovery/survey/words.h"
#include "support/seeded_hash.h"

using namespace qvdbase::support;
using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::mend {
namespace {

using qvdb::CutOffWrites;

// Records, each as the identifiers of its table and of itself.
using Records = std::set<std::pair<uint64_t, uint64_t>>;

// The largest block that is overwritten with zeros: these are held in memory.
constexpr int64_t kMostZeros = int64_t{64} << 20;

// What a salvage would bring back.
Records salvageable(const Survey& survey) {
  Records records;
  const salvage::Plan plan = salvage::makePlan(survey, {});
  for (uint32_t number = 0; number < survey.blocks.size(); ++number) {
    const Block& block = survey.blocks[number];
    if (plan.destination[number] < 0 || block.kind != BlockKind::record) continue;
    records.emplace(survey.owners[block.owner].number, block.recordID);
  }
  return records;
}

void noteGone(const Survey& survey, const Block& each, Records* gone) {
  gone->emplace(survey.owners[each.owner].number, each.recordID);
}

// A piece at the end of the file that may go.
struct Piece {
  int64_t begin;
  int64_t end;
  const Block* block;  // null: bytes that only begin like one
};

// Latest end first.
std::vector<Piece> cutOffPieces(const Survey& survey) {
  std::vector<Piece> pieces;
  for (const auto& [range, kind] : survey.leftovers) {
    if (kind == Leftover::torn) pieces.push_back({range.begin, range.end, nullptr});
  }
  const auto add = [&](const Block& each) { pieces.push_back({each.position, each.end, &each}); };
  for (const Block& each : survey.blocks) {
    const bool isTorn = each.grade != Grade::a && !each.isReached();
    const EarlyBlocks* early = survey.isIntent(each) ? survey.earlyAt(each.position) : nullptr;
    const bool isUncommitted =
        each.label == Label::uncommitted || (early != nullptr && !early->isCommitted);
    if (isTorn || isUncommitted || isLeftOver(each) || isLeftOverData(survey, each)) add(each);
  }
  for (const Table& table : survey.tables) {
    if (!survey.slotOf(table).counted) continue;
    for (const uint32_t number : tailToDiscard(survey, table)) add(survey.blocks[number]);
  }
  std::ranges::stable_sort(pieces, std::ranges::greater(), &Piece::end);
  return pieces;
}

void pointAtData(int64_t position, tablePart1* fields) {
  fields->firstDataPos = fields->lastWrittenDataPos = fields->lastDataPos = position;
  fields->dataBlockCount = 1;
  fields->dataWriteCount = std::max<uint32_t>(fields->dataWriteCount, 1);
}

Patch linkPatch(int64_t position, int64_t value) {
  Patch patch = {position, std::vector<unsigned char>(8)};
  storeBigEndian(patch.bytes.data(), static_cast<uint64_t>(value));
  return patch;
}

// What becomes of the whole blocks of a table that writes which were cut off have left.
class LeftOverBlocks {
 public:
  LeftOverBlocks(const Survey& survey, const Table& table, CutOffWrites cutOff, MendPlan* plan,
                 Records* gone)
      : survey_(survey), table_(table), cutOff_(cutOff), plan_(*plan), gone_(*gone) {}

  // Changes the table's chain and the fields of its slot.
  void decide(std::vector<uint32_t>* chain, tablePart1* fields) {
    if (cutOff_ == CutOffWrites::link) link(chain, fields);
    if (cutOff_ == CutOffWrites::discard) discard(fields);
    if (cutOff_ != CutOffWrites::keep) decideData(fields);
  }

 private:
  const Block& block(uint32_t number) const { return survey_.blocks[number]; }

  template <typename... Parts>
  void step(Parts... parts) {
    plan_.steps.push_back(joined(std::move(parts)...));
  }

  std::vector<uint32_t> records() const {
    std::vector<uint32_t> found;
    for (const uint32_t number : blocksInFileOrder(survey_)) {
      const Block& each = block(number);
      if (each.owner == table_.owner && isLeftOver(each)) found.push_back(number);
    }
    const bool isLinked = cutOff_ == CutOffWrites::link;
    const std::vector<uint32_t> tail =
        isLinked ? tailApart(survey_, table_) : tailToDiscard(survey_, table_);
    found.insert(found.end(), tail.begin(), tail.end());
    std::erase_if(found, [&](uint32_t number) { return block(number).end > plan_.size; });
    return found;
  }

  void link(std::vector<uint32_t>* chain, tablePart1* fields) {
    // By record identifier, its first place in the chain.
    std::unordered_map<uint64_t, size_t, SeededHash> places;
    for (size_t i = 0; i < chain->size(); ++i) places.try_emplace(block((*chain)[i]).recordID, i);
    for (const uint32_t number : records()) {
      const Block& each = block(number);
      const auto [place, isNew] = places.try_emplace(each.recordID, chain->size());
      const std::string record = joined(aboutTable(*fields), "the record at ", each.position);
      if (!isNew) {
        (*chain)[place->second] = number;
        step(record, " takes the place of its older version");
        continue;
      }
      chain->push_back(number);
      ++fields->recordWriteCount;
      fields->lastWrittenRecordPos = each.position;
      step(record, ", which was never linked, is added");
    }
  }

  // Counts them as written. A record that is counted so, and is in no chain, was deleted.
  void discard(tablePart1* fields) {
    for (const uint32_t number : records()) {
      const Block& each = block(number);
      if (each.label == Label::unfinishedRelocation) continue;
      ++fields->recordWriteCount;
      noteGone(survey_, each, &gone_);
      // The records of a batch name each other, as those of a chain that was broken do.
      if (each.next != 0)
        plan_.patches.push_back(linkPatch(each.position + record::kNextRecordPos, 0));
      step(aboutTable(*fields), "the record at ", each.position,
           ", which was never linked, counts as deleted");
    }
  }

  // What becomes of a block that was to become the first data of the table.
  void decideData(tablePart1* fields) {
    const auto found = std::ranges::find_if(survey_.blocks, [&](const Block& each) {
      return each.owner == table_.owner && isLeftOverData(survey_, each);
    });
    if (found == survey_.blocks.end() || found->end > plan_.size) return;
    const std::string data = joined(aboutTable(*fields), "the table data at ", found->position,
                                    ", which was never linked");
    if (cutOff_ == CutOffWrites::link) {
      pointAtData(found->position, fields);
      step(data, ", is added");
    } else if (found->end - found->position <= kMostZeros) {
      // No count can say that data was deleted, so its bytes are taken back, as zeros.
      plan_.patches.push_back({found->position, std::vector<unsigned char>(static_cast<size_t>(
                                                    found->end - found->position))});
      step(data, ", is overwritten with zeros");
    }
  }

  const Survey& survey_;
  const Table& table_;
  const CutOffWrites cutOff_;
  MendPlan& plan_;
  Records& gone_;
};

void countLeftOver(const Survey& survey, MendPlan* plan) {
  for (const Block& each : survey.blocks) {
    if (isLeftOverData(survey, each)) ++plan->leftOverData;
    if (isLeftOver(each)) ++plan->leftOver;
  }
  plan->leftOver += plan->leftOverData;
  for (const Table& table : survey.tables) {
    if (survey.slotOf(table).counted) plan->leftOver += tailApart(survey, table).size();
  }
}

// What the plan comes to.
void verify(const ByteSource& source, const Survey& before, const Records& gone, MendPlan* plan) {
  if (!plan->refusal.empty()) return;
  const PatchedSource mended(source, plan->patches, plan->size);
  const Survey survey = makeSurvey(mended);
  plan->unreadableAt = survey.unreadableAt;
  std::string damage;
  std::string contradiction;
  const auto note = [&](const qvdb::Finding& finding) {
    if (finding.severity != qvdb::Severity::error) return;
    std::string& first = std::string_view(finding.code) == "X3" ? contradiction : damage;
    if (first.empty()) first = check::inSentence(finding);
  };
  static_cast<void>(check::checkSurvey(mended, survey, note));
  if (!damage.empty()) {
    plan->refusal = joined("it has damage that no interrupted operation leaves (", damage, ")");
    return;
  }
  if (!contradiction.empty()) {
    plan->refusal = joined(
        "it is for the caller to choose whether what a transaction has added is linked or "
        "discarded (",
        contradiction, ")");
    return;
  }
  const Records after = salvageable(survey);
  for (const auto& each : salvageable(before)) {
    if (after.contains(each) || gone.contains(each)) continue;
    plan->refusal = joined("the record ", shownId(each.second),
                           " would be lost: there is more than one way to complete the file");
    return;
  }
  countLeftOver(survey, plan);
}

class Planner {
 public:
  Planner(const ByteSource& source, const intents::RecoveryPlan& transactions, CutOffWrites cutOff)
      : source_(source),
        transactions_(transactions),
        cutOff_(cutOff),
        survey_(makeSurvey(source)) {}

  MendPlan make() {
    plan_.size = survey_.size;
    plan_.unreadableAt = survey_.unreadableAt;
    if (plan_.unreadableAt < 0) plan();
    return std::move(plan_);
  }

 private:
  void plan() {
    if (survey_.header.fields.version == kUnfinishedPackVersion) {
      plan_.refusal = "it is an unfinished pack; its source is complete";
      return;
    }
    plan_.steps = completionOf(transactions_);
    if (cutOff_ == CutOffWrites::discard) cutEnd();
    for (const Table& table : survey_.tables) {
      if (survey_.slotOf(table).counted) mendTable(table);
    }
    finishContradicted();
    // The slots last: what they count is then linked.
    for (Patch& slot : slots_) plan_.patches.push_back(std::move(slot));
    verify(source_, survey_, gone_, &plan_);
  }

  // Where the caller has decided what becomes of the blocks of a transaction that another program
  // has contradicted, its mark has served its purpose.
  void finishContradicted() {
    if (cutOff_ == CutOffWrites::keep) return;
    for (const int64_t position : survey_.contradicted) {
      plan_.patches.push_back(unmarked(position));
      step("the transaction at ", position,
           ", which another program has contradicted, counts as finished");
    }
  }

  const Block& block(uint32_t number) const { return survey_.blocks[number]; }

  template <typename... Parts>
  void step(Parts... parts) {
    plan_.steps.push_back(joined(std::move(parts)...));
  }

  // ---- what cut-off writes have left at the end of the file

  void cutEnd() {
    int64_t end = survey_.size;
    for (const Piece& piece : cutOffPieces(survey_)) {
      if (piece.end > end) continue;
      if (piece.end < end) break;
      end = piece.begin;
      if (piece.block != nullptr && piece.block->kind == BlockKind::record)
        noteGone(survey_, *piece.block, &gone_);
    }
    if (end == survey_.size) return;
    plan_.size = end;
    step(survey_.size - end, " bytes of writes that were cut off are removed from the end");
  }

  // ---- tables

  void mendTable(const Table& table) {
    const Slot& slot = survey_.slotOf(table);
    Completion completion = completeChain(survey_, table);
    if (!completion.refusal.empty()) {
      if (plan_.refusal.empty()) plan_.refusal = completion.refusal;
      return;
    }
    tablePart1& fields = completion.slot;
    for (const uint32_t number : completion.gone) noteGone(survey_, block(number), &gone_);
    for (const std::string& each : completion.steps) step(each);
    LeftOverBlocks(survey_, table, cutOff_, &plan_, &gone_).decide(&completion.chain, &fields);
    link(completion.chain);
    fields.recordCount = static_cast<uint32_t>(completion.chain.size());
    fields.recordWriteCount = std::max(fields.recordWriteCount, fields.recordCount);
    if (completion.chain.empty()) {
      fields.firstRecordPos = fields.lastRecordPos = fields.lastWrittenRecordPos = 0;
    } else {
      fields.firstRecordPos = block(completion.chain.front()).position;
      fields.lastRecordPos = block(completion.chain.back()).position;
    }
    pointAtPackedData(table, &fields);
    writeSlot(slot, fields);
  }

  void pointAtPackedData(const Table& table, tablePart1* fields) {
    const uint32_t data = packedData(survey_, table);
    if (data == kNoBlock) return;
    pointAtData(block(data).position, fields);
    step(aboutTable(*fields), "the data that a pack has moved is found at ", block(data).position);
  }

  void link(const std::vector<uint32_t>& chain) {
    int64_t prev = 0;
    for (size_t i = 0; i < chain.size(); ++i) {
      const Block& each = block(chain[i]);
      const int64_t next = i + 1 == chain.size() ? 0 : block(chain[i + 1]).position;
      if (each.next != next)
        plan_.patches.push_back(linkPatch(each.position + record::kNextRecordPos, next));
      if (each.prev != prev)
        plan_.patches.push_back(linkPatch(each.position + record::kPrevRecordPos, prev));
      prev = each.position;
    }
  }

  void writeSlot(const Slot& slot, const tablePart1& fields) {
    Patch before = {slot.position, std::vector<unsigned char>(kSlotImageSize)};
    Patch after = before;
    encodeSlot(slot.fields, before.bytes.data());
    encodeSlot(fields, after.bytes.data());
    if (after.bytes != before.bytes) slots_.push_back(std::move(after));
  }

  const ByteSource& source_;
  const intents::RecoveryPlan& transactions_;
  const CutOffWrites cutOff_;
  const Survey survey_;
  MendPlan plan_;
  std::vector<Patch> slots_;
  Records gone_;  // deleted, or discarded
};

}  // namespace

MendPlan planMend(const ByteSource& source, const intents::RecoveryPlan& transactions,
                  CutOffWrites cutOff) {
  return Planner(source, transactions, cutOff).make();
}

}  // namespace qvdbase::mend
