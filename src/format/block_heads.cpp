// Block headers in memory, field by field at the offsets of the layout.
#include "format/block_heads.h"

#include <cstring>
#include <type_traits>

using namespace qvdbase::format;

namespace qvdbase::format {
namespace {

template <typename Field>
void load(const unsigned char* bytes, Field* field) {
  *field = static_cast<Field>(loadBigEndian<std::make_unsigned_t<Field>>(bytes));
}

template <typename Field>
void store(unsigned char* bytes, Field field) {
  storeBigEndian(bytes, static_cast<std::make_unsigned_t<Field>>(field));
}

}  // namespace

void decodeRecordHead(const unsigned char* bytes, recordPart1* head) {
  load(bytes + record::kBlockMark, &head->blockMark);
  load(bytes + record::kHeaderSize, &head->headerSize);
  std::memcpy(head->tableID, bytes + record::kTableID, sizeof head->tableID);
  std::memcpy(head->recordID, bytes + record::kRecordID, sizeof head->recordID);
  load(bytes + record::kCreateTime, &head->createTime);
  load(bytes + record::kModifyTime, &head->modifyTime);
  load(bytes + record::kPrevRecordPos, &head->prevRecordPos);
  load(bytes + record::kNextRecordPos, &head->nextRecordPos);
  load(bytes + record::kDataLength, &head->dataLength);
  load(bytes + record::kDataCapacity, &head->dataCapacity);
  head->endMarkValue = kHeaderInMemoryEndMark;
}

recordPart1 decodeRecordHead(const unsigned char* bytes) {
  recordPart1 head = {};
  decodeRecordHead(bytes, &head);
  return head;
}

void encodeRecordHead(const recordPart1& head, unsigned char* bytes) {
  store(bytes + record::kBlockMark, head.blockMark);
  store(bytes + record::kHeaderSize, head.headerSize);
  std::memcpy(bytes + record::kTableID, head.tableID, sizeof head.tableID);
  std::memcpy(bytes + record::kRecordID, head.recordID, sizeof head.recordID);
  store(bytes + record::kCreateTime, head.createTime);
  store(bytes + record::kModifyTime, head.modifyTime);
  store(bytes + record::kPrevRecordPos, head.prevRecordPos);
  store(bytes + record::kNextRecordPos, head.nextRecordPos);
  store(bytes + record::kDataLength, head.dataLength);
  store(bytes + record::kDataCapacity, head.dataCapacity);
}

TableDataHead decodeTableDataHead(const unsigned char* bytes) {
  TableDataHead head = {};
  load(bytes + tabledata::kBlockMark, &head.blockMark);
  load(bytes + tabledata::kHeaderSize, &head.headerSize);
  std::memcpy(head.tableID, bytes + tabledata::kTableID, sizeof head.tableID);
  load(bytes + tabledata::kDataLength, &head.dataLength);
  load(bytes + tabledata::kDataCapacity, &head.dataCapacity);
  return head;
}

void encodeTableDataHead(const TableDataHead& head, unsigned char* bytes) {
  store(bytes + tabledata::kBlockMark, head.blockMark);
  store(bytes + tabledata::kHeaderSize, head.headerSize);
  std::memcpy(bytes + tabledata::kTableID, head.tableID, sizeof head.tableID);
  store(bytes + tabledata::kDataLength, head.dataLength);
  store(bytes + tabledata::kDataCapacity, head.dataCapacity);
}

}  // namespace qvdbase::format
