// The fields of header and blocks: integers stored most significant byte first, and runs of bytes.
//
// Each function is one transfer at the file's current position, which moves on by the bytes
// transferred. A transfer that is cut short is a failure.
//
// All are inline, so that the ten fields of a record header cost a walk along a chain no more than
// ten comparisons and ten loads.
#pragma once

#include <cstdint>

#include "format/big_endian.h"
#include "platform/transfer/transfer_counts.h"
#include "support/file_transfers.h"

namespace qvdbase::format {

namespace detail {

template <typename Unsigned>
[[nodiscard]] inline bool readBigEndian(int16_t file, Unsigned* value) {
  unsigned char bytes[sizeof(Unsigned)];
  if (!support::readFile(file, bytes, sizeof bytes, &platform::transferCounts().read)) return false;
  *value = loadBigEndian<Unsigned>(bytes);
  return true;
}

template <typename Unsigned>
[[nodiscard]] inline bool writeBigEndian(int16_t file, Unsigned value) {
  unsigned char bytes[sizeof(Unsigned)];
  storeBigEndian(bytes, value);
  return support::writeFile(file, bytes, sizeof bytes, &platform::transferCounts().written);
}

}  // namespace detail

[[nodiscard]] inline bool readBytes(int16_t file, void* bytes, uint32_t count) {
  return support::readFile(file, bytes, count, &platform::transferCounts().read);
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

[[nodiscard]] inline bool writeBytes(int16_t file, const void* bytes, uint32_t count) {
  return support::writeFile(file, bytes, count, &platform::transferCounts().written);
}

[[nodiscard]] inline bool writeUint8(int16_t file, uint8_t value) {
  return writeBytes(file, &value, 1);
}
[[nodiscard]] inline bool writeUint16(int16_t file, uint16_t value) {
  return detail::writeBigEndian(file, value);
}
[[nodiscard]] inline bool writeUint32(int16_t file, uint32_t value) {
  return detail::writeBigEndian(file, value);
}
[[nodiscard]] inline bool writeInt64(int16_t file, int64_t value) {
  return detail::writeBigEndian(file, static_cast<uint64_t>(value));
}

// The same, `gap` bytes after the position: for the next field of a header, with the fields between
// unchanged.
[[nodiscard]] inline bool writeBytesAfter(int16_t file, uint32_t gap, const void* bytes,
                                          uint32_t count) {
  return support::writeFileAfter(file, gap, bytes, count, &platform::transferCounts().written);
}
[[nodiscard]] inline bool writeUint32After(int16_t file, uint32_t gap, uint32_t value) {
  unsigned char bytes[sizeof value];
  storeBigEndian(bytes, value);
  return writeBytesAfter(file, gap, bytes, sizeof bytes);
}

}  // namespace qvdbase::format
