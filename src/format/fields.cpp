// Fields of header and blocks: big-endian integers, composed byte by byte so that the host's own
// order does not matter.
#include "format/fields.h"

#include <qvdbase/QVFile.h>
#include <qvdbase/qvdbase.h>

#include <cstddef>

uint32_t gbl_realReaden = 0;
uint32_t gbl_realWriten = 0;

namespace qvdbase {
namespace {

template <typename Unsigned>
bool readBigEndian(int16_t file, Unsigned* value) {
  unsigned char bytes[sizeof(Unsigned)];
  if (!readBytes(file, bytes, sizeof bytes)) return false;
  uint64_t composed = 0;
  for (unsigned char byte : bytes) composed = composed << 8 | byte;
  *value = static_cast<Unsigned>(composed);
  return true;
}

template <typename Unsigned>
bool writeBigEndian(int16_t file, Unsigned value) {
  unsigned char bytes[sizeof(Unsigned)];
  uint64_t rest = value;
  for (std::size_t i = sizeof bytes; i-- > 0; rest >>= 8) {
    bytes[i] = static_cast<unsigned char>(rest & 0xFF);
  }
  return writeBytes(file, bytes, sizeof bytes);
}

}  // namespace

bool readBytes(int16_t file, void* bytes, uint32_t count) {
  return QVFile().QVReadFile(file, bytes, count, &gbl_realReaden) == 1;
}

bool readUint8(int16_t file, uint8_t* value) {
  return readBytes(file, value, 1);
}
bool readUint16(int16_t file, uint16_t* value) {
  return readBigEndian(file, value);
}
bool readUint32(int16_t file, uint32_t* value) {
  return readBigEndian(file, value);
}

bool readInt64(int16_t file, int64_t* value) {
  uint64_t bits = 0;
  if (!readBigEndian(file, &bits)) return false;
  *value = static_cast<int64_t>(bits);
  return true;
}

bool writeBytes(int16_t file, const void* bytes, uint32_t count) {
  return QVFile().QVWriteFile(file, bytes, count, &gbl_realWriten) == 1;
}

bool writeUint8(int16_t file, uint8_t value) {
  return writeBytes(file, &value, 1);
}
bool writeUint16(int16_t file, uint16_t value) {
  return writeBigEndian(file, value);
}
bool writeUint32(int16_t file, uint32_t value) {
  return writeBigEndian(file, value);
}

bool writeInt64(int16_t file, int64_t value) {
  return writeBigEndian(file, static_cast<uint64_t>(value));
}

}  // namespace qvdbase
