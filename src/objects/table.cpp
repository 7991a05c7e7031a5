// qvdb::Table: the table itself, reading its records and its data.
#include <qvdbase/qvdbase.h>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <algorithm>
#include <utility>

#include "QVDbase/table_data.h"
#include "format/Aliment8.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "objects/chain_walker.h"
#include "objects/open_database.h"
#include "objects/records.h"
#include "objects/table_index.h"

using namespace qvdbase;

namespace qvdb {

using detail::ChainWalker;
using detail::Operation;
using detail::ReadScope;

namespace {

// The block of table data: where its data begins, and its size. Nothing when the table has none.
struct DataBlock {
  int64_t dataPos;
  uint32_t size;
};

std::optional<DataBlock> findData(const Operation& operation, Id table) {
  const engine::FoundTable found = operation.table(table);
  if (found.slot.firstDataPos == 0) return std::nullopt;
  format::TableDataHead header;
  if (!engine::readTableDataHead(operation.db(), found.slot.firstDataPos, found.slot.tableID,
                                 &header)) {
    operation.fail(Reason::data_damaged, "the block with the data of table '" +
                                             format::storedName(found.slot) +
                                             "' is not where it should be");
  }
  const DataBlock block{found.slot.firstDataPos + format::tabledata::kData, header.dataLength};
  if (static_cast<uint64_t>(block.dataPos) + block.size > operation.fileLength()) {
    operation.fail(Reason::data_damaged, "the data of table '" + format::storedName(found.slot) +
                                             "' reaches beyond the end of the file");
  }
  return block;
}

void readData(const Operation& operation, int64_t position, std::span<std::byte> buffer) {
  if (myFileSeek(operation.db(), position, kFromStart) == 0 &&
      format::readBytes(operation.db(), buffer.data(), static_cast<uint32_t>(buffer.size()))) {
    return;
  }
  operation.fail(Reason::cannot_read, "the data cannot be read");
}

}  // namespace

Table::Table(std::shared_ptr<detail::OpenDatabase> database, Id id, std::string name)
    : database_(std::move(database)), id_(id), name_(std::move(name)) {}

TableInfo Table::info() const {
  const Operation operation(database_, "look at the table");
  ReadScope scope(operation.db());
  const tablePart1 slot = operation.table(id_).slot;
  TableInfo info;
  info.id = id_;
  info.name = format::storedName(slot);
  info.version = slot.tableVersion;
  info.record_count = slot.recordCount;
  info.record_write_count = slot.recordWriteCount;
  info.data_write_count = slot.dataWriteCount;
  info.first_record_position = slot.firstRecordPos;
  info.last_record_position = slot.lastRecordPos;
  info.data_position = slot.firstDataPos;
  return info;
}

uint32_t Table::count() const {
  const Operation operation(database_, "count the records");
  ReadScope scope(operation.db());
  return operation.table(id_).slot.recordCount;
}

RecordRange Table::records(Load load) const {
  return RecordRange(database_, id_, load);
}

RecordIndex Table::index() const {
  const Operation operation(database_, "index the table");
  if (operation.database().mode != Mode::exclusive) {
    operation.fail(Reason::bad_argument,
                   "others may change it: an index needs a database that is opened exclusively");
  }
  ReadScope scope(operation.db());
  RecordIndex index(detail::makeIndex(*database_, id_));
  if (!index.index_->isStale) return index;
  ChainWalker walker;
  if (!detail::buildIndex(operation, *index.index_, &walker)) {
    detail::failDamagedChain(operation, walker, name_);
  }
  return index;
}

std::optional<Record> Table::find(Id record) const {
  const Operation operation(database_, "find the record");
  ReadScope scope(operation.db());
  if (const auto index = detail::indexOf(*database_, id_)) {
    engine::FoundRecord found;
    const detail::Answer answer = detail::askIndex(operation, *index, record, &found);
    if (answer == detail::Answer::absent) return std::nullopt;
    if (answer == detail::Answer::found) {
      return Record(database_, id_, detail::recordInfo(found.header, found.recordPos));
    }
  }
  ChainWalker walker(operation.table(id_).slot);
  for (;;) {
    recordPart1 header;
    int64_t position = 0;
    const ChainWalker::Step step = walker.next(operation.db(), &header, &position);
    if (step == ChainWalker::Step::end) return std::nullopt;
    if (step == ChainWalker::Step::damaged) detail::failDamagedChain(operation, walker, name_);
    if (format::identifierNumber(header.recordID) == record.value) {
      return Record(database_, id_, detail::recordInfo(header, position));
    }
  }
}

bool Table::contains(Id record) const {
  return find(record).has_value();
}

std::optional<std::vector<std::byte>> Table::get(Id record) const {
  const Operation operation(database_, "read the record");
  if (const auto index = detail::indexOf(*database_, id_)) {
    ReadScope scope(operation.db());
    engine::FoundRecord found;
    const detail::Answer answer = detail::askIndex(operation, *index, record, &found);
    if (answer == detail::Answer::absent) return std::nullopt;
    if (answer == detail::Answer::found) {
      std::vector<std::byte> buffer;
      detail::readWholePayload(operation, found, &buffer);
      return buffer;
    }
  }
  const std::optional<Record> found = find(record);
  if (!found) return std::nullopt;
  return found->payload();
}

std::optional<uint32_t> Table::get(Id record, std::span<std::byte> buffer) const {
  const Operation operation(database_, "read the record");
  if (const auto index = detail::indexOf(*database_, id_)) {
    ReadScope scope(operation.db());
    engine::FoundRecord found;
    const detail::Answer answer = detail::askIndex(operation, *index, record, &found);
    if (answer == detail::Answer::absent) return std::nullopt;
    if (answer == detail::Answer::found) {
      detail::readPayloadStart(operation, found, buffer);
      return found.header.dataLength;
    }
  }
  const std::optional<Record> found = find(record);
  if (!found) return std::nullopt;
  found->read(0, buffer);
  return found->size();
}

std::optional<uint32_t> Table::data_size() const {
  const Operation operation(database_, "look at the table's data");
  ReadScope scope(operation.db());
  const std::optional<DataBlock> block = findData(operation, id_);
  if (!block) return std::nullopt;
  return block->size;
}

std::optional<std::vector<std::byte>> Table::data() const {
  const Operation operation(database_, "read the table's data");
  ReadScope scope(operation.db());
  const std::optional<DataBlock> block = findData(operation, id_);
  if (!block) return std::nullopt;
  std::vector<std::byte> data;
  detail::resizeFor(operation, &data, block->size);
  readData(operation, block->dataPos, data);
  return data;
}

size_t Table::read_data(uint64_t offset, std::span<std::byte> buffer) const {
  const Operation operation(database_, "read the table's data");
  ReadScope scope(operation.db());
  const std::optional<DataBlock> block = findData(operation, id_);
  if (!block || offset >= block->size) return 0;
  const auto count = static_cast<size_t>(std::min<uint64_t>(buffer.size(), block->size - offset));
  readData(operation, block->dataPos + static_cast<int64_t>(offset), buffer.first(count));
  return count;
}

}  // namespace qvdb
