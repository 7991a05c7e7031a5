// Finding and grading candidates.
//
// In random bytes a candidate of grade A comes about with a chance below 2^-64 for each place: mark
// and header size are three bytes, the identifiers' sums four more, and the end mark has to be
// where an equally random capacity says. A table that is in the directory adds ten bytes.
#include "recovery/survey/candidates.h"

#include <algorithm>
#include <cstring>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "format/identifiers.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

constexpr size_t kChunk = size_t{1} << 20;
constexpr size_t kMarkPrefix = record::kTableID;                 // mark and header size
constexpr size_t kSizesPattern = kDirectoryPos - kSlotCountPos;  // slot count and slot size

bool isSizesPattern(const uint8_t* bytes) {
  return loadBigEndian<uint16_t>(bytes) == kNewSlotCount &&
         loadBigEndian<uint16_t>(bytes + (kSlotSizePos - kSlotCountPos)) == kSlotImageSize;
}

// Calls `found` with the offset of each byte `value` among the first `count`.
template <typename Found>
void eachByte(const std::vector<uint8_t>& buffer, size_t count, int value, Found found) {
  const uint8_t* const begin = buffer.data();
  const uint8_t* place = begin;
  while ((place = static_cast<const uint8_t*>(
              std::memchr(place, value, count - static_cast<size_t>(place - begin)))) != nullptr) {
    found(static_cast<size_t>(place - begin));
    ++place;
  }
}

bool looksLikeHeader(const uint8_t* bytes) {
  return isSignature(bytes) && isVersion(loadBigEndian<uint16_t>(bytes + kVersionPos)) &&
         isSizesPattern(bytes + kSlotCountPos);
}

// Where the search continues from `start`: after a large hole, which reads as zeros, but for what a
// header may have in front of its first other byte.
int64_t passHole(const ByteSource& source, int64_t start, const Range& range) {
  if (range.end - start < static_cast<int64_t>(kChunk)) return start;
  const std::optional<platform::FileHole> hole = source.nextHole(start);
  if (!hole || hole->begin > start) return start;
  const int64_t after = hole->end - static_cast<int64_t>(kSizesPattern - 1);
  return std::max(start, std::min(after, range.end));
}

// The hits in the `held` bytes from `start` on: marks from `searchedTo` on, and headers that begin
// in the range.
ScanHits hitsIn(const std::vector<uint8_t>& buffer, size_t held, int64_t start, int64_t searchedTo,
                const Range& range) {
  ScanHits hits;
  const size_t searched = held < kMarkPrefix ? 0 : held - (kMarkPrefix - 1);
  for (const uint8_t mark : {kRecordMark, kTableDataMark}) {
    eachByte(buffer, searched, mark, [&](size_t offset) {
      const int64_t position = start + static_cast<int64_t>(offset);
      if (position < searchedTo || !isBlockStart(buffer.data() + offset)) return;
      hits.marks.push_back(position);
    });
  }
  std::sort(hits.marks.begin(), hits.marks.end());
  eachByte(buffer, held, kSlotImageSize, [&](size_t offset) {
    if (offset < kSizesPattern - 1 || !isSizesPattern(buffer.data() + offset - 3)) return;
    const int64_t origin = start + static_cast<int64_t>(offset) - 3 - kSlotCountPos;
    if (origin >= range.begin) hits.headers.push_back(origin);
  });
  return hits;
}

}  // namespace

int64_t findHits(const ByteSource& source, const Range& range,
                 const std::function<void(const ScanHits&)>& found) {
  std::vector<uint8_t> buffer(
      static_cast<size_t>(std::min<int64_t>(range.size(), static_cast<int64_t>(kChunk))));
  int64_t unreadableAt = -1;
  int64_t searchedTo = range.begin;
  for (int64_t start = passHole(source, range.begin, range); start < range.end;
       start = passHole(source, start, range)) {
    const auto want = static_cast<size_t>(
        std::min<int64_t>(range.end - start, static_cast<int64_t>(buffer.size())));
    const size_t held = source.readAt(start, buffer.data(), want);
    const ScanHits hits = hitsIn(buffer, held, start, searchedTo, range);
    if (!hits.marks.empty() || !hits.headers.empty()) found(hits);
    const int64_t end = start + static_cast<int64_t>(held);
    if (end == range.end) break;
    if (held < want) {
      if (unreadableAt < 0) unreadableAt = end;
      start = searchedTo = nextReadable(source, end, range.end);
    } else {
      // Pieces overlap by what a hit needs after its first byte.
      searchedTo = end - static_cast<int64_t>(kMarkPrefix - 1);
      start = end - static_cast<int64_t>(kSizesPattern - 1);
    }
  }
  return unreadableAt;
}

std::optional<std::vector<tablePart1>> CandidateReader::readNested(int64_t origin) {
  const uint8_t* header = window_.at(origin, kDirectoryPos);
  if (header == nullptr || !looksLikeHeader(header)) return std::nullopt;
  std::vector<tablePart1> tables;
  for (int i = 0; i < kNewSlotCount; ++i) {
    const uint8_t* image = window_.at(origin + slotPosition(i), kSlotImageSize);
    if (image == nullptr) break;
    if (image[slot::kSlotMark] != kSlotMark || image[slot::kSlotEndMark] != kSlotEndMark) continue;
    tablePart1 fields = {};
    decodeSlot(image, &fields);
    if (identifierNumber(fields.tableID) != 0) tables.push_back(fields);
  }
  return tables;
}

// A table of the directory, also when the sum is damaged in the block or in the slot; or any
// identifier with a right sum.
bool CandidateReader::findOwner(const unsigned char* tableID, Block* block, int* errors) {
  const uint64_t number = identifierNumber(tableID);
  const bool sumIsRight = identifierSumIsRight(tableID);
  if (!sumIsRight) block->add(kWrongTableSum);
  Id id;
  std::memcpy(id.data(), tableID, kIdentifierSize);
  const auto found = survey_.ownerNumbers.find(id);
  if (found != survey_.ownerNumbers.end() && survey_.isKnown(found->second)) {
    block->owner = found->second;
    return true;
  }
  for (uint32_t i = 0; i < survey_.knownOwners; ++i) {
    if (survey_.owners[i].number != number) continue;
    block->owner = i;
    if (!sumIsRight) ++*errors;
    return true;
  }
  if (number == 0 || !sumIsRight) return false;
  block->owner = ownerOf(tableID, &survey_);
  return true;
}

void CandidateReader::judgeExtent(int64_t limit, Block* block, int* errors) {
  block->end = std::min(block->claimedEnd(), limit);
  if (block->claimedEnd() > survey_.size) {
    block->add(kBeyondEnd);
  } else if (block->claimedEnd() > limit) {
    block->add(kCutShort);
  } else if (window_.byteAt(block->end - 1) != kBlockEndMark) {
    block->add(kNoEndMark);
  }
  if (block->has(kLengthAboveCapacity | kBeyondEnd | kCutShort | kNoEndMark)) ++*errors;
}

std::optional<Block> CandidateReader::read(int64_t position, int64_t limit) {
  const bool isRecord = window_.byteAt(position) == kRecordMark;
  const int64_t headSize = isRecord ? record::kData : tabledata::kData;
  if (position > limit - headSize) return std::nullopt;
  const uint8_t* bytes = window_.at(position, static_cast<size_t>(headSize));
  if (bytes == nullptr) return std::nullopt;
  Block block = decodeBlock(position, bytes);
  int errors = 0;
  if (!findOwner(bytes + (isRecord ? record::kTableID : tabledata::kTableID), &block, &errors)) {
    return std::nullopt;
  }
  // Without a table of the directory the record's own sum has to be right, or anything would do.
  if (!survey_.isKnown(block.owner) && block.has(kWrongIdSum)) return std::nullopt;
  if (block.has(kWrongIdSum | kZeroId)) ++errors;
  judgeExtent(limit, &block, &errors);
  block.grade = errors == 0 ? Grade::a : errors == 1 ? Grade::b : Grade::c;
  if (block.grade == Grade::c && !survey_.isKnown(block.owner)) return std::nullopt;
  return block;
}

}  // namespace qvdbase::survey
