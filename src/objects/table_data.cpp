// qvdb::Table: the table's block of data.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <algorithm>

#include "QVDbase/table_data.h"
#include "format/fields.h"
#include "objects/open_database.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "objects/sharing/turns.h"
#include "objects/transactions/own_commit.h"
#include "objects/writing/failed_append.h"

using namespace qvdbase;

namespace qvdb {

using detail::Operation;
using engine::SavedPosition;

namespace {

constexpr const char* kSet = "set the table's data";

// The block of table data: where its data begins, its size and its capacity. Nothing when the table
// has none.
struct DataBlock {
  int64_t dataPos;
  uint32_t size;
  uint32_t capacity;
};

std::optional<DataBlock> findData(const Operation& operation, Id table) {
  const engine::FoundTable found = operation.table(table);
  if (found.slot.firstDataPos == 0) return std::nullopt;
  format::TableDataHead header;
  if (!engine::readTableDataHead(operation.db(), found.slot.firstDataPos, found.slot.tableID,
                                 &header)) {
    operation.fail(Reason::data_damaged, "the block with the data of " + operation.quotedTable() +
                                             " is not where it should be");
  }
  const DataBlock block{found.slot.firstDataPos + format::tabledata::kData, header.dataLength,
                        header.dataCapacity};
  if (static_cast<uint64_t>(block.dataPos) + block.size > operation.fileLength()) {
    operation.fail(Reason::data_damaged, "the data of " + operation.quotedTable() +
                                             " reaches beyond the end of the file");
  }
  return block;
}

// Whether a transaction must not write over the table's data, because they are in the file. Then
// they get a new block, of the same capacity at least.
bool takesNewBlock(const Operation& operation, Id table, uint32_t size, engine::FoundTable* found,
                   uint32_t* capacity) {
  if (operation.stage() == nullptr) return false;
  *found = operation.table(table);
  if (!operation.isKept(found->slot.firstDataPos)) return false;
  format::TableDataHead head;
  if (found->slot.firstDataPos == 0 ||
      !engine::readTableDataHead(operation.db(), found->slot.firstDataPos, found->slot.tableID,
                                 &head)) {
    return false;
  }
  *capacity = head.dataCapacity;
  return head.dataCapacity >= size;
}

// The block of a table's data, as far as it can be read: where it is, and its size in the file.
struct DataPlace {
  int64_t position = 0;
  uint64_t bytes = 0;
};

DataPlace placeOfData(const Operation& operation, Id table) {
  SavedPosition scope(operation.db());
  const engine::FoundTable found = operation.table(table);
  const int64_t position = found.slot.firstDataPos;
  format::TableDataHead head;
  if (position == 0 ||
      !engine::readTableDataHead(operation.db(), position, found.slot.tableID, &head)) {
    return {};
  }
  return {position, uint64_t{head.dataCapacity} + format::kTableDataBlockOverhead};
}

// Sets the data by `set`, and notes the block that is dead then.
template <typename Set>
bool setNotingDead(const Operation& operation, Id table, const Set& set) {
  detail::OpenDatabase& database = operation.database();
  if (!database.deadBytes) return set();
  const DataPlace before = placeOfData(operation, table);
  if (!set()) return false;
  if (placeOfData(operation, table).position != before.position) database.noteDead(before.bytes);
  return true;
}

bool setData(const Operation& operation, Id table, ByteView data, uint32_t reserve) {
  const auto size = static_cast<uint32_t>(data.size());
  SavedPosition scope(operation.db());
  engine::FoundTable found;
  uint32_t capacity = 0;
  if (!takesNewBlock(operation, table, size, &found, &capacity)) {
    return SetTableData(operation.db(), table.value, detail::bytesOf(data), size, reserve) == 1;
  }
  return scope.restore(internal_WriteOneTableLinkInEOF(
             operation.db(), found.slot.tableID, found.slotPos, found.slotSize,
             detail::bytesOf(data), size, std::max(capacity, reserve), nullptr)) == 1;
}

void readData(const Operation& operation, int64_t position, std::span<std::byte> buffer) {
  if (myFileSeek(operation.db(), position, kFromStart) == 0 &&
      format::readBytes(operation.db(), buffer.data(), static_cast<uint32_t>(buffer.size()))) {
    return;
  }
  operation.fail(Reason::cannot_read, "the data cannot be read");
}

}  // namespace

std::optional<uint32_t> Table::data_size() const {
  const Operation operation(database_, "look at the table's data");
  return detail::look(operation, [&]() -> std::optional<uint32_t> {
    const std::optional<DataBlock> block = findData(operation, id_);
    if (!block) return std::nullopt;
    return block->size;
  });
}

std::optional<uint32_t> Table::data_capacity() const {
  const Operation operation(database_, "look at the table's data");
  return detail::look(operation, [&]() -> std::optional<uint32_t> {
    const std::optional<DataBlock> block = findData(operation, id_);
    if (!block) return std::nullopt;
    return block->capacity;
  });
}

std::optional<std::vector<std::byte>> Table::data() const {
  const Operation operation(database_, "read the table's data");
  return detail::look(operation, [&]() -> std::optional<std::vector<std::byte>> {
    const std::optional<DataBlock> block = findData(operation, id_);
    if (!block) return std::nullopt;
    std::vector<std::byte> data;
    detail::resizeFor(operation, &data, block->size);
    readData(operation, block->dataPos, data);
    return data;
  });
}

size_t Table::read_data(uint64_t offset, std::span<std::byte> buffer) const {
  const Operation operation(database_, "read the table's data");
  return detail::look(operation, [&]() -> size_t {
    const std::optional<DataBlock> block = findData(operation, id_);
    if (!block || offset >= block->size) return 0;
    const uint64_t count = std::min<uint64_t>(buffer.size(), block->size - offset);
    const std::span<std::byte> part = buffer.first(static_cast<size_t>(count));
    readData(operation, block->dataPos + static_cast<int64_t>(offset), part);
    return part.size();
  });
}

void Table::set_data(ByteView data, uint32_t reserve) {
  static_cast<void>(detail::committed(database_, kSet, [&] {
    setDataOf(data, reserve);
    return true;
  }));
}

void Table::setDataOf(ByteView data, uint32_t reserve) {
  const Operation operation(database_, kSet);
  const uint32_t size = operation.requireSize(data.size());
  operation.requireWritable();
  operation.requireNoBulk();
  const detail::ChangeTurn turn(operation, detail::OwnBatch::isWaitedFor);
  const auto end = static_cast<int64_t>(operation.fileLength());
  if (setNotingDead(operation, id_, [&] { return setData(operation, id_, data, reserve); })) return;
  const uint64_t length = uint64_t{std::max(size, reserve)} + format::kTableDataBlockOverhead;
  detail::takeBack(operation, id_, end, {}, length);
  SavedPosition scope(operation.db());
  static_cast<void>(findData(operation, id_));
  operation.failedWrite(length);
}

}  // namespace qvdb
