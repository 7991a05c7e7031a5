#include "recovery/survey/loose_databases.h"

#include <algorithm>

#include "format/identifiers.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

int64_t endOf(const Block& block) {
  return block.grade == Grade::a ? block.end : block.dataPos();
}

}  // namespace

LooseDatabases::LooseDatabases(const Survey& survey, const std::vector<Candidate>& candidates,
                               const BlockFit& blocks)
    : survey_(survey), candidates_(candidates), blocks_(blocks) {
  for (const Candidate& each : candidates) {
    if (each.isAnchored) anchoredTables_.insert(tableOf(each.block));
  }
}

void LooseDatabases::enter(const Range& place, CandidateReader* reader) {
  const std::optional<std::vector<tablePart1>> tables = reader->readNested(place.begin);
  const Block* holder = holderOf(place.begin);
  if (!tables || !(holder != nullptr || canOnlyBeStored(*tables))) return;
  int64_t limit = place.end;
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
const Block* LooseDatabases::holderOf(int64_t origin) const {
  for (const int64_t headSize : {record::kData, tabledata::kData}) {
    const Block* const block = blocks_.blockAt(origin - headSize);
    if (block != nullptr && block->dataPos() == origin) return block;
  }
  return nullptr;
}

// In an image without a directory a database that nothing seems to hold may be one of those that
// are looked for.
bool LooseDatabases::canOnlyBeStored(const std::vector<tablePart1>& tables) const {
  return !survey_.tables.empty() || std::ranges::any_of(tables, [&](const tablePart1& table) {
    return anchoredTables_.contains(identifierNumber(table.tableID));
  });
}

// Adds a stretch from `origin` to the end of the last of the blocks that follow each other without
// a gap from `end` on. What other stretches cover is not gone through again.
void LooseDatabases::lengthen(int64_t origin, int64_t end, int64_t limit) {
  if (end < stretchesEnd_ || end > limit) return;
  for (uint32_t number = blocks_.candidateAt(end); number != kNoBlock && end < limit;
       number = blocks_.candidateAt(end)) {
    const Block& each = candidates_[number].block;
    if (each.isReached() || blocks_.homeOf(each, origin) == Home::here) break;
    end = survey::endOf(each);
    if (each.grade != Grade::a) break;
  }
  stretches_.push_back({origin, end});
  stretchesEnd_ = end;
}

// Where the last of the blocks ends to which the directory leads.
int64_t LooseDatabases::endOf(const std::vector<tablePart1>& tables, int64_t origin,
                              int64_t limit) {
  isWalked_.resize(candidates_.size());
  int64_t end = origin;
  for (const tablePart1& table : tables) {
    const Part part = {origin, limit, identifierNumber(table.tableID)};
    end = std::max(end, follow(part, table.firstRecordPos, &Block::next, &Block::prev));
    end = std::max(end, follow(part, table.lastRecordPos, &Block::prev, &Block::next));
    const uint32_t data = find(part, table.firstDataPos, BlockKind::tableData);
    if (data != kNoBlock) end = std::max(end, survey::endOf(candidates_[data].block));
  }
  return end;
}

// Where the last of the blocks ends to which a chain leads from `position`; 0 if there are none.
int64_t LooseDatabases::follow(const Part& part, int64_t position, int64_t Block::*onward,
                               int64_t Block::*back) {
  int64_t end = 0;
  for (int64_t from = 0; position != 0;) {
    const uint32_t number = find(part, position, BlockKind::record);
    if (number == kNoBlock || isWalked_[number]) break;
    const Block& block = candidates_[number].block;
    if (block.*back != from) break;
    isWalked_[number] = true;  // so that all walks together take one step for each
    end = std::max(end, survey::endOf(block));
    from = position;
    position = block.*onward;
  }
  return end;
}

// The candidate at that distance from the origin, if it is of the kind and of the table.
uint32_t LooseDatabases::find(const Part& part, int64_t position, BlockKind kind) const {
  if (position <= 0 || position >= part.limit - part.origin) return kNoBlock;
  const uint32_t number = blocks_.candidateAt(part.origin + position);
  if (number == kNoBlock) return kNoBlock;
  const Block& block = candidates_[number].block;
  const bool fits = !block.isReached() && block.kind == kind && tableOf(block) == part.table;
  return fits ? number : kNoBlock;
}

bool LooseDatabases::explain(const Block& block) const {
  const auto found = places_.find(tableOf(block));
  if (found == places_.end()) return false;
  const std::vector<Range>& places = found->second;  // ascending, as they were entered
  const auto after = std::ranges::lower_bound(places, block.position, {}, &Range::begin);
  if (after == places.begin() || block.position >= (after - 1)->end) return false;
  const Home home = blocks_.homeOf(block, (after - 1)->begin);
  const bool isForeign = !survey_.tables.empty() && !survey_.isKnown(block.owner);
  return home == Home::there || (home == Home::unknown && isForeign);
}

}  // namespace qvdbase::survey
