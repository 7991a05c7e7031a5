// Record headers in memory, most significant byte first.
#include "format/record_image.h"

#include <cstring>

namespace qvdbase {
namespace {

void putBigEndian(unsigned char* to, uint64_t value, int bytes) {
  for (int i = bytes; i-- > 0; value >>= 8) to[i] = static_cast<unsigned char>(value & 0xFF);
}

}  // namespace

void encodeRecordHeader(const recordPart1& header, unsigned char image[record::kData]) {
  putBigEndian(image + record::kBlockMark, kRecordMark, 1);
  putBigEndian(image + record::kHeaderSize, kRecordHeaderSize, 2);
  std::memcpy(image + record::kTableID, header.tableID, kIdentifierSize);
  std::memcpy(image + record::kRecordID, header.recordID, kIdentifierSize);
  putBigEndian(image + record::kCreateTime, header.createTime, 4);
  putBigEndian(image + record::kModifyTime, header.modifyTime, 4);
  putBigEndian(image + record::kPrevRecordPos, static_cast<uint64_t>(header.prevRecordPos), 8);
  putNextRecordPos(image, header.nextRecordPos);
  putBigEndian(image + record::kDataLength, header.dataLength, 4);
  putBigEndian(image + record::kDataCapacity, header.dataCapacity, 4);
}

void putNextRecordPos(unsigned char* image, int64_t nextRecordPos) {
  putBigEndian(image + record::kNextRecordPos, static_cast<uint64_t>(nextRecordPos), 8);
}

}  // namespace qvdbase
