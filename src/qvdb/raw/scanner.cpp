// Step 4 of a survey: blocks in the bytes that no chain covers.
//
// Every place where a mark stands is looked at, also inside of other candidates: nothing is stepped
// over by a length that was not confirmed. Then candidates compete:
//
//   - One that covers another whole one loses. A torn append claims room that later blocks were
//     written into, and its end mark may seem to be there.
//   - Unless what it covers is no block of this database but part of a database stored as a
//   payload:
//     its tables are in no slot here, and stand nowhere but inside of other blocks.
//   - A candidate that is not whole is cut where the next one begins.
#include <algorithm>

#include "format/block_heads.h"
#include "qvdb/raw/candidates.h"
#include "qvdb/raw/survey.h"

namespace qvdbase::raw {
namespace {

class GapScanner {
 public:
  GapScanner(const ByteSource& source, Survey* survey)
      : source_(source), survey_(*survey), reader_(source, survey) {}

  void scan(const Range& gap) {
    const int64_t unreadableAt = findHits(source_, gap, [&](const ScanHits& hits) {
      for (const int64_t origin : hits.headers) {
        const std::optional<NestedDatabase> nested = reader_.readNested(origin);
        if (!nested) continue;
        survey_.nestedDatabases.push_back(origin);
        for (const Id& table : nested->tables) nested_[table].push_back(origin);
      }
      for (const int64_t position : hits.marks) {
        const std::optional<Block> block = reader_.read(position, gap.end);
        if (block) candidates_.push_back(*block);
      }
    });
    survey_.noteUnreadable(unreadableAt);
  }

  void resolve() {
    establishOwners();
    dropNested();
    findSuccessors();
    accept();
  }

  int64_t unreadableAt() const { return reader_.unreadableAt(); }

 private:
  // An owner is native when a slot knows it, or when a block of it stands outside of all others.
  bool isNative(const Block& block) const {
    return survey_.isKnown(block.owner) || established_[block.owner];
  }

  void establishOwners() {
    established_.assign(survey_.owners.size(), false);
    int64_t covered = 0;
    for (const Block& block : candidates_) {
      if (block.position >= covered) established_[block.owner] = true;
      if (block.grade == Grade::a) covered = std::max(covered, block.end);
    }
  }

  // The nearest nested database before `block` that has its table; 0 for none.
  int64_t nestedOrigin(const Block& block) const {
    const auto found = nested_.find(survey_.owners[block.owner].id);
    if (found == nested_.end()) return 0;
    const std::vector<int64_t>& origins = found->second;  // ascending, as they were found
    const auto behind = std::upper_bound(origins.begin(), origins.end(), block.position);
    return behind == origins.begin() ? 0 : *(behind - 1);
  }

  // A copy of this very database, of an earlier day: the block is here as well, at the same
  // distance from the start.
  bool isCopyOfOwn(const Block& block, int64_t origin) const {
    const int64_t here = block.position - origin;
    const uint32_t number = survey_.byPosition.find(here);
    const Block* own = number != kNoBlock ? &survey_.blocks[number] : candidateAt(here);
    return own != nullptr && own->owner == block.owner && own->recordID == block.recordID &&
           own->createTime == block.createTime;
  }

  const Block* candidateAt(int64_t position) const {
    const auto found = std::lower_bound(
        candidates_.begin(), candidates_.end(), position,
        [](const Block& block, int64_t wanted) { return block.position < wanted; });
    return found != candidates_.end() && found->position == position ? &*found : nullptr;
  }

  void dropNested() {
    if (nested_.empty()) return;
    std::vector<Block> kept;
    int64_t covered = 0;
    for (const Block& block : candidates_) {
      const int64_t origin = nestedOrigin(block);
      const bool isCovered = block.position < covered;
      const bool isNested =
          origin != 0 && (survey_.isKnown(block.owner) ? isCopyOfOwn(block, origin)
                                                       : isCovered || !survey_.tables.empty());
      if (isNested) {
        survey_.nestedBlocks.push_back(block.position);
        continue;
      }
      if (block.grade == Grade::a) covered = std::max(covered, block.end);
      kept.push_back(block);
    }
    candidates_ = std::move(kept);
  }

  // For every candidate the start of the next native one behind it: a whole one, and any.
  void findSuccessors() {
    constexpr int64_t kNever = INT64_MAX;
    nextWhole_.assign(candidates_.size() + 1, kNever);
    nextNative_.assign(candidates_.size() + 1, kNever);
    for (size_t i = candidates_.size(); i-- > 0;) {
      const Block& block = candidates_[i];
      const bool native = isNative(block);
      nextNative_[i] = native ? block.position : nextNative_[i + 1];
      nextWhole_[i] = native && block.grade == Grade::a ? block.position : nextWhole_[i + 1];
    }
  }

  void accept() {
    int64_t covered = 0;
    for (size_t i = 0; i < candidates_.size(); ++i) {
      Block block = candidates_[i];
      if (block.position < covered) {
        if (block.grade == Grade::a) survey_.nestedBlocks.push_back(block.position);
        continue;
      }
      if (!isNative(block)) continue;
      if (block.grade == Grade::a && nextWhole_[i + 1] < block.end) block.grade = Grade::b;
      if (block.grade != Grade::a && nextNative_[i + 1] < block.end) {
        block.flaws |= kCutShort;
        block.end = nextNative_[i + 1];
      }
      covered = block.end;
      survey_.byPosition.add(block.position, static_cast<uint32_t>(survey_.blocks.size()));
      survey_.blocks.push_back(block);
    }
  }

  const ByteSource& source_;
  Survey& survey_;
  CandidateReader reader_;
  std::vector<Block> candidates_;
  std::map<Id, std::vector<int64_t>> nested_;
  std::vector<bool> established_;
  std::vector<int64_t> nextWhole_;
  std::vector<int64_t> nextNative_;
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

// Gives a block whose capacity nothing confirmed the bytes back in which no other was found.
void extendUnbelieved(const std::vector<uint32_t>& order, Survey* survey) {
  for (size_t i = 0; i < order.size(); ++i) {
    Block& block = survey->blocks[order[i]];
    if (!(block.flaws & kUnbelieved)) continue;
    const int64_t limit =
        i + 1 < order.size() ? survey->blocks[order[i + 1]].position : survey->size;
    block.end = std::min(block.claimedEnd(), limit);
    if (block.claimedEnd() > limit && !(block.flaws & kBeyondEnd)) block.flaws |= kCutShort;
  }
}

Leftover kindOf(const ByteSource& source, const Range& range) {
  unsigned char bytes[3] = {};
  const size_t held = source.readAt(range.begin, bytes, sizeof bytes);
  const bool isRecord = bytes[0] == kRecordMark;
  if (held == 0 || (!isRecord && bytes[0] != kTableDataMark)) return Leftover::bytes;
  const auto there = static_cast<size_t>(std::min<int64_t>(range.size(), 3));
  const unsigned char expected[3] = {
      bytes[0], 0, static_cast<unsigned char>(isRecord ? kRecordHeaderSize : kTableDataHeaderSize)};
  return std::equal(bytes, bytes + there, expected) ? Leftover::torn : Leftover::bytes;
}

// The payloads of live blocks hold blocks only when databases are stored in them. Those of dead
// blocks lie in gaps. Comes last: the tables that are met here are no tables of this database.
void scanPayloads(const ByteSource& source, Survey* survey) {
  CandidateReader reader(source, survey);
  for (const Block& block : survey->blocks) {
    if (!block.isReached()) continue;
    const Range payload = {block.dataPos(), block.dataPos() + block.dataThere()};
    if (payload.size() < kTableDataBlockOverhead) continue;
    const int64_t unreadableAt = findHits(source, payload, [&](const ScanHits& hits) {
      for (const int64_t origin : hits.headers) {
        if (reader.readNested(origin)) survey->nestedDatabases.push_back(origin);
      }
      for (const int64_t position : hits.marks) {
        const std::optional<Block> found = reader.read(position, payload.end);
        if (found && found->grade == Grade::a) survey->nestedBlocks.push_back(position);
      }
    });
    survey->noteUnreadable(unreadableAt);
  }
}

}  // namespace

void scanGaps(const ByteSource& source, const SurveyOptions& options, Survey* survey) {
  GapScanner scanner(source, survey);
  for (const Range& gap : gapsBetween(*survey, blocksInFileOrder(*survey))) scanner.scan(gap);
  scanner.resolve();
  survey->noteUnreadable(scanner.unreadableAt());

  if (options.deep) scanPayloads(source, survey);
  std::sort(survey->nestedBlocks.begin(), survey->nestedBlocks.end());
  std::sort(survey->nestedDatabases.begin(), survey->nestedDatabases.end());

  const std::vector<uint32_t> order = blocksInFileOrder(*survey);
  extendUnbelieved(order, survey);
  for (const Range& gap : gapsBetween(*survey, order)) {
    survey->leftovers.push_back({gap, kindOf(source, gap)});
  }
}

}  // namespace qvdbase::raw
