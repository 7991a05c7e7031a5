// Step 1 of a survey: the header and the slots.
//
// The slots are taken as the header lays them out, unless that makes no sense; then as every file
// is made, 32 of 144 bytes.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "format/Aliment8.h"
#include "format/block_heads.h"
#include "format/identifiers.h"
#include "recovery/survey/survey.h"

using namespace qvdbase::format;

namespace qvdbase::survey {
namespace {

constexpr int kLargestStride = 4096;
constexpr int kMostSlots = 127;

struct Layout {
  int slotCount;
  int stride;
  int64_t end() const { return directoryEnd(slotCount, stride); }
};

constexpr Layout kUsualLayout = {kNewSlotCount, kSlotImageSize};

void readHeader(const ByteSource& source, Survey* survey) {
  unsigned char bytes[kDirectoryPos] = {};
  survey->headerThere = source.readAll(0, bytes, sizeof bytes);
  if (survey->isHeaderUnreadable()) {
    survey->noteUnreadable(static_cast<int64_t>(source.readAt(0, bytes, sizeof bytes)));
  }
  Header& header = survey->header;
  std::memcpy(header.fields.signature, bytes, kSignatureSize);
  header.fields.version = loadBigEndian<uint16_t>(bytes + kVersionPos);
  std::memcpy(header.fields.databaseID, bytes + kDatabaseIDPos, kIdentifierSize);
  header.fields.databaseIDPos = kDatabaseIDPos;
  header.tableCount = static_cast<int16_t>(loadBigEndian<uint16_t>(bytes + kTableCountPos));
  header.slotCount = loadBigEndian<uint16_t>(bytes + kSlotCountPos);
  header.slotSize = loadBigEndian<uint16_t>(bytes + kSlotSizePos);
}

std::vector<Slot> readSlots(const ByteSource& source, const Layout& layout, int tableCount) {
  std::vector<Slot> slots;
  for (int i = 0; i < layout.slotCount; ++i) {
    Slot slot;
    slot.index = i;
    slot.position = slotPosition(i, layout.stride);
    if (!source.readAll(slot.position, slot.image.data(), kSlotImageSize)) break;
    decodeSlot(slot.image.data(), &slot.fields);
    slot.counted = i < tableCount;
    slots.push_back(slot);
  }
  return slots;
}

// Slots that are as the slot writer leaves them: fillers and group sizes.
bool isWellFormed(const Slot& slot) {
  return slot.image[slot::kGaps[0].begin] == kSlotFiller &&
         slot.image[slot::kInfoSize] == kInfoSize &&
         slot.image[slot::kRecordsInfoSize] == kRecordsInfoSize &&
         slot.image[slot::kDataInfoSize] == kDataInfoSize;
}

// Whether these have as many tables, and as many well-formed slots, as the others.
bool areAsGood(const std::vector<Slot>& slots, const std::vector<Slot>& others) {
  const auto has = [&](auto what) {
    return std::ranges::count_if(slots, what) >= std::ranges::count_if(others, what);
  };
  return has([](const Slot& each) { return each.holdsTable(); }) && has(isWellFormed);
}

bool isPlausible(const Layout& layout, int64_t size) {
  return layout.stride >= kSlotImageSize && layout.stride <= kLargestStride &&
         layout.slotCount > 0 && layout.slotCount <= kMostSlots && layout.end() <= size;
}

}  // namespace

uint32_t ownerOf(const unsigned char* id, Survey* survey) {
  Owner owner;
  std::memcpy(owner.id.data(), id, kIdentifierSize);
  const auto [place, isNew] =
      survey->ownerNumbers.try_emplace(owner.id, static_cast<uint32_t>(survey->owners.size()));
  if (isNew) {
    owner.number = identifierNumber(id);
    survey->owners.push_back(owner);
  }
  return place->second;
}

bool isSignature(const unsigned char* bytes) {
  return std::toupper(bytes[0]) == 'Q' && std::toupper(bytes[1]) == 'V';
}

bool isVersion(int version) {
  return version >= kFirstVersion && version <= kLastVersion;
}

bool Slot::isTable() const {
  if (holdsTable()) return true;
  const bool hasTraces = hasMark() || hasEndMark() || fields.tableName[0] != '\0';
  return hasTraces && identifierNumber(fields.tableID) != 0 && identifierSumIsRight(fields.tableID);
}

void readDirectory(const ByteSource& source, const SurveyOptions& options, Survey* survey) {
  survey->size = source.size();
  survey->blocksStart = std::max<int64_t>(options.from, 1);  // a link of 0 leads nowhere
  if (options.ignoreDirectory) return;
  readHeader(source, survey);

  const Layout claimed = {survey->header.slotCount, survey->header.slotSize};
  Layout layout = kUsualLayout;
  const int tableCount = survey->header.tableCount;
  survey->slots = readSlots(source, kUsualLayout, tableCount);
  const bool isUsual = claimed.slotCount == kNewSlotCount && claimed.stride == kSlotImageSize;
  if (!isUsual && isPlausible(claimed, survey->size)) {
    std::vector<Slot> slots = readSlots(source, claimed, tableCount);
    if (areAsGood(slots, survey->slots)) {
      survey->slots = std::move(slots);
      layout = claimed;
    }
  }
  const int64_t next = slotPosition(static_cast<int64_t>(survey->slots.size()), layout.stride);
  if (next < layout.end() && next <= survey->size - kSlotImageSize) survey->noteUnreadable(next);
  survey->slotStride = layout.stride;
  survey->blocksStart = std::max(survey->blocksStart, std::min(layout.end(), survey->size));
  for (const Slot& slot : survey->slots) {
    if (!slot.isTable()) continue;
    const uint32_t owner = ownerOf(slot.fields.tableID, survey);
    if (survey->owners[owner].slot == kNoSlot) survey->owners[owner].slot = slot.index;
  }
  survey->knownOwners = static_cast<uint32_t>(survey->owners.size());
}

}  // namespace qvdbase::survey
