// Database files built by hand, without the library.
#include "kit/file_image.h"

#include <algorithm>

namespace qvdbase::test {
namespace {

Bytes roomFor(const Bytes& data, uint32_t reserve, uint8_t fill) {
  Bytes room = data;
  if (reserve > data.size()) room.fill(reserve - data.size(), fill);
  return room;
}

void overlay(Bytes& file, int64_t position, const Bytes& block) {
  const auto start = static_cast<size_t>(position);
  if (file.size() < start + block.size()) file.resize(start + block.size());
  std::copy(block.begin(), block.end(), file.data() + start);
}

}  // namespace

FileImage::FileImage() {
  slots_.fill(freeSlot());
}

size_t FileImage::addTable(std::string_view name, uint64_t id) {
  const auto index = static_cast<size_t>(header_.tableCount++);
  SlotFields slot;
  slot.tableID = identifier(id);
  slot.tableName = bytesOf(name.substr(0, 32));
  slots_.at(index) = slot;
  return index;
}

int64_t FileImage::addRecord(size_t table, uint64_t id, const Bytes& data,
                             const RecordOptions& options) {
  SlotFields& owner = slot(table);
  RecordFields record;
  record.tableID = owner.tableID;
  record.recordID = identifier(id);
  record.createTime = options.createTime;
  record.modifyTime = options.modifyTime;
  record.prevRecordPos = owner.lastRecordPos;
  record.room = roomFor(data, options.reserve, options.fill);
  record.dataLength = static_cast<uint32_t>(data.size());
  record.dataCapacity = static_cast<uint32_t>(record.room.size());
  const int64_t position = addDeadRecord(record);

  if (owner.lastRecordPos != 0) records_.at(owner.lastRecordPos).nextRecordPos = position;
  if (owner.firstRecordPos == 0) owner.firstRecordPos = position;
  owner.lastRecordPos = position;
  owner.lastWrittenRecordPos = position;
  ++owner.recordCount;
  ++owner.recordWriteCount;
  return position;
}

int64_t FileImage::setTableData(size_t table, const Bytes& data, uint32_t reserve) {
  SlotFields& owner = slot(table);
  TableDataFields block;
  block.tableID = owner.tableID;
  block.room = roomFor(data, reserve, 0);
  block.dataLength = static_cast<uint32_t>(data.size());
  block.dataCapacity = static_cast<uint32_t>(block.room.size());
  const int64_t position = addDeadTableData(block);

  owner.dataBlockCount = 1;
  ++owner.dataWriteCount;
  owner.firstDataPos = owner.lastWrittenDataPos = owner.lastDataPos = position;
  return position;
}

int64_t FileImage::addDeadRecord(const RecordFields& record) {
  const int64_t position = place(record.encode().size());
  records_[position] = record;
  return position;
}

int64_t FileImage::addDeadTableData(const TableDataFields& block) {
  const int64_t position = place(block.encode().size());
  tableData_[position] = block;
  return position;
}

int64_t FileImage::addRaw(const Bytes& bytes) {
  const int64_t position = place(bytes.size());
  raw_[position] = bytes;
  return position;
}

int64_t FileImage::place(size_t length) {
  const int64_t position = end_;
  end_ += static_cast<int64_t>(length);
  return position;
}

Bytes FileImage::build() const {
  Bytes file = header_.encode();
  for (const SlotFields& each : slots_) file.add(each.encode());
  file.resize(static_cast<size_t>(end_));
  for (const auto& [position, record] : records_) overlay(file, position, record.encode());
  for (const auto& [position, block] : tableData_) overlay(file, position, block.encode());
  for (const auto& [position, bytes] : raw_) overlay(file, position, bytes);
  return file;
}

}  // namespace qvdbase::test
