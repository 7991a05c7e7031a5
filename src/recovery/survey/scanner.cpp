// Step 4 of a survey: blocks in the bytes that no chain covers.
//
// Every place with a mark is looked at, also inside of other candidates: no length that was not
// confirmed is used to skip bytes. Then candidates compete:
//
//   - One that covers another whole one loses. A torn append claims space that later blocks were
//     written into, and its end mark may seem to be there.
//   - Unless what it covers is no block of this file but part of a payload (nested.cpp), or of a
//     table that is in no slot here and occurs only inside of other blocks.
//   - A candidate that is not whole is cut where the next one begins.
//
// A block in use competes as well if its end mark is right but what follows is no block:
// either something came after the last block, or the capacity is damaged and leads to a byte that
// looks like an end mark. It loses to blocks of the directory's tables only, and to those that a
// neighbour in the file names.
#include <algorithm>

#include "format/block_heads.h"
#include "recovery/survey/candidates.h"
#include "recovery/survey/survey.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

// Adds the databases that seem to begin in the range to the survey, and calls `found` with each
// block that seems to.
template <typename Found>
void scanRange(const ByteSource& source, const Range& range, CandidateReader* reader,
               Survey* survey, Found found) {
  survey->noteUnreadable(findHits(source, range, [&](const ScanHits& hits) {
    for (const int64_t origin : hits.headers) {
      if (reader->readNested(origin)) survey->nestedDatabases.push_back(origin);
    }
    for (const int64_t position : hits.marks) {
      const std::optional<Block> block = reader->read(position, range.end);
      if (block) found(*block);
    }
  }));
}

class GapScanner {
 public:
  GapScanner(const ByteSource& source, Survey* survey)
      : source_(source), survey_(*survey), reader_(source, survey) {}

  void scan(const Range& gap) {
    scanRange(source_, gap, &reader_, &survey_,
              [&](const Block& block) { candidates_.push_back({block}); });
    for (size_t i = databases_.size(); i < survey_.nestedDatabases.size(); ++i) {
      databases_.push_back({survey_.nestedDatabases[i], gap.end});
    }
  }

  void resolve() {
    enterBlocksInUse();
    judgeNested(survey_, databases_, &reader_, &candidates_);
    dropNested();
    establishOwners();
    findSuccessors();
    for (size_t i = 0; i < candidates_.size(); ++i) decide(i);
    survey_.noteUnreadable(reader_.unreadableAt());
  }

 private:
  void enterBlocksInUse() {
    constexpr uint8_t kWrongEnd = kBeyondEnd | kCutShort | kNoEndMark | kLengthAboveCapacity;
    const size_t found = candidates_.size();
    for (const Block& block : survey_.blocks) {
      if (!block.has(kUnbelieved) || block.has(kWrongEnd)) continue;
      candidates_.push_back({block});
      candidates_.back().block.end = block.claimedEnd();
    }
    if (candidates_.size() == found) return;
    std::ranges::sort(candidates_, {}, [](const Candidate& each) { return each.block.position; });
  }

  void dropNested() {
    for (const Candidate& each : candidates_) {
      if (each.isNested) survey_.nestedBlocks.push_back(each.block.position);
    }
    std::erase_if(candidates_, [](const Candidate& each) { return each.isNested; });
  }

  // Whether it is surely this database's.
  bool isOwn(const Candidate& each) const {
    return survey_.isKnown(each.block.owner) || each.isAnchored;
  }

  // An owner is native when a slot knows it, or when a block of it belongs here or is outside
  // of all others.
  bool isNative(const Block& block) const {
    return survey_.isKnown(block.owner) || established_[block.owner];
  }

  void establishOwners() {
    established_.assign(survey_.owners.size(), false);
    int64_t covered = 0;
    for (const Candidate& each : candidates_) {
      const Block& block = each.block;
      if (each.isAnchored || block.position >= covered) established_[block.owner] = true;
      if (block.grade == Grade::a) covered = std::max(covered, block.end);
    }
  }

  // Where the next native candidates begin: any, a whole one, and a whole one that is surely this
  // database's.
  struct Successors {
    int64_t native = INT64_MAX;
    int64_t whole = INT64_MAX;
    int64_t own = INT64_MAX;
  };

  void findSuccessors() {
    next_.resize(candidates_.size() + 1);
    for (size_t i = candidates_.size(); i-- > 0;) {
      const Candidate& each = candidates_[i];
      const Block& block = each.block;
      next_[i] = next_[i + 1];
      if (!isNative(block) || block.isReached()) continue;
      next_[i].native = block.position;
      if (block.grade != Grade::a && !each.isAnchored) continue;
      next_[i].whole = block.position;
      if (isOwn(each)) next_[i].own = block.position;
    }
  }

  void decide(size_t i) {
    const Block& block = candidates_[i].block;
    if (block.isReached()) {
      if (next_[i + 1].own >= block.end) confirm(block);
    } else if (block.position < covered_) {
      if (block.grade == Grade::a) survey_.nestedBlocks.push_back(block.position);
    } else if (isNative(block)) {
      accept(i);
    }
  }

  void confirm(const Block& block) {
    Block& inUse = survey_.blocks[survey_.byPosition.find(block.position)];
    inUse.drop(kUnbelieved);
    inUse.end = covered_ = block.end;
  }

  void accept(size_t i) {
    Block block = candidates_[i].block;
    if (block.grade == Grade::a && next_[i + 1].whole < block.end) block.grade = Grade::b;
    if (block.grade != Grade::a && next_[i + 1].native < block.end) {
      block.add(kCutShort);
      block.end = next_[i + 1].native;
    }
    covered_ = block.end;
    survey_.byPosition.add(block.position, static_cast<uint32_t>(survey_.blocks.size()));
    survey_.blocks.push_back(block);
  }

  const ByteSource& source_;
  Survey& survey_;
  CandidateReader reader_;
  std::vector<Candidate> candidates_;
  std::vector<Range> databases_;  // from where each begins to the end of its gap
  std::vector<bool> established_;
  std::vector<Successors> next_;
  int64_t covered_ = 0;
};

std::vector<Range> gapsBetween(const Survey& survey, const std::vector<uint32_t>& order) {
  std::vector<Range> gaps;
  int64_t position = survey.blocksStart;
  for (const uint32_t number : order) {
    const Block& block = survey.blocks[number];
    if (block.position > position) gaps.push_back({position, block.position});
    position = std::max(position, block.end);
  }
  if (position < survey.size) gaps.push_back({position, survey.size});
  return gaps;
}

// Gives a block whose capacity nothing confirmed the bytes back in which no other was found. And
// says of each block whether it begins in what one that is not whole claims before it.
void settleExtents(const std::vector<uint32_t>& order, Survey* survey) {
  int64_t claimed = 0;
  for (size_t i = 0; i < order.size(); ++i) {
    Block& block = survey->blocks[order[i]];
    if (block.has(kUnbelieved)) {
      const int64_t limit =
          i + 1 < order.size() ? survey->blocks[order[i + 1]].position : survey->size;
      block.end = std::min(block.claimedEnd(), limit);
      if (block.claimedEnd() > limit && !block.has(kBeyondEnd)) block.add(kCutShort);
    }
    block.isInTornBlock = block.position < claimed;
    const bool isTorn = block.grade != Grade::a || block.isCut() || block.has(kNoEndMark);
    if (isTorn) claimed = std::max(claimed, block.claimedEnd());
  }
}

Leftover kindOf(const ByteSource& source, const Range& range, Survey* survey) {
  unsigned char bytes[3] = {};
  const size_t held = source.readAt(range.begin, bytes, sizeof bytes);
  if (held == 0) survey->noteUnreadable(range.begin);
  const bool isRecord = bytes[0] == kRecordMark;
  if (held == 0 || (!isRecord && bytes[0] != kTableDataMark)) return Leftover::bytes;
  const auto there = static_cast<size_t>(std::min<int64_t>(range.size(), 3));
  const unsigned char expected[3] = {
      bytes[0], 0, static_cast<unsigned char>(isRecord ? kRecordHeaderSize : kTableDataHeaderSize)};
  return std::equal(bytes, bytes + there, expected) ? Leftover::torn : Leftover::bytes;
}

// The payloads of live blocks hold blocks only when databases are stored in them. Those of dead
// blocks lie in gaps. Comes last: the tables that are found here are no tables of this database.
void scanPayloads(const ByteSource& source, Survey* survey) {
  CandidateReader reader(source, survey);
  for (const Block& block : survey->blocks) {
    if (!block.isReached()) continue;
    const Range payload = {block.dataPos(), block.dataPos() + block.dataThere()};
    if (payload.size() < kTableDataBlockOverhead) continue;
    scanRange(source, payload, &reader, survey, [&](const Block& found) {
      if (found.grade == Grade::a) survey->nestedBlocks.push_back(found.position);
    });
  }
  survey->noteUnreadable(reader.unreadableAt());
}

void sortUnique(std::vector<int64_t>* positions) {
  std::sort(positions->begin(), positions->end());
  positions->erase(std::unique(positions->begin(), positions->end()), positions->end());
}

}  // namespace

void scanGaps(const ByteSource& source, const SurveyOptions& options, Survey* survey) {
  GapScanner scanner(source, survey);
  for (const Range& gap : gapsBetween(*survey, blocksInFileOrder(*survey))) scanner.scan(gap);
  scanner.resolve();

  // The payload of a block in use that nothing confirmed is found twice.
  if (options.deep) scanPayloads(source, survey);
  sortUnique(&survey->nestedBlocks);
  sortUnique(&survey->nestedDatabases);

  const std::vector<uint32_t> order = blocksInFileOrder(*survey);
  settleExtents(order, survey);
  for (const Range& gap : gapsBetween(*survey, order)) {
    survey->leftovers.push_back({gap, kindOf(source, gap, survey)});
  }
}

}  // namespace qvdbase::survey
