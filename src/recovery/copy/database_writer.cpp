#include "recovery/copy/database_writer.h"

#include "format/Aliment8.h"

using namespace qvdbase::format;

namespace qvdbase::copy {

void DatabaseWriter::directory(const Header& header, const std::vector<tablePart1>& slots,
                               int slotCount) {
  write(header.data(), header.size());
  const tablePart1 freeSlot{};
  for (size_t i = 0; i < static_cast<size_t>(slotCount); ++i) {
    unsigned char image[kSlotImageSize];
    encodeSlot(i < slots.size() ? slots[i] : freeSlot, image);
    write(image, sizeof image);
  }
}

tablePart1 DatabaseWriter::slotAt(tablePart1 slot, const TablePlace& place) {
  slot.firstRecordPos = place.firstRecord;
  slot.lastRecordPos = place.lastRecord;
  slot.lastWrittenRecordPos = place.lastWrittenRecord;
  slot.firstDataPos = slot.lastWrittenDataPos = slot.lastDataPos = place.data;
  return slot;
}

void DatabaseWriter::beginRecord(recordPart1 head, bool isFirst, bool isLast) {
  const int64_t here = position();
  head.blockMark = kRecordMark;
  head.headerSize = kRecordHeaderSize;
  head.prevRecordPos = isFirst ? 0 : previousRecord_;
  head.nextRecordPos = isLast ? 0 : here + head.dataCapacity + kRecordBlockOverhead;
  previousRecord_ = here;
  unsigned char bytes[record::kData];
  encodeRecordHead(head, bytes);
  write(bytes, sizeof bytes);
}

void DatabaseWriter::beginTableData(TableDataHead head) {
  head.blockMark = kTableDataMark;
  head.headerSize = kTableDataHeaderSize;
  unsigned char bytes[tabledata::kData];
  encodeTableDataHead(head, bytes);
  write(bytes, sizeof bytes);
}

void DatabaseWriter::endBlock(uint32_t spare, const unsigned char* sum) {
  zeros(sum != nullptr ? spare - checksum::kSize : spare);
  if (sum != nullptr) write(sum, checksum::kSize);
  write(&kBlockEndMark, 1);
}

}  // namespace qvdbase::copy
