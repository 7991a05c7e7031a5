// The blocks of a file that is nothing but whole blocks after its directory, each right after the
// one before it: 52 bytes of memory for each.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "platform/host/large_array.h"
#include "recovery/survey/byte_source.h"
#include "recovery/survey/position_ranges.h"
#include "recovery/survey/survey.h"
#include "recovery/survey/window.h"

namespace qvdbase::upkeep {

struct Tile {
  int64_t position;
  int64_t prev;
  int64_t next;
  uint64_t recordID;
  uint32_t length;
  uint32_t capacity;
  uint8_t owner;  // index in Survey::owners
  survey::BlockKind kind;
  bool isLive;  // in the chain of its table, or its data

  int64_t end() const { return position + survey::headSizeOf(kind) + int64_t{capacity} + 1; }
  bool isRecordOf(uint32_t table) const {
    return kind == survey::BlockKind::record && owner == table;
  }
};

// Many tiles, which stay where they are while others are added, in large pages where the host has
// them.
class TileArray {
 public:
  uint32_t size() const { return size_; }
  Tile& operator[](uint32_t number) { return parts_[number / kPart][number % kPart]; }
  const Tile& operator[](uint32_t number) const { return parts_[number / kPart][number % kPart]; }

  // `more` is how many may follow, this one included.
  void add(const Tile& tile, uint64_t more) {
    const auto space = static_cast<size_t>(std::min<uint64_t>(more, kPart));
    if (size_ % kPart == 0) parts_.emplace_back(space);
    (*this)[size_++] = tile;
  }

 private:
  static constexpr uint32_t kPart = 1 << 17;

  std::vector<platform::LargeArray<Tile>> parts_;
  uint32_t size_ = 0;
};

class Tiles {
 public:
  static constexpr uint32_t kNone = survey::PositionRanges::kNone;

  // A place inside of a tile where the bytes are those with which a block or a database begins.
  struct Hit {
    int64_t position = 0;
    uint32_t tile = 0;
    bool isHeader = false;  // of a database, which would begin there
  };

  // Reads them in the order of the file. `directory` is a survey of the source that has its header
  // and directory; all blocks must be of tables in it. False where anything is not as the library
  // writes it, where the source cannot be read, and where there are very many hits.
  bool read(const survey::ByteSource& source, const survey::Survey& directory);

  uint32_t size() const { return tiles_.size(); }
  Tile& operator[](uint32_t number) { return tiles_[number]; }
  const Tile& operator[](uint32_t number) const { return tiles_[number]; }

  // The number of the tile that begins there, or kNone. It is found at once soon after `near`.
  uint32_t find(int64_t position, uint32_t near = kNone) const {
    constexpr uint32_t kSoon = 6;
    for (uint32_t number = near + 1; number - near <= kSoon && number < size(); ++number) {
      if (tiles_[number].position == position) return number;
    }
    return ranges_.find(position, [this](uint32_t number) { return tiles_[number].position; });
  }

  // Whether the bytes of a tile were read for hits. The payloads of large ones were not.
  static bool isSearched(const Tile& tile) {
    return tile.end() - tile.position + kOverhang <=
           static_cast<int64_t>(survey::Window::kLargestView);
  }
  // In the order of the file.
  const std::vector<Hit>& hits() const { return hits_; }

  static constexpr int64_t kOverhang = 3;  // bytes after the first one that make a hit

 private:
  bool readOne(int64_t position, const survey::Survey& directory, survey::Window* window);
  bool readRest(const Tile& tile, int64_t fileSize, survey::Window* window);
  void addHits(const Tile& tile, const uint8_t* bytes, size_t count);

  TileArray tiles_;
  std::vector<Hit> hits_;
  survey::PositionRanges ranges_;
};

}  // namespace qvdbase::upkeep
