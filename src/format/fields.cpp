// Writing fields: big-endian integers, composed byte by byte so that the host's own order does not
// matter. And the counts of bytes moved, which every field transfer leaves behind.
#include "format/fields.h"

uint32_t gbl_realReaden = 0;
uint32_t gbl_realWriten = 0;

namespace qvdbase {
namespace {

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

bool writeBytes(int16_t file, const void* bytes, uint32_t count) {
  return writeFile(file, bytes, count, &gbl_realWriten);
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
