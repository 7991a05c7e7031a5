// qvdb::Record: reading the payload of a record that was found.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/record.hpp>

#include <algorithm>
#include <new>
#include <utility>

#include "QVDbase/record_find.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "objects/open_database.h"
#include "objects/records.h"

using namespace qvdbase;

using namespace qvdbase::engine;

namespace qvdb {

using detail::Operation;
using detail::ReadScope;

namespace {

constexpr const char* kRead = "read the record";

// Below this size a payload's buffer is had without asking whether the file can hold it.
constexpr uint32_t kSmallPayload = 64 * 1024;

[[noreturn]] void failBeyondEnd(const Operation& operation, Id record) {
  operation.fail(Reason::data_damaged, "the payload of record " + to_string(record) +
                                           " reaches beyond the end of the file");
}

// The header of the record's block as it now is; false when no block of this record is there any
// more. A table whose identifier has a wrong sum has the same wrong sum in its slot and its blocks.
bool readPresentHeader(const Operation& operation, Id table, const RecordInfo& info,
                       recordPart1* header) {
  unsigned char tableID[format::kIdentifierSize];
  internal_ConvertInt64_2UuID(table.value, tableID);
  return (engine::readRecordHeaderAt(operation.db(), info.position, tableID, header) ||
          engine::readRecordHeaderAt(operation.db(), info.position,
                                     operation.table(table).slot.tableID, header)) &&
         format::identifierNumber(header->recordID) == info.id.value;
}

// The size that the payload has now. Leaves the file wherever; throws when no block of the record
// stands there any more or the payload does not lie inside the file.
uint32_t presentSize(const Operation& operation, Id table, const RecordInfo& info) {
  recordPart1 header;
  if (!readPresentHeader(operation, table, info, &header)) {
    operation.fail(Reason::record_missing,
                   "record " + to_string(info.id) + " does not stand any more where it stood");
  }
  const auto dataPos = static_cast<uint64_t>(info.data_position);
  if (dataPos + header.dataLength > operation.fileLength()) {
    failBeyondEnd(operation, info.id);
  }
  return header.dataLength;
}

void readPayload(const Operation& operation, const RecordInfo& info, uint64_t offset,
                 std::span<std::byte> buffer) {
  const int64_t from = info.data_position + static_cast<int64_t>(offset);
  if (myFileSeek(operation.db(), from, kFromStart) != 0 ||
      !format::readBytes(operation.db(), buffer.data(), static_cast<uint32_t>(buffer.size()))) {
    operation.fail(Reason::cannot_read,
                   "the payload of record " + to_string(info.id) + " cannot be read");
  }
}

}  // namespace

Record::Record(std::shared_ptr<detail::OpenDatabase> database, Id table, const RecordInfo& info)
    : database_(std::move(database)), table_(table), info_(info) {}

Record::Record(const Record& other)
    : database_(other.database_),
      table_(other.table_),
      info_(other.info_),
      loaded_(other.loaded_),
      kept_(other.kept_) {
  keepLoaded();
}

Record& Record::operator=(const Record& other) {
  Record copy(other);
  return *this = std::move(copy);
}

// The walk's buffer will hold other bytes soon.
void Record::keepLoaded() {
  if (loaded_.empty() || kept_ != nullptr) return;
  std::shared_ptr<std::byte[]> kept(new std::byte[loaded_.size()]);
  std::copy(loaded_.begin(), loaded_.end(), kept.get());
  loaded_ = {kept.get(), loaded_.size()};
  kept_ = std::move(kept);
}

size_t Record::read(uint64_t offset, std::span<std::byte> buffer) const {
  const Operation operation(database_, kRead);
  ReadScope scope(operation.db());
  const uint64_t size = presentSize(operation, table_, info_);
  if (offset >= size) return 0;
  const auto count = static_cast<size_t>(std::min<uint64_t>(buffer.size(), size - offset));
  readPayload(operation, info_, offset, buffer.first(count));
  return count;
}

std::vector<std::byte> Record::payload() const {
  std::vector<std::byte> buffer;
  payload(buffer);
  return buffer;
}

void Record::payload(std::vector<std::byte>& buffer) const {
  const Operation operation(database_, kRead);
  ReadScope scope(operation.db());
  detail::resizeFor(operation, &buffer, presentSize(operation, table_, info_));
  readPayload(operation, info_, 0, buffer);
}

namespace detail {

void storeInfo(const recordPart1& header, int64_t recordPos, RecordInfo* info) {
  info->id = Id{format::identifierNumber(header.recordID)};
  info->create_time = header.createTime;
  info->modify_time = header.modifyTime;
  info->size = header.dataLength;
  info->capacity = header.dataCapacity;
  info->position = recordPos;
  info->data_position = recordPos + format::record::kData;
}

RecordInfo recordInfo(const recordPart1& header, int64_t recordPos) {
  RecordInfo info;
  storeInfo(header, recordPos, &info);
  return info;
}

void readWholePayload(const Operation& operation, const engine::FoundRecord& found,
                      std::vector<std::byte>* buffer) {
  const uint32_t size = found.header.dataLength;
  const auto end = static_cast<uint64_t>(found.recordPos) + format::record::kData + size;
  if (size > kSmallPayload && end > operation.fileLength()) {
    failBeyondEnd(operation, Id{format::identifierNumber(found.header.recordID)});
  }
  resizeFor(operation, buffer, size);
  readPayloadStart(operation, found, *buffer);
}

void readPayloadStart(const Operation& operation, const engine::FoundRecord& found,
                      std::span<std::byte> buffer) {
  const auto count =
      static_cast<uint32_t>(std::min<size_t>(buffer.size(), found.header.dataLength));
  if (myFileSeek(operation.db(), found.recordPos + format::record::kData, kFromStart) != 0 ||
      !format::readBytes(operation.db(), buffer.data(), count)) {
    failBeyondEnd(operation, Id{format::identifierNumber(found.header.recordID)});
  }
}

void resizeFor(const Operation& operation, std::vector<std::byte>* buffer, uint32_t size) {
  try {
    buffer->resize(size);
  } catch (const std::bad_alloc&) {
    operation.fail(Reason::too_large,
                   "there is not enough memory for its " + std::to_string(size) + " bytes");
  }
}

void failDamagedChain(const Operation& operation, const ChainWalker& walker,
                      const std::string& table) {
  operation.fail(Reason::chain_damaged,
                 "the records of table '" + table + "' are damaged at record " +
                     std::to_string(walker.number()) + " of " + std::to_string(walker.count()) +
                     ": " + walker.damage(),
                 walker.number());
}

}  // namespace detail

}  // namespace qvdb
