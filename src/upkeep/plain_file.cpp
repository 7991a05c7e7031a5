#include "upkeep/plain_file.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "recovery/check/parts.h"
#include "upkeep/dead_tiles.h"
#include "upkeep/tiles.h"

using namespace qvdbase::survey;

namespace qvdbase::upkeep {
namespace {

// A survey that has no blocks, only what comes before them.
Survey surveyDirectory(const ByteSource& source) {
  Survey directory;
  readDirectory(source, {}, &directory);
  for (const Slot& slot : directory.slots) {
    if (!slot.isTable()) continue;
    Table table;
    table.slot = slot.index;
    table.owner = ownerOf(slot.fields.tableID, &directory);
    directory.tables.push_back(std::move(table));
  }
  return directory;
}

// Whether header, directory and counts are without an error, and each table is counted.
bool isPlain(const ByteSource& source, const Survey& directory) {
  check::Check check(source, directory, 0);
  if (!check::checkHeader(check)) return false;
  check::checkDirectory(check);
  for (const Table& table : directory.tables) check::checkCounts(check, table);
  const bool isEachCounted = std::ranges::all_of(
      directory.tables, [&](const Table& each) { return directory.slotOf(each).counted; });
  return isEachCounted && check.count(qvdb::Severity::error) == 0;
}

LiveBlock liveBlockOf(const Tile& tile) {
  return {tile.position, tile.length, tile.capacity, tile.kind};
}

bool takeData(int64_t position, uint32_t owner, Tiles* tiles, LiveTable* table) {
  if (position == 0) return true;
  const uint32_t number = tiles->find(position);
  if (number == Tiles::kNone) return false;
  Tile& tile = (*tiles)[number];
  if (tile.kind != BlockKind::tableData || tile.owner != owner) return false;
  tile.isLive = true;
  table->data = liveBlockOf(tile);
  return true;
}

// No block comes twice: the second time it would not name the one before it.
bool takeChain(const tablePart1& slot, uint32_t owner, Tiles* tiles, LiveTable* table) {
  std::vector<LiveBlock> records;
  records.reserve(std::min(slot.recordCount, tiles->size()));
  int64_t previous = 0;
  int64_t position = slot.firstRecordPos;
  for (uint32_t number = Tiles::kNone; records.size() < slot.recordCount;) {
    number = tiles->find(position, number);
    if (number == Tiles::kNone) return false;
    Tile& tile = (*tiles)[number];
    if (!tile.isRecordOf(owner) || tile.prev != previous) return false;
    tile.isLive = true;
    records.push_back(liveBlockOf(tile));
    previous = std::exchange(position, tile.next);
  }
  table->setRecords(std::move(records));
  return position == 0 && previous == slot.lastRecordPos;
}

}  // namespace

std::optional<LiveDatabase> takePlain(const ByteSource& source) {
  Survey directory = surveyDirectory(source);
  LiveDatabase database;
  if (!isPlain(source, directory) || takeDirectory(source, directory, &database)) return {};
  Tiles tiles;
  if (!tiles.read(source, directory)) return {};
  for (size_t i = 0; i < database.tables.size(); ++i) {
    const tablePart1 slot = database.tables[i].slot;
    const uint32_t owner = directory.tables[i].owner;
    LiveTable* const table = &database.tables[i];
    if (!takeData(slot.firstDataPos, owner, &tiles, table)) return {};
    if (!takeChain(slot, owner, &tiles, table)) return {};
  }
  if (!areDeadTilesExplained(source, tiles, &directory)) return {};
  return database;
}

}  // namespace qvdbase::upkeep
