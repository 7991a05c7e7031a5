#include "upkeep/tiles.h"

#include <algorithm>
#include <cstring>

#include "format/block_heads.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {
namespace {

constexpr size_t kMostHits = 65536;

static_assert(record::kTableID == tabledata::kTableID);
static_assert(kRecordHeaderSize < 256 && kTableDataHeaderSize < 256 && kNewSlotCount < 256);

// The numbers of slots and of bytes in a slot, as each header has them.
bool isSizesPattern(const uint8_t* bytes) {
  return loadBigEndian<uint16_t>(bytes) == kNewSlotCount &&
         loadBigEndian<uint16_t>(bytes + sizeof(uint16_t)) == kSlotImageSize;
}

// Whether there may be a hit at any of `count` places. Without a branch in the loop, which becomes
// one for vectors so; a part of a hit is enough to rule nearly all places out.
bool mayHaveHit(const uint8_t* bytes, size_t count) {
  uint8_t found = 0;
  for (size_t i = 0; i < count; ++i) {
    const int isMark = (bytes[i] == kRecordMark) | (bytes[i] == kTableDataMark);
    const int isBlock = isMark & (bytes[i + 1] == 0);
    const int isHeader = (bytes[i] == 0) & (bytes[i + 2] == 0) & (bytes[i + 3] == kSlotImageSize);
    found = static_cast<uint8_t>(found | isBlock | isHeader);
  }
  return found != 0;
}

// The owner in the directory with that identifier, whose sum counts too; kNoBlock if there is none.
uint32_t ownerWith(const uint8_t* id, const Survey& directory) {
  for (uint32_t owner = 0; owner < directory.knownOwners; ++owner) {
    if (std::memcmp(id, directory.owners[owner].id.data(), kIdentifierSize) == 0) return owner;
  }
  return kNoBlock;
}

}  // namespace

bool Tiles::read(const ByteSource& source, const Survey& directory) {
  Window window(source);
  int64_t position = directory.blocksStart;
  while (position < directory.size) {
    if (!readOne(position, directory, &window) || hits_.size() > kMostHits) return false;
    position = tiles_[size() - 1].end();
  }
  ranges_ = PositionRanges(size(), [this](uint32_t number) { return tiles_[number].position; });
  return true;
}

bool Tiles::readOne(int64_t position, const Survey& directory, Window* window) {
  const int64_t left = directory.size - position;
  if (left < tabledata::kData || size() == kNone) return false;
  const uint8_t* const bytes =
      window->at(position, static_cast<size_t>(std::min(left, int64_t{record::kData})));
  if (bytes == nullptr || !isBlockStart(bytes)) return false;
  if (*bytes == kRecordMark && left < record::kData) return false;
  const Block block = decodeBlock(position, bytes);
  const uint32_t owner = ownerWith(bytes + record::kTableID, directory);
  if (block.flaws != 0 || owner == kNoBlock || block.claimedEnd() > directory.size) return false;
  const Tile tile = {position,
                     block.prev,
                     block.next,
                     block.recordID,
                     block.length,
                     block.capacity,
                     static_cast<uint8_t>(owner),
                     block.kind,
                     false};
  tiles_.add(tile, static_cast<uint64_t>(left / kTableDataBlockOverhead) + 1);
  return readRest(tile, directory.size, window);
}

// The end mark, and the hits of a tile that is not large.
bool Tiles::readRest(const Tile& tile, int64_t fileSize, Window* window) {
  const int64_t end = tile.end();
  if (!isSearched(tile)) return window->byteAt(end - 1) == kBlockEndMark;
  const auto size = static_cast<size_t>(end - tile.position);
  const auto there = static_cast<size_t>(std::min(end + kOverhang, fileSize) - tile.position);
  const uint8_t* const bytes = window->at(tile.position, there);
  if (bytes == nullptr || bytes[size - 1] != kBlockEndMark) return false;
  const size_t places = std::min(size, there - static_cast<size_t>(kOverhang)) - 1;
  if (mayHaveHit(&bytes[1], places)) addHits(tile, bytes, places + 1);
  return true;
}

void Tiles::addHits(const Tile& tile, const uint8_t* bytes, size_t count) {
  for (size_t i = 1; i < count; ++i) {
    if (bytes[i] != 0 && bytes[i + 1] != 0) continue;
    const int64_t position = tile.position + static_cast<int64_t>(i);
    if (isBlockStart(bytes + i)) hits_.push_back({position, size() - 1, false});
    if (isSizesPattern(bytes + i)) hits_.push_back({position - kSlotCountPos, size() - 1, true});
  }
}

}  // namespace qvdbase::upkeep
