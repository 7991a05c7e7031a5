// The fields of a slot: where each is in the 144 bytes on disk, and where in the structure.
#include "format/slot_structure.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <type_traits>
#include <utility>

#include "format/Aliment8.h"

using namespace qvdbase::format;

namespace qvdbase::format {
namespace {

struct Field {
  size_t inImage;
  size_t inMemory;
  size_t size;
  bool isNumber;
};

#define QVDBASE_FIELD(name, place)                                     \
  {                                                                    \
    slot::place, offsetof(tablePart1, name), sizeof(tablePart1::name), \
        std::is_integral_v<decltype(tablePart1::name)>                 \
  }
constexpr Field kFields[] = {QVDBASE_FIELD(slotMark, kSlotMark),
                             QVDBASE_FIELD(infoSize, kInfoSize),
                             QVDBASE_FIELD(tableVersion, kTableVersion),
                             QVDBASE_FIELD(tableID, kTableID),
                             QVDBASE_FIELD(tableName, kTableName),
                             QVDBASE_FIELD(tableFlags1, kTableFlags1),
                             QVDBASE_FIELD(tableFlags2, kTableFlags2),
                             QVDBASE_FIELD(recordsInfoSize, kRecordsInfoSize),
                             QVDBASE_FIELD(recordCount, kRecordCount),
                             QVDBASE_FIELD(recordWriteCount, kRecordWriteCount),
                             QVDBASE_FIELD(firstRecordPos, kFirstRecordPos),
                             QVDBASE_FIELD(lastWrittenRecordPos, kLastWrittenRecordPos),
                             QVDBASE_FIELD(lastRecordPos, kLastRecordPos),
                             QVDBASE_FIELD(dataInfoSize, kDataInfoSize),
                             QVDBASE_FIELD(dataBlockCount, kDataBlockCount),
                             QVDBASE_FIELD(dataWriteCount, kDataWriteCount),
                             QVDBASE_FIELD(firstDataPos, kFirstDataPos),
                             QVDBASE_FIELD(lastWrittenDataPos, kLastWrittenDataPos),
                             QVDBASE_FIELD(lastDataPos, kLastDataPos),
                             QVDBASE_FIELD(slotEndMark, kSlotEndMark)};
#undef QVDBASE_FIELD

// Unrolled, so that each field is one load and one store.
template <typename Move, size_t... index>
void forFields(Move move, std::index_sequence<index...>) {
  (move(kFields[index]), ...);
}
constexpr auto kAll = std::make_index_sequence<std::size(kFields)>();

// The order of the bytes of numbers, from the host's to the file's or back.
void exchangeOrder(void* structure) {
  if constexpr (std::endian::native == std::endian::big) {
    for (const Field& field : kFields) {
      auto* bytes = static_cast<unsigned char*>(structure) + field.inMemory;
      if (field.isNumber) std::reverse(bytes, bytes + field.size);
    }
  }
}

// The group sizes are what they are, whatever a slot holds.
void setSizes(tablePart1* slot) {
  slot->infoSize = kInfoSize;
  slot->recordsInfoSize = kRecordsInfoSize;
  slot->dataInfoSize = kDataInfoSize;
}

}  // namespace

void storeSlotStructure(const tablePart1& slot, unsigned char bytes[sizeof(tablePart1)]) {
  std::memcpy(bytes, &slot, sizeof slot);
  exchangeOrder(bytes);
}

void loadSlotStructure(const unsigned char bytes[sizeof(tablePart1)], tablePart1* slot) {
  std::memcpy(slot, bytes, sizeof *slot);
  exchangeOrder(slot);
}

void decodeSlot(const unsigned char image[kSlotImageSize], tablePart1* slot) {
  std::memset(slot, 0, sizeof *slot);
  auto* to = reinterpret_cast<unsigned char*>(slot);
  const auto take = [&](const Field& field) {
    std::memcpy(to + field.inMemory, image + field.inImage, field.size);
  };
  forFields(take, kAll);
  exchangeOrder(slot);
  setSizes(slot);
}

void encodeSlot(const tablePart1& slot, unsigned char image[kSlotImageSize]) {
  tablePart1 copy = slot;
  setSizes(&copy);
  exchangeOrder(&copy);
  std::memset(image, kSlotFiller, kSlotImageSize);
  const auto* from = reinterpret_cast<const unsigned char*>(&copy);
  const auto put = [&](const Field& field) {
    std::memcpy(image + field.inImage, from + field.inMemory, field.size);
  };
  forFields(put, kAll);
}

}  // namespace qvdbase::format
