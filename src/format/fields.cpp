// Writing fields: big-endian integers, composed byte by byte so that the host's own order does not
// matter.
#include "format/fields.h"

using namespace qvdbase::support;
using namespace qvdbase::format;

namespace qvdbase::format {
namespace {

template <typename Unsigned>
bool writeBigEndian(int16_t file, Unsigned value) {
  unsigned char bytes[sizeof(Unsigned)];
  storeBigEndian(bytes, value);
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

bool writeUint32After(int16_t file, uint32_t gap, uint32_t value) {
  unsigned char bytes[sizeof value];
  storeBigEndian(bytes, value);
  return writeBytesAfter(file, gap, bytes, sizeof bytes);
}

bool writeBytesAfter(int16_t file, uint32_t gap, const void* bytes, uint32_t count) {
  return writeFileAfter(file, gap, bytes, count, &gbl_realWriten);
}

}  // namespace qvdbase::format
