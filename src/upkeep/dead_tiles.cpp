#include "upkeep/dead_tiles.h"

#include <algorithm>
#include <bit>
#include <vector>

#include "platform/host/large_array.h"
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
    uint64_t recordID;
    uint32_t tile;  // the number after that of the last one
    uint8_t owner;
    bool isLive;  // the record has a live tile, too
    uint32_t last() const { return tile - 1; }
  };

  explicit DeadRecords(size_t count)
      : places_(std::bit_ceil(std::max<size_t>(count + count / 2, 64))),
        entries_(places_),
        filter_(places_ * kFilterBits / 64) {}

  // In the order of the file.
  void add(uint32_t number, const Tile& tile) {
    const uint64_t hash = hashOf(tile);
    entryOf(tile, hash) = {tile.recordID, number + 1, tile.owner, false};
    filter_[wordOf(hash)] |= bitOf(hash);
  }

  // Whether there may be an entry with the tile's record.
  bool mayHave(const Tile& tile) const {
    const uint64_t hash = hashOf(tile);
    return (filter_[wordOf(hash)] & bitOf(hash)) != 0;
  }

  // The entry with the tile's record, or null.
  Entry* find(const Tile& tile) {
    Entry& entry = entryOf(tile, hashOf(tile));
    return entry.tile == 0 ? nullptr : &entry;
  }

  // To be called a little before.
  void prefetch(const Tile& tile) const { __builtin_prefetch(&entries_[placeOf(hashOf(tile))]); }

 private:
  static constexpr size_t kFilterBits = 8;  // for a place

  uint64_t hashOf(const Tile& tile) const {
    return support::mixed(tile.recordID + tile.owner, seed_);
  }
  size_t wordOf(uint64_t hash) const {
    return static_cast<size_t>(hash >> 6) & (filter_.size() - 1);
  }
  static uint64_t bitOf(uint64_t hash) { return uint64_t{1} << (hash & 63); }

  size_t placeOf(uint64_t hash) const { return static_cast<size_t>(hash >> 20) & (places_ - 1); }

  // That of the record, or the free one where it would be.
  Entry& entryOf(const Tile& tile, uint64_t hash) {
    size_t place = placeOf(hash);
    const auto isOther = [&](const Entry& each) {
      return each.tile != 0 && (each.recordID != tile.recordID || each.owner != tile.owner);
    };
    while (isOther(entries_[place])) place = (place + 1) & (places_ - 1);
    return entries_[place];
  }

  const support::HashSeed seed_ = support::hashSeed();
  const size_t places_;
  platform::LargeArray<Entry> entries_;
  platform::LargeArray<uint64_t> filter_;
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
    for (uint32_t number = 0; number < tiles_.size(); ++number) {
      const Tile& tile = tiles_[number];
      if (!tile.isLive) {
        (tile.kind == BlockKind::record ? records_ : data_).push_back(number);
      } else if (tile.kind == BlockKind::record) {
        ++tables_[tile.owner].live;
      } else {
        tables_[tile.owner].data = tile.position;
      }
    }
    return areFreeOfBlocks() && areDataReplaced() && (records_.empty() || areRecordsOld());
  }

 private:
  // What is known of an owner.
  struct Seen {
    uint64_t live = 0;       // records
    uint64_t deleted = 0;    // the same without a live tile
    uint64_t undecided = 0;  // of these, the ones that may never have been counted
    int64_t data = 0;        // where its data is
  };

  // ---- blocks and databases inside of dead tiles, to which these would belong

  bool areFreeOfBlocks() {
    const bool isAnyReal = std::ranges::any_of(tiles_.hits(), [this](const Tiles::Hit& hit) {
      return !tiles_[hit.tile].isLive && isReal(hit.position, hit.isHeader);
    });
    const auto isFree = [this](uint32_t number) {
      return Tiles::isSearched(tiles_[number]) || isFreeOfBlocks(tiles_[number]);
    };
    return !isAnyReal && std::ranges::all_of(records_, isFree) &&
           std::ranges::all_of(data_, isFree);
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
    return std::ranges::all_of(data_, [this](uint32_t number) {
      const Tile& tile = tiles_[number];
      return tile.position < tables_[tile.owner].data;
    });
  }

  // ---- records

  bool areRecordsOld() {
    DeadRecords records(records_.size());
    // The memory is asked for each entry some time before it is used.
    const auto eachOf = [&](const std::vector<uint32_t>& numbers, const auto& visit) {
      constexpr size_t kAhead = 40;
      for (size_t i = 0; i < numbers.size(); ++i) {
        if (i + kAhead < numbers.size()) records.prefetch(tiles_[numbers[i + kAhead]]);
        if (!visit(numbers[i])) return false;
      }
      return true;
    };
    eachOf(records_, [&](uint32_t number) {
      records.add(number, tiles_[number]);
      return true;
    });
    std::vector<uint32_t> moved;
    for (uint32_t number = 0; number < tiles_.size(); ++number) {
      const Tile& tile = tiles_[number];
      const bool isLive = tile.isLive && tile.kind == BlockKind::record;
      if (isLive && records.mayHave(tile)) moved.push_back(number);
    }
    const bool isWhole = eachOf(moved, [&](uint32_t number) {
      DeadRecords::Entry* const entry = records.find(tiles_[number]);
      if (entry != nullptr) entry->isLive = true;
      return entry == nullptr || entry->last() < number;  // or a move was cut off
    });
    const bool isOld = isWhole && eachOf(records_, [&](uint32_t number) {
                         const DeadRecords::Entry& entry = *records.find(tiles_[number]);
                         return entry.last() != number || entry.isLive || isDeleted(number);
                       });
    return isOld &&
           std::ranges::all_of(tables_, [this](const Seen& each) { return areDecided(each); });
  }

  // A neighbour that still names it would show that the chain was broken there.
  bool isDeleted(uint32_t number) {
    const Tile& tile = tiles_[number];
    const uint32_t near = number < kNear ? Tiles::kNone : number - kNear;
    const auto names = [&](int64_t neighbour, int64_t Tile::*link) {
      const uint32_t found = tiles_.find(neighbour, near);
      return found != Tiles::kNone && tiles_[found].isRecordOf(tile.owner) &&
             tiles_[found].*link == tile.position;
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

  // A neighbour that was not moved begins so few tiles before it, or as soon after it.
  static constexpr uint32_t kNear = 3;

  const ByteSource& source_;
  const Tiles& tiles_;
  const Survey& directory_;
  CandidateReader reader_;
  std::vector<Seen> tables_;       // by owner
  std::vector<uint32_t> records_;  // those that are not live, in the order of the file
  std::vector<uint32_t> data_;     // the same of table data
};

}  // namespace

bool areDeadTilesExplained(const ByteSource& source, const Tiles& tiles, Survey* directory) {
  return DeadTiles(source, tiles, directory).areExplained();
}

}  // namespace qvdbase::upkeep
