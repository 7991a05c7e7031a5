// The beginning and the end that all blocks have.
#include "format/block_parts.h"

#include "format/fill.h"

namespace qvdbase::format {

bool writeBlockStart(int16_t file, BlockKind kind, const unsigned char* tableID) {
  return writeUint8(file, kind.mark) && writeUint16(file, kind.headerSize) &&
         writeBytes(file, tableID, kIdentifierSize);
}

bool writeBlockContent(int16_t file, const unsigned char* data, uint32_t length, uint32_t capacity,
                       const unsigned char* sum) {
  return writeUint32(file, length) && writeUint32(file, capacity) &&
         writeBytes(file, data, length) && writeBlockEnd(file, capacity - length, sum);
}

bool writeBlockEnd(int16_t file, uint32_t fill, const unsigned char* sum) {
  if (sum != nullptr) fill -= checksum::kSize;
  return (fill == 0 || internal_WriteEmptyDatas(file, fill) == 1) &&
         (sum == nullptr || writeBytes(file, sum, checksum::kSize)) &&
         writeUint8(file, kBlockEndMark);
}

}  // namespace qvdbase::format
