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

namespace {

// One read of the whole length: a slot that the file does not hold in full is a failed read.
__attribute__((noinline)) bool readLongSlot(int16_t file, uint32_t count, unsigned char* image) {
  platform::Buffer whole(count);
  if (!whole) return false;
  if (!format::readBytes(file, whole.data(), count)) return false;
  std::memcpy(image, whole.data(), format::kSlotImageSize);
  return true;
}

}  // namespace

int ReadOne_TablePartOne(int16_t file, tablePart1* slot, int length) {
  if (length < 0) return 0;
  const auto count = static_cast<uint32_t>(length);
  unsigned char image[format::kSlotImageSize];
  if (count < sizeof image) std::memset(image, 0, sizeof image);
  const bool isRead = count <= sizeof image ? format::readBytes(file, image, count)
                                            : readLongSlot(file, count, image);
  if (!isRead) return 0;
  format::decodeSlot(image, slot);
  return 1;
}

int WriteOne_TablePartOne(int16_t file, const tablePart1* slot) {
  unsigned char image[format::kSlotImageSize];
  format::encodeSlot(*slot, image);
  return format::writeBytes(file, image, sizeof image) ? 1 : 0;
}

namespace qvdbase::format {

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
