// The fields of header and blocks: integers stored most significant byte first, and runs of bytes.
//
// Each function is one transfer at the file's current position, which moves on by the bytes
// transferred. A transfer that is cut short is a failure.
//
// The readers are inline, so that the ten fields of a record header cost a walk along a chain no
// more than ten comparisons and ten loads.
#pragma once

#include <qvdbase/qvdbase.h>

#include <cstdint>

#include "format/big_endian.h"
#include "support/file_transfers.h"

namespace qvdbase::format {

namespace detail {

template <typename Unsigned>
[[nodiscard]] inline bool readBigEndian(int16_t file, Unsigned* value) {
  unsigned char bytes[sizeof(Unsigned)];
  if (!support::readFile(file, bytes, sizeof bytes, &gbl_realReaden)) return false;
  *value = loadBigEndian<Unsigned>(bytes);
  return true;
}

}  // namespace detail

[[nodiscard]] inline bool readBytes(int16_t file, void* bytes, uint32_t count) {
  return support::readFile(file, bytes, count, &gbl_realReaden);
}

[[nodiscard]] inline bool readUint8(int16_t file, uint8_t* value) {
  return readBytes(file, value, 1);
}
[[nodiscard]] inline bool readUint16(int16_t file, uint16_t* value) {
  return detail::readBigEndian(file, value);
}
[[nodiscard]] inline bool readUint32(int16_t file, uint32_t* value) {
  return detail::readBigEndian(file, value);
}
[[nodiscard]] inline bool readInt64(int16_t file, int64_t* value) {
  uint64_t bits = 0;
  if (!detail::readBigEndian(file, &bits)) return false;
  *value = static_cast<int64_t>(bits);
  return true;
}

[[nodiscard]] bool writeBytes(int16_t file, const void* bytes, uint32_t count);
[[nodiscard]] bool writeUint8(int16_t file, uint8_t value);
[[nodiscard]] bool writeUint16(int16_t file, uint16_t value);
[[nodiscard]] bool writeUint32(int16_t file, uint32_t value);
[[nodiscard]] bool writeInt64(int16_t file, int64_t value);

// The same, `gap` bytes after the position: for the next field to be written of one header, the
// fields between staying as they are.
[[nodiscard]] bool writeUint32After(int16_t file, uint32_t gap, uint32_t value);
[[nodiscard]] bool writeBytesAfter(int16_t file, uint32_t gap, const void* bytes, uint32_t count);

}  // namespace qvdbase::format
