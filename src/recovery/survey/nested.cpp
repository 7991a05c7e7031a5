// Blocks that are parts of payloads.
//
// A payload may hold a database, or a piece of one, or what an older and longer payload has left
// after a shorter one. It may be an older copy of this very database, whose blocks name tables and
// even records of this one. What distinguishes them is where they are, and their links, which count
// from where their own database begins. The first rule that applies decides:
//
//   - A block that its neighbour in this file names belongs to this file, wherever it is.
//   - A block inside a whole block is part of its payload. The whole block must hold no block of
//     the rule above, and its end mark must be its own: a torn append claims space into which
//     other blocks were written, and what looks like its end mark is a byte of one of them.
//   - Where the block that held a database is not whole, the chains of the stored directory lead
//     to blocks of that database. All that is before the end of the last of them belongs to it
//     too, and so does what follows without a gap: a database is one stretch of bytes. The stretch
//     ends where a block begins that is surely this file's, or whose links fit better here.
//   - After the beginning of such a database, a block of one of its tables is part of it if this
//     file has the same block at the same distance from its own beginning, or if its links fit
//     better there than here; and if its table is unknown here, also if they fit neither.
//
// So a block of this file can be taken for a nested one only if no block of this file names it, and
// something before it explains it.
#include <algorithm>
#include <map>
#include <set>

#include "format/identifiers.h"
#include "recovery/survey/candidates.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

// How well a block's links fit a database.
enum class Fit {
  none,
  near,    // a neighbour is there, but names another block
  linked,  // a neighbour is there and names it
};

class NestedJudge {
 public:
  NestedJudge(const Survey& survey, std::vector<Candidate>* candidates)
      : survey_(survey), candidates_(*candidates) {
    for (size_t i = 0; i < candidates_.size(); ++i) {
      byPosition_.add(candidates_[i].block.position, static_cast<uint32_t>(i));
    }
  }

  void judge(const std::vector<Range>& places, CandidateReader* reader) {
    anchor();
    findWholeBlocks();
    isWalked_.assign(places.empty() ? 0 : candidates_.size(), false);
    for (const Range& place : places) {
      if (!isCovered(place.begin)) enterStoredDatabase(place, reader);
    }
    int64_t end = 0;
    auto stretch = stretches_.begin();
    for (Candidate& each : candidates_) {
      const Block& block = each.block;
      for (; stretch != stretches_.end() && stretch->begin < block.position; ++stretch) {
        end = std::max(end, stretch->end);
      }
      if (each.isAnchored || block.isReached()) continue;
      each.isNested = isCovered(block.position) || block.position < end || isStored(block);
    }
  }

 private:
  uint64_t tableOf(const Block& block) const { return survey_.owners[block.owner].number; }

  const Block* blockAt(int64_t position) const {
    if (const Block* const inUse = survey_.blockAt(position)) return inUse;
    const uint32_t candidate = byPosition_.find(position);
    return candidate != kNoBlock ? &candidates_[candidate].block : nullptr;
  }

  // The number of the first candidate at `position` or after it.
  size_t candidateFrom(int64_t position) const {
    const auto found = std::ranges::lower_bound(
        candidates_, position, {}, [](const Candidate& each) { return each.block.position; });
    return static_cast<size_t>(found - candidates_.begin());
  }

  // How well a block fits the database that begins at `origin`.
  Fit fit(const Block& block, int64_t origin) const {
    Fit best = Fit::none;
    if (block.kind != BlockKind::record) return best;
    const auto ask = [&](int64_t link, int64_t Block::*back) {
      if (link <= 0 || link >= survey_.size - origin) return;
      const Block* neighbour = blockAt(origin + link);
      if (neighbour == nullptr || !neighbour->isRecordOf(block.owner)) return;
      const bool isNamed = neighbour->*back == block.position - origin;
      best = std::max(best, isNamed ? Fit::linked : Fit::near);
    };
    ask(block.prev, &Block::next);
    ask(block.next, &Block::prev);
    return best;
  }

  void anchor() {
    for (Candidate& each : candidates_) {
      each.isAnchored = fit(each.block, 0) == Fit::linked;
      if (each.isAnchored) anchoredTables_.insert(tableOf(each.block));
    }
  }

  // ---- whole blocks

  void findWholeBlocks() {
    nextAnchored_.assign(candidates_.size() + 1, INT64_MAX);
    std::vector<bool> isWhole(candidates_.size());
    // Of those after this one, the ones that reach further than all before them; the
    // nearest is the last.
    std::vector<size_t> furthest;
    for (size_t i = candidates_.size(); i-- > 0;) {
      const Block& block = candidates_[i].block;
      nextAnchored_[i] = candidates_[i].isAnchored ? block.position : nextAnchored_[i + 1];
      if (block.grade != Grade::a) continue;
      isWhole[i] = nextAnchored_[i + 1] >= block.end && hasOwnEnd(block, furthest);
      while (!furthest.empty() && candidates_[furthest.back()].block.end <= block.end) {
        furthest.pop_back();
      }
      furthest.push_back(i);
    }
    int64_t covered = 0;
    for (size_t i = 0; i < candidates_.size(); ++i) {
      if (isWhole[i]) covered = std::max(covered, candidates_[i].block.end);
      covered_.push_back(covered);
    }
  }

  // Whether no other that begins inside of the block reaches to its end.
  bool hasOwnEnd(const Block& block, const std::vector<size_t>& furthest) const {
    const auto inside = std::ranges::partition_point(
        furthest, [&](size_t number) { return candidates_[number].block.position >= block.end; });
    return inside == furthest.end() || candidates_[*inside].block.end < block.end;
  }

  // Whether a whole block holds `position`.
  bool isCovered(int64_t position) const {
    const size_t after = candidateFrom(position);
    return after > 0 && covered_[after - 1] > position;
  }

  // ---- databases that no whole block holds

  void enterStoredDatabase(const Range& place, CandidateReader* reader) {
    const std::optional<std::vector<tablePart1>> tables = reader->readNested(place.begin);
    const Block* holder = holderOf(place.begin);
    if (!tables || !(holder != nullptr || canOnlyBeStored(*tables))) return;
    int64_t limit = std::min(place.end, nextAnchored_[candidateFrom(place.begin)]);
    if (holder != nullptr && holder->length <= holder->capacity) {
      limit = std::min(limit, place.begin + holder->length);
    }
    lengthen(place.begin, place.begin + kNewFileSize, limit);
    lengthen(place.begin, endOf(*tables, place.begin, limit), limit);
    for (const tablePart1& table : *tables) {
      places_[identifierNumber(table.tableID)].push_back({place.begin, limit});
    }
  }

  // The block whose payload begins with the database.
  const Block* holderOf(int64_t origin) const {
    for (const int64_t headSize : {record::kData, tabledata::kData}) {
      const Block* const block = blockAt(origin - headSize);
      if (block != nullptr && block->dataPos() == origin) return block;
    }
    return nullptr;
  }

  // In an image without a directory a database that nothing seems to hold may be one of those that
  // are looked for.
  bool canOnlyBeStored(const std::vector<tablePart1>& tables) const {
    return !survey_.tables.empty() || std::ranges::any_of(tables, [&](const tablePart1& table) {
      return anchoredTables_.contains(identifierNumber(table.tableID));
    });
  }

  // Adds a stretch from `origin` to the end of the last of the blocks that follow each other
  // without a gap from `end` on. What other stretches cover is not gone through again.
  void lengthen(int64_t origin, int64_t end, int64_t limit) {
    if (end < stretchesEnd_ || end > limit) return;
    for (uint32_t number = byPosition_.find(end); number != kNoBlock && end < limit;
         number = byPosition_.find(end)) {
      const Candidate& each = candidates_[number];
      if (each.block.isReached() || homeOf(each.block, origin) == Home::here) break;
      end = endOf(each.block);
      if (each.block.grade != Grade::a) break;
    }
    stretches_.push_back({origin, end});
    stretchesEnd_ = end;
  }

  // Where the last of the blocks ends to which the directory leads.
  int64_t endOf(const std::vector<tablePart1>& tables, int64_t origin, int64_t limit) {
    int64_t end = origin;
    for (const tablePart1& table : tables) {
      const Part part = {origin, limit, identifierNumber(table.tableID)};
      follow(part, table.firstRecordPos, &Block::next, &Block::prev, &end);
      follow(part, table.lastRecordPos, &Block::prev, &Block::next, &end);
      const uint32_t data = find(part, table.firstDataPos, BlockKind::tableData);
      if (data != kNoBlock) end = std::max(end, endOf(candidates_[data].block));
    }
    return end;
  }

  static int64_t endOf(const Block& block) {
    return block.grade == Grade::a ? block.end : block.dataPos();
  }

  // Where blocks of a stored table may be.
  struct Part {
    int64_t origin;
    int64_t limit;
    uint64_t table;
  };

  void follow(const Part& part, int64_t position, int64_t Block::*onward, int64_t Block::*back,
              int64_t* end) {
    for (int64_t from = 0; position != 0;) {
      const uint32_t number = find(part, position, BlockKind::record);
      if (number == kNoBlock || isWalked_[number]) return;
      const Block& block = candidates_[number].block;
      if (block.*back != from) return;
      isWalked_[number] = true;  // so that all walks together take one step for each
      *end = std::max(*end, endOf(block));
      from = position;
      position = block.*onward;
    }
  }

  // The candidate at that distance from the origin, if it is of the kind and of the table.
  uint32_t find(const Part& part, int64_t position, BlockKind kind) const {
    if (position <= 0 || position >= part.limit - part.origin) return kNoBlock;
    const uint32_t number = byPosition_.find(part.origin + position);
    if (number == kNoBlock) return kNoBlock;
    const Block& block = candidates_[number].block;
    const bool fits = !block.isReached() && block.kind == kind && tableOf(block) == part.table;
    return fits ? number : kNoBlock;
  }

  // Whether the nearest of these databases before the block explains it.
  bool isStored(const Block& block) const {
    const auto found = places_.find(tableOf(block));
    if (found == places_.end()) return false;
    const std::vector<Range>& places = found->second;  // ascending, as they were entered
    const auto after = std::ranges::lower_bound(places, block.position, {}, &Range::begin);
    if (after == places.begin() || block.position >= (after - 1)->end) return false;
    const Home home = homeOf(block, (after - 1)->begin);
    const bool isForeign = !survey_.tables.empty() && !survey_.isKnown(block.owner);
    return home == Home::there || (home == Home::unknown && isForeign);
  }

  // Whether a block belongs here or to the database that begins at `origin`.
  enum class Home { here, unknown, there };
  Home homeOf(const Block& block, int64_t origin) const {
    if (isCopyOfOwn(block, origin)) return Home::there;
    const Fit here = fit(block, 0);
    const Fit there = fit(block, origin);
    return here > there ? Home::here : here < there ? Home::there : Home::unknown;
  }

  // Whether this file has the same block at the same distance from its own beginning.
  bool isCopyOfOwn(const Block& block, int64_t origin) const {
    const Block* own = blockAt(block.position - origin);
    return own != nullptr && own->owner == block.owner && own->recordID == block.recordID &&
           own->createTime == block.createTime;
  }

  const Survey& survey_;
  std::vector<Candidate>& candidates_;
  PositionIndex byPosition_;
  std::set<uint64_t> anchoredTables_;
  std::vector<int64_t> nextAnchored_;  // for each: where it or the next anchored one begins
  std::vector<int64_t> covered_;  // for each: where of it and all before it the last whole one ends
  std::vector<bool> isWalked_;
  std::vector<Range> stretches_;                   // of these databases
  int64_t stretchesEnd_ = 0;                       // of the furthest
  std::map<uint64_t, std::vector<Range>> places_;  // where they may be, by their tables
};

}  // namespace

void judgeNested(const Survey& survey, const std::vector<Range>& places, CandidateReader* reader,
                 std::vector<Candidate>* candidates) {
  NestedJudge(survey, candidates).judge(places, reader);
}

}  // namespace qvdbase::survey
