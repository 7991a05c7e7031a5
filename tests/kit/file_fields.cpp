// The four structures of a database file: the tests' own encoders and decoders.
#include "kit/file_fields.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

namespace qvdbase::test {
namespace {

constexpr uint8_t kFiller = 0xCC;

uint16_t sumOfEight(const Bytes& bytes) {
  return static_cast<uint16_t>(std::accumulate(bytes.begin(), bytes.begin() + 8, 0u));
}

size_t checkedOffset(int64_t offset) {
  if (offset < 0) throw std::out_of_range("a negative file position");
  return static_cast<size_t>(offset);
}

uint16_t be16(const Bytes& bytes, size_t offset) {
  return static_cast<uint16_t>(bytes.beAt(offset, 2));
}
uint32_t be32(const Bytes& bytes, size_t offset) {
  return static_cast<uint32_t>(bytes.beAt(offset, 4));
}
int64_t be64(const Bytes& bytes, size_t offset) {
  return static_cast<int64_t>(bytes.beAt(offset, 8));
}
uint16_t le16(const Bytes& bytes, size_t offset) {
  return static_cast<uint16_t>(bytes.leAt(offset, 2));
}
uint32_t le32(const Bytes& bytes, size_t offset) {
  return static_cast<uint32_t>(bytes.leAt(offset, 4));
}
int64_t le64(const Bytes& bytes, size_t offset) {
  return static_cast<int64_t>(bytes.leAt(offset, 8));
}
uint64_t bits(int64_t value) {
  return static_cast<uint64_t>(value);
}

}  // namespace

Bytes identifier(uint64_t number) {
  Bytes result;
  result.be(8, number);
  return result.be(2, sumOfEight(result));
}

uint64_t identifierNumber(const Bytes& tenBytes) {
  return tenBytes.beAt(0, 8);
}

bool identifierSound(const Bytes& tenBytes) {
  return tenBytes.beAt(8, 2) == sumOfEight(tenBytes);
}

Bytes HeaderFields::encode() const {
  return Bytes()
      .add(signature)                            // 0
      .be(2, version)                            // 4
      .add(databaseID)                           // 6
      .be(2, static_cast<uint16_t>(tableCount))  // 16
      .be(2, slotCount)                          // 18
      .be(2, slotSize);                          // 20
}

Bytes SlotFields::encode() const {
  Bytes slot;
  slot.fill(kSlotBytes, kFiller);
  slot[0] = slotMark;
  slot.putLe(2, 2, infoSize);
  slot.putLe(4, 2, tableVersion);
  slot = slot.with(6, tableID.cut(10));
  slot = slot.with(16, Bytes(32)).with(16, tableName);
  slot.putLe(48, 2, tableFlags1);
  slot.putLe(50, 2, tableFlags2);
  slot.putLe(56, 2, recordsInfoSize);
  slot.putLe(60, 4, recordCount);
  slot.putLe(64, 4, recordWriteCount);
  slot.putLe(72, 8, bits(firstRecordPos));
  slot.putLe(80, 8, bits(lastWrittenRecordPos));
  slot.putLe(88, 8, bits(lastRecordPos));
  slot.putLe(96, 2, dataInfoSize);
  slot.putLe(100, 4, dataBlockCount);
  slot.putLe(104, 4, dataWriteCount);
  slot.putLe(112, 8, bits(firstDataPos));
  slot.putLe(120, 8, bits(lastWrittenDataPos));
  slot.putLe(128, 8, bits(lastDataPos));
  slot[136] = slotEndMark;
  return slot;
}

std::string SlotFields::name() const {
  return std::string(tableName.begin(), std::find(tableName.begin(), tableName.end(), 0));
}

SlotFields freeSlot() {
  SlotFields slot;
  slot.slotMark = 0;
  slot.tableVersion = 0;
  slot.slotEndMark = 0;
  return slot;
}

Bytes RecordFields::encode() const {
  return Bytes()
      .be(1, blockMark)            // 0
      .be(2, headerSize)           // 1
      .add(tableID)                // 3
      .add(recordID)               // 13
      .be(4, createTime)           // 23
      .be(4, modifyTime)           // 27
      .be(8, bits(prevRecordPos))  // 31
      .be(8, bits(nextRecordPos))  // 39
      .be(4, dataLength)           // 47
      .be(4, dataCapacity)         // 51
      .add(room)                   // 55
      .be(1, blockEndMark);
}

Bytes TableDataFields::encode() const {
  return Bytes()
      .be(1, blockMark)     // 0
      .be(2, headerSize)    // 1
      .add(tableID)         // 3
      .be(4, dataLength)    // 13
      .be(4, dataCapacity)  // 17
      .add(room)            // 21
      .be(1, blockEndMark);
}

HeaderFields decodeHeader(const Bytes& file) {
  HeaderFields header;
  header.signature = file.at(0, 4);
  header.version = be16(file, 4);
  header.databaseID = file.at(6, 10);
  header.tableCount = static_cast<int16_t>(be16(file, 16));
  header.slotCount = be16(file, 18);
  header.slotSize = be16(file, 20);
  return header;
}

SlotFields decodeSlot(const Bytes& file, size_t index) {
  const Bytes bytes = file.at(slotOffset(index), kSlotBytes);
  SlotFields slot;
  slot.slotMark = bytes[0];
  slot.infoSize = le16(bytes, 2);
  slot.tableVersion = le16(bytes, 4);
  slot.tableID = bytes.at(6, 10);
  slot.tableName = bytes.at(16, 32);
  slot.tableFlags1 = le16(bytes, 48);
  slot.tableFlags2 = le16(bytes, 50);
  slot.recordsInfoSize = le16(bytes, 56);
  slot.recordCount = le32(bytes, 60);
  slot.recordWriteCount = le32(bytes, 64);
  slot.firstRecordPos = le64(bytes, 72);
  slot.lastWrittenRecordPos = le64(bytes, 80);
  slot.lastRecordPos = le64(bytes, 88);
  slot.dataInfoSize = le16(bytes, 96);
  slot.dataBlockCount = le32(bytes, 100);
  slot.dataWriteCount = le32(bytes, 104);
  slot.firstDataPos = le64(bytes, 112);
  slot.lastWrittenDataPos = le64(bytes, 120);
  slot.lastDataPos = le64(bytes, 128);
  slot.slotEndMark = bytes[136];
  return slot;
}

RecordFields decodeRecord(const Bytes& file, int64_t offset) {
  const size_t start = checkedOffset(offset);
  const Bytes header = file.at(start, kRecordHeaderBytes);
  RecordFields record;
  record.blockMark = header[0];
  record.headerSize = be16(header, 1);
  record.tableID = header.at(3, 10);
  record.recordID = header.at(13, 10);
  record.createTime = be32(header, 23);
  record.modifyTime = be32(header, 27);
  record.prevRecordPos = be64(header, 31);
  record.nextRecordPos = be64(header, 39);
  record.dataLength = be32(header, 47);
  record.dataCapacity = be32(header, 51);
  record.room = file.at(start + kRecordHeaderBytes, record.dataCapacity);
  record.blockEndMark = file.at(start + kRecordHeaderBytes + record.dataCapacity);
  return record;
}

TableDataFields decodeTableData(const Bytes& file, int64_t offset) {
  const size_t start = checkedOffset(offset);
  const Bytes header = file.at(start, kDataHeaderBytes);
  TableDataFields block;
  block.blockMark = header[0];
  block.headerSize = be16(header, 1);
  block.tableID = header.at(3, 10);
  block.dataLength = be32(header, 13);
  block.dataCapacity = be32(header, 17);
  block.room = file.at(start + kDataHeaderBytes, block.dataCapacity);
  block.blockEndMark = file.at(start + kDataHeaderBytes + block.dataCapacity);
  return block;
}

}  // namespace qvdbase::test
