// The fields of header and blocks: integers stored most significant byte first, and runs of bytes.
//
// Each function is one transfer at the file's current position, which moves on by the bytes
// transferred. A transfer that is cut short is a failure.
#pragma once

#include <cstdint>

namespace qvdbase {

[[nodiscard]] bool readBytes(int16_t file, void* bytes, uint32_t count);
[[nodiscard]] bool readUint8(int16_t file, uint8_t* value);
[[nodiscard]] bool readUint16(int16_t file, uint16_t* value);
[[nodiscard]] bool readUint32(int16_t file, uint32_t* value);
[[nodiscard]] bool readInt64(int16_t file, int64_t* value);

[[nodiscard]] bool writeBytes(int16_t file, const void* bytes, uint32_t count);
[[nodiscard]] bool writeUint8(int16_t file, uint8_t value);
[[nodiscard]] bool writeUint16(int16_t file, uint16_t value);
[[nodiscard]] bool writeUint32(int16_t file, uint32_t value);
[[nodiscard]] bool writeInt64(int16_t file, int64_t value);

}  // namespace qvdbase
