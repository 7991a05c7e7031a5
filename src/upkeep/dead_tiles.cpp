#include "upkeep/dead_tiles.h"

#include <algorithm>
#include <vector>

#include "recovery/survey/candidates.h"
#include "support/seeded_hash.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {
namespace {

// The records of dead tiles: for each, its last one. A filter of some bits for each of them answers
// for most records that have no dead tile.
class DeadRecords {
 public:
  struct Entry {
    uint64_t recordID = 0;
    uint32_t last = Tiles::kNone;  // tile
    bool isLive = false;           // the record has a live tile, too
  };

  DeadRecords(const Tiles& tiles, size_t count) : tiles_(tiles) {
    while (places_ < 2 * count) places_ *= 2;
    entries_.resize(places_);
    filter_.resize(places_ * kFilterBits / 64);
  }

  // In the order of the file.
  void add(uint32_t number) {
    const Tile& tile = tiles_[number];
    const uint64_t hash = hashOf(tile);
    Entry& entry = entries_[placeOf(tile, hash)];
    entry.recordID = tile.recordID;
    entry.last = number;
    filter_[wordOf(hash)] |= bitOf(hash);
  }

  // The entry with the tile's record, or null.
  Entry* find(const Tile& tile) {
    const uint64_t hash = hashOf(tile);
    if ((filter_[wordOf(hash)] & bitOf(hash)) == 0) return nullptr;
    Entry& entry = entries_[placeOf(tile, hash)];
    return entry.last == Tiles::kNone ? nullptr : &entry;
  }

  // One for each place; those that hold a record have a tile.
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  static constexpr size_t kFilterBits = 8;  // for a place

  uint64_t hashOf(const Tile& tile) const {
    return support::mixed(tile.recordID + tile.owner, seed_);
  }
  size_t wordOf(uint64_t hash) const {
    return static_cast<size_t>(hash >> 6) & (filter_.size() - 1);
  }
  static uint64_t bitOf(uint64_t hash) { return uint64_t{1} << (hash & 63); }

  size_t placeOf(const Tile& tile, uint64_t hash) const {
    size_t place = static_cast<size_t>(hash >> 20) & (places_ - 1);
    while (entries_[place].last != Tiles::kNone && !isOf(entries_[place], tile)) {
      place = (place + 1) & (places_ - 1);
    }
    return place;
  }
  bool isOf(const Entry& entry, const Tile& tile) const {
    return entry.recordID == tile.recordID && tiles_[entry.last].owner == tile.owner;
  }

  const Tiles& tiles_;
  const support::HashSeed seed_ = support::hashSeed();
  size_t places_ = 64 / kFilterBits;
  std::vector<Entry> entries_;
  std::vector<uint64_t> filter_;
};

class DeadTiles {
 public:
  DeadTiles(const ByteSource& source, const Tiles& tiles, Survey* directory)
      : source_(source),
        tiles_(tiles),
        directory_(*directory),
        reader_(source, directory),
        tables_(directory->knownOwners) {}

  bool areExplained() {
    size_t records = 0;
    for (uint32_t number = 0; number < tiles_.size(); ++number) {
      const Tile& tile = tiles_[number];
      if (tile.isLive) {
        count(tile);
      } else if (tile.kind == BlockKind::record) {
        ++records;
      }
    }
    return areFreeOfBlocks() && areDataReplaced() && (records == 0 || areRecordsOld(records));
  }

 private:
  // What is known of an owner.
  struct Seen {
    uint64_t live = 0;       // records
    uint64_t deleted = 0;    // the same without a live tile
    uint64_t undecided = 0;  // of these, the ones that may never have been counted
    int64_t data = 0;        // where its data is
  };

  void count(const Tile& tile) {
    Seen& table = tables_[tile.owner];
    if (tile.kind == BlockKind::record) {
      ++table.live;
    } else {
      table.data = tile.position;
    }
  }

  // ---- blocks and databases inside of dead tiles, to which these would belong

  bool areFreeOfBlocks() {
    for (const Tiles::Hit& hit : tiles_.hits()) {
      if (!tiles_[hit.tile].isLive && isReal(hit.position, hit.isHeader)) return false;
    }
    for (uint32_t number = 0; number < tiles_.size(); ++number) {
      const Tile& tile = tiles_[number];
      if (!tile.isLive && !Tiles::isSearched(tile) && !isFreeOfBlocks(tile)) return false;
    }
    return true;
  }

  bool isReal(int64_t position, bool isHeader) {
    return isHeader ? reader_.readNested(position).has_value()
                    : reader_.read(position, directory_.size).has_value();
  }

  bool isFreeOfBlocks(const Tile& tile) {
    bool isFree = true;
    const Range range = {std::max(directory_.blocksStart, tile.position - kSlotCountPos),
                         std::min(directory_.size, tile.end() + Tiles::kOverhang)};
    const int64_t unreadableAt = findHits(source_, range, [&](const ScanHits& hits) {
      for (const int64_t position : hits.marks) {
        const bool isInside = position > tile.position && position < tile.end();
        if (isInside && isReal(position, false)) isFree = false;
      }
      for (const int64_t position : hits.headers) {
        if (isReal(position, true)) isFree = false;
      }
    });
    return isFree && unreadableAt < 0;
  }

  // ---- table data

  bool areDataReplaced() const {
    for (uint32_t number = 0; number < tiles_.size(); ++number) {
      const Tile& tile = tiles_[number];
      if (tile.isLive || tile.kind != BlockKind::tableData) continue;
      if (tables_[tile.owner].data < tile.position) return false;
    }
    return true;
  }

  // ---- records

  bool areRecordsOld(size_t count) {
    DeadRecords records(tiles_, count);
    for (uint32_t number = 0; number < tiles_.size(); ++number) {
      const Tile& tile = tiles_[number];
      if (!tile.isLive && tile.kind == BlockKind::record) records.add(number);
    }
    for (uint32_t number = 0; number < tiles_.size(); ++number) {
      const Tile& tile = tiles_[number];
      if (!tile.isLive || tile.kind != BlockKind::record) continue;
      DeadRecords::Entry* const entry = records.find(tile);
      if (entry == nullptr) continue;
      if (entry->last > number) return false;  // a move that was cut off
      entry->isLive = true;
    }
    for (const DeadRecords::Entry& each : records.entries()) {
      if (each.last == Tiles::kNone || each.isLive) continue;
      if (!isDeleted(tiles_[each.last])) return false;
    }
    return std::ranges::all_of(tables_, [this](const Seen& each) { return areDecided(each); });
  }

  // A neighbour that still names it would show that the chain was broken there.
  bool isDeleted(const Tile& tile) {
    const auto names = [&](int64_t neighbour, int64_t Tile::*link) {
      const uint32_t number = tiles_.find(neighbour);
      return number != Tiles::kNone && tiles_[number].isRecordOf(tile.owner) &&
             tiles_[number].*link == tile.position;
    };
    Seen& table = tables_[tile.owner];
    ++table.deleted;
    if (tile.next == 0) ++table.undecided;
    return !names(tile.prev, &Tile::next) && !names(tile.next, &Tile::prev);
  }

  // The slot knows how many records were ever counted. With more of them some may never have been.
  bool areDecided(const Seen& table) const {
    if (table.undecided == 0) return true;
    const auto owner = static_cast<size_t>(&table - tables_.data());
    const Slot* const slot = directory_.slotAt(directory_.owners[owner].slot);
    return table.live + table.deleted <= slot->fields.recordWriteCount;
  }

  const ByteSource& source_;
  const Tiles& tiles_;
  const Survey& directory_;
  CandidateReader reader_;
  std::vector<Seen> tables_;  // by owner
};

}  // namespace

bool areDeadTilesExplained(const ByteSource& source, const Tiles& tiles, Survey* directory) {
  return DeadTiles(source, tiles, directory).areExplained();
}

}  // namespace qvdbase::upkeep
