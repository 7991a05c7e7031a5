// The buffer codec, and the table slot that is encoded with it.
#include "format/Aliment8.h"

#include <cstring>

#include "format/fields.h"
#include "platform/host/memory.h"

using namespace qvdbase;
using namespace qvdbase::format;

namespace {

template <typename Unsigned>
int getLittleEndian(const unsigned char* buf, Unsigned* out) {
  uint64_t value = 0;
  for (size_t i = sizeof(Unsigned); i-- > 0;) value = value << 8 | buf[i];
  *out = static_cast<Unsigned>(value);
  return static_cast<int>(sizeof(Unsigned));
}

template <typename Unsigned>
int putLittleEndian(unsigned char* buf, Unsigned value) {
  uint64_t rest = value;
  for (size_t i = 0; i < sizeof(Unsigned); ++i, rest >>= 8) {
    buf[i] = static_cast<unsigned char>(rest & 0xFF);
  }
  return static_cast<int>(sizeof(Unsigned));
}

template <typename Unsigned>
Unsigned field(const unsigned char* buf) {
  Unsigned value = 0;
  getLittleEndian(buf, &value);
  return value;
}

int64_t positionField(const unsigned char* buf) {
  return static_cast<int64_t>(field<uint64_t>(buf));
}

void putPosition(unsigned char* buf, int64_t position) {
  PutToBuffer_Int64(buf, static_cast<uint64_t>(position));
}

}  // namespace

int GetFromBuffer_BYTE(const unsigned char* buf, unsigned char* out) {
  return getLittleEndian(buf, out);
}
int GetFromBuffer_Int16(const unsigned char* buf, uint16_t* out) {
  return getLittleEndian(buf, out);
}
int GetFromBuffer_Int32(const unsigned char* buf, uint32_t* out) {
  return getLittleEndian(buf, out);
}
int GetFromBuffer_Int64(const unsigned char* buf, uint64_t* out) {
  return getLittleEndian(buf, out);
}

int PutToBuffer_BYTE(unsigned char* buf, unsigned char value) {
  return putLittleEndian(buf, value);
}
int PutToBuffer_Int16(unsigned char* buf, uint16_t value) {
  return putLittleEndian(buf, value);
}
int PutToBuffer_Int32(unsigned char* buf, uint32_t value) {
  return putLittleEndian(buf, value);
}
int PutToBuffer_Int64(unsigned char* buf, uint64_t value) {
  return putLittleEndian(buf, value);
}

void RZPutQVWCHAR2Buffer(unsigned char* buf, const QVWCHAR* text, int byteCount) {
  for (int i = 0; i < byteCount / 2; ++i) buf += PutToBuffer_Int16(buf, text[i]);
}

void RZGetQVWCHARFromBuffer(QVWCHAR* text, const unsigned char* buf, int byteCount) {
  // The test is on the bytes consumed so far, so an odd count takes one byte more.
  for (int64_t consumed = 0; consumed < byteCount; consumed += 2) {
    GetFromBuffer_Int16(buf + consumed, text++);
  }
}

int ReadOne_TablePartOne(int16_t file, tablePart1* slot, int length) {
  if (length < 0) return 0;
  const auto count = static_cast<uint32_t>(length);
  unsigned char image[format::kSlotImageSize] = {};
  if (count <= sizeof image) {
    if (!format::readBytes(file, image, count)) return 0;
  } else {
    // One read of the whole length: a slot that the file does not hold in full is a failed read.
    platform::Buffer whole(count);
    if (!whole) return 0;
    if (!format::readBytes(file, whole.data(), count)) return 0;
    std::memcpy(image, whole.data(), sizeof image);
  }
  format::decodeSlot(image, slot);
  return 1;
}

int WriteOne_TablePartOne(int16_t file, const tablePart1* slot) {
  unsigned char image[format::kSlotImageSize];
  format::encodeSlot(*slot, image);
  return format::writeBytes(file, image, sizeof image) ? 1 : 0;
}

namespace qvdbase::format {

void decodeSlot(const unsigned char image[kSlotImageSize], tablePart1* slot) {
  std::memset(slot, 0, sizeof *slot);
  slot->slotMark = image[slot::kSlotMark];
  slot->infoSize = kInfoSize;  // the stored group sizes are ignored
  slot->tableVersion = field<uint16_t>(image + slot::kTableVersion);
  std::memcpy(slot->tableID, image + slot::kTableID, kIdentifierSize);
  std::memcpy(slot->tableName, image + slot::kTableName, kTableNameSize);
  slot->tableFlags1 = field<uint16_t>(image + slot::kTableFlags1);
  slot->tableFlags2 = field<uint16_t>(image + slot::kTableFlags2);
  slot->recordsInfoSize = kRecordsInfoSize;
  slot->recordCount = field<uint32_t>(image + slot::kRecordCount);
  slot->recordWriteCount = field<uint32_t>(image + slot::kRecordWriteCount);
  slot->firstRecordPos = positionField(image + slot::kFirstRecordPos);
  slot->lastWrittenRecordPos = positionField(image + slot::kLastWrittenRecordPos);
  slot->lastRecordPos = positionField(image + slot::kLastRecordPos);
  slot->dataInfoSize = kDataInfoSize;
  slot->dataBlockCount = field<uint32_t>(image + slot::kDataBlockCount);
  slot->dataWriteCount = field<uint32_t>(image + slot::kDataWriteCount);
  slot->firstDataPos = positionField(image + slot::kFirstDataPos);
  slot->lastWrittenDataPos = positionField(image + slot::kLastWrittenDataPos);
  slot->lastDataPos = positionField(image + slot::kLastDataPos);
  slot->slotEndMark = image[slot::kSlotEndMark];
}

void encodeSlot(const tablePart1& slot, unsigned char image[kSlotImageSize]) {
  std::memset(image, kSlotFiller, kSlotImageSize);
  image[slot::kSlotMark] = slot.slotMark;
  PutToBuffer_Int16(image + slot::kInfoSize, kInfoSize);
  PutToBuffer_Int16(image + slot::kTableVersion, slot.tableVersion);
  std::memcpy(image + slot::kTableID, slot.tableID, kIdentifierSize);
  std::memcpy(image + slot::kTableName, slot.tableName, kTableNameSize);
  PutToBuffer_Int16(image + slot::kTableFlags1, slot.tableFlags1);
  PutToBuffer_Int16(image + slot::kTableFlags2, slot.tableFlags2);
  PutToBuffer_Int16(image + slot::kRecordsInfoSize, kRecordsInfoSize);
  PutToBuffer_Int32(image + slot::kRecordCount, slot.recordCount);
  PutToBuffer_Int32(image + slot::kRecordWriteCount, slot.recordWriteCount);
  putPosition(image + slot::kFirstRecordPos, slot.firstRecordPos);
  putPosition(image + slot::kLastWrittenRecordPos, slot.lastWrittenRecordPos);
  putPosition(image + slot::kLastRecordPos, slot.lastRecordPos);
  PutToBuffer_Int16(image + slot::kDataInfoSize, kDataInfoSize);
  PutToBuffer_Int32(image + slot::kDataBlockCount, slot.dataBlockCount);
  PutToBuffer_Int32(image + slot::kDataWriteCount, slot.dataWriteCount);
  putPosition(image + slot::kFirstDataPos, slot.firstDataPos);
  putPosition(image + slot::kLastWrittenDataPos, slot.lastWrittenDataPos);
  putPosition(image + slot::kLastDataPos, slot.lastDataPos);
  image[slot::kSlotEndMark] = slot.slotEndMark;
}

bool slotHoldsTable(const tablePart1& slot) {
  return slot.slotMark == kSlotMark && slot.slotEndMark == kSlotEndMark;
}

size_t storedNameLength(const char* name) {
  size_t length = 0;
  while (length < kTableNameSize && name[length] != '\0') ++length;
  return length;
}

std::string storedName(const tablePart1& slot) {
  return {slot.tableName, storedNameLength(slot.tableName)};
}

}  // namespace qvdbase::format
