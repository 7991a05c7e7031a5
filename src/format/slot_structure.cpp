// The structure's own bytes, with the numbers turned round where the host keeps them the other way.
#include "format/slot_structure.h"

#include <algorithm>
#include <bit>
#include <cstring>

using namespace qvdbase::format;

namespace qvdbase::format {
namespace {

struct NumberPlace {
  size_t offset;
  size_t size;
};

#define QVDBASE_NUMBER(field) \
  { offsetof(tablePart1, field), sizeof(tablePart1::field) }
[[maybe_unused]] constexpr NumberPlace kNumbers[] = {QVDBASE_NUMBER(infoSize),
                                                     QVDBASE_NUMBER(tableVersion),
                                                     QVDBASE_NUMBER(tableFlags1),
                                                     QVDBASE_NUMBER(tableFlags2),
                                                     QVDBASE_NUMBER(recordsInfoSize),
                                                     QVDBASE_NUMBER(recordCount),
                                                     QVDBASE_NUMBER(recordWriteCount),
                                                     QVDBASE_NUMBER(firstRecordPos),
                                                     QVDBASE_NUMBER(lastWrittenRecordPos),
                                                     QVDBASE_NUMBER(lastRecordPos),
                                                     QVDBASE_NUMBER(dataInfoSize),
                                                     QVDBASE_NUMBER(dataBlockCount),
                                                     QVDBASE_NUMBER(dataWriteCount),
                                                     QVDBASE_NUMBER(firstDataPos),
                                                     QVDBASE_NUMBER(lastWrittenDataPos),
                                                     QVDBASE_NUMBER(lastDataPos)};
#undef QVDBASE_NUMBER

// Its own inverse.
void exchangeHostAndFileOrder([[maybe_unused]] unsigned char* bytes) {
  if constexpr (std::endian::native == std::endian::big) {
    for (const NumberPlace& number : kNumbers) {
      std::reverse(bytes + number.offset, bytes + number.offset + number.size);
    }
  }
}

}  // namespace

void storeSlotStructure(const tablePart1& slot, unsigned char bytes[sizeof(tablePart1)]) {
  std::memcpy(bytes, &slot, sizeof slot);
  exchangeHostAndFileOrder(bytes);
}

void loadSlotStructure(const unsigned char bytes[sizeof(tablePart1)], tablePart1* slot) {
  unsigned char ordered[sizeof *slot];
  std::memcpy(ordered, bytes, sizeof ordered);
  exchangeHostAndFileOrder(ordered);
  std::memcpy(slot, ordered, sizeof ordered);
}

}  // namespace qvdbase::format
