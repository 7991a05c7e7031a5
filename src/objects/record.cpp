// qvdb::Record: reading the payload of a record that was found.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/record.hpp>

#include <algorithm>
#include <new>
#include <utility>

#include "QVDbase/record_find.h"
#include "QVDbase/record_protection.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "objects/open_database.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "platform/host/host_failure.h"

using namespace qvdbase;

namespace qvdb {

using detail::kRead;
using detail::Operation;

namespace {

// Below this size a payload's buffer is allocated without asking whether the file is long enough.
constexpr uint32_t kSmallPayload = 64 * 1024;

// The header of the record's block as it is now; false when there is no longer a block of this
// record. A table whose identifier has a wrong sum has the same wrong sum in its slot and its
// blocks.
bool readPresentHeader(const Operation& operation, Id table, const RecordInfo& info,
                       recordPart1* header) {
  unsigned char tableID[format::kIdentifierSize];
  internal_ConvertInt64_2UuID(table.value, tableID);
  return (engine::readRecordHeaderAt(operation.db(), info.position, tableID, header) ||
          engine::readRecordHeaderAt(operation.db(), info.position,
                                     operation.table(table).slot.tableID, header)) &&
         format::identifierNumber(header->recordID) == info.id.value;
}

// The same after a compaction: where that has put it, or, after several, where its chain has it.
RecordInfo movedInfo(const Operation& operation, Id table, const RecordInfo& found,
                     uint32_t opening) {
  RecordInfo moved = found;
  recordPart1 header;
  moved.position = operation.database().placeNow(found.position, opening);
  if (moved.position == 0 || !readPresentHeader(operation, table, moved, &header)) {
    engine::FoundRecord now;
    if (detail::locate(operation, table, found.id, &now) == detail::Located::no) {
      operation.fail(Reason::record_missing, "record " + to_string(found.id) + " is not there");
    }
    header = now.header;
    moved.position = now.recordPos;
  }
  const RecordInfo present = detail::recordInfo(header, moved.position);
  detail::requireInsideFile(operation, present);
  return present;
}

// The record as it is now. Throws when there is no longer a block of it, or its payload reaches
// beyond the end of the file.
RecordInfo presentInfo(const Operation& operation, Id table, RecordInfo found, uint32_t opening,
                       uint32_t transaction) {
  recordPart1 header;
  const auto position =
      operation.database().transactions.presentPosition(transaction, found.position);
  if (!position) {
    operation.fail(Reason::changed_meanwhile,
                   "record " + to_string(found.id) +
                       " was found in a transaction that has ended since; find it again");
  }
  found.position = *position;
  if (opening != operation.database().opening) {
    if (opening >= operation.database().opened) return movedInfo(operation, table, found, opening);
    operation.fail(Reason::changed_meanwhile,
                   "record " + to_string(found.id) +
                       " was found before the database was opened again; find it again");
  }
  if (!readPresentHeader(operation, table, found, &header)) {
    operation.fail(Reason::record_missing,
                   "record " + to_string(found.id) + " is no longer where it was found");
  }
  const RecordInfo present = detail::recordInfo(header, found.position);
  detail::requireInsideFile(operation, present);
  return present;
}

[[noreturn]] void failReading(const Operation& operation, const RecordInfo& info) {
  detail::requireInsideFile(operation, info);
  operation.fail(Reason::cannot_read,
                 "the payload of record " + to_string(info.id) + " cannot be read");
}

format::PayloadIdentity identityOf(Id table, const RecordInfo& info) {
  return {table.value, info.id.value, info.modify_time, info.size};
}

// A block that is cut off before its checksum has none.
engine::StoredChecksum checksumOf(const Operation& operation, const RecordInfo& info) {
  engine::StoredChecksum stored;
  if (!engine::readChecksum(operation.db(), info.position, info.size, info.capacity, &stored) &&
      platform::lastHostFailure()) {
    failReading(operation, info);
  }
  return stored;
}

// What the checksum says of the payload in the file.
format::PayloadState storedState(const Operation& operation, Id table, const RecordInfo& info) {
  const engine::StoredChecksum stored = checksumOf(operation, info);
  if (!stored.isThere) return format::PayloadState::unprotected;
  const format::PayloadIdentity identity = identityOf(table, info);
  if (const auto known = stateWithoutHash(stored.bytes, identity)) return *known;
  format::PayloadHash hash;
  if (!engine::hashStoredPayload(operation.db(), info.position, info.size, &hash)) {
    failReading(operation, info);
  }
  return stateOfPayload(stored.bytes, identity, hash);
}

constexpr bool isSame(PayloadState a, format::PayloadState b) {
  return static_cast<uint8_t>(a) == static_cast<uint8_t>(b);
}
static_assert(isSame(PayloadState::verified, format::PayloadState::verified));
static_assert(isSame(PayloadState::unprotected, format::PayloadState::unprotected));
static_assert(isSame(PayloadState::changed_elsewhere, format::PayloadState::changedElsewhere));
static_assert(isSame(PayloadState::rotten, format::PayloadState::rotten));

}  // namespace

Record::Record(std::shared_ptr<detail::OpenDatabase> database, Id table, const RecordInfo& info)
    : database_(std::move(database)),
      table_(table),
      info_(info),
      opening_(database_->opening),
      transaction_(database_->transactions.openNumber) {}

Record::Record(const Record& other)
    : database_(other.database_),
      table_(other.table_),
      info_(other.info_),
      opening_(other.opening_),
      transaction_(other.transaction_),
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
  return detail::look(operation, [&]() -> size_t {
    const RecordInfo present = presentInfo(operation, table_, info_, opening_, transaction_);
    if (offset >= present.size) return 0;
    const uint64_t count = std::min<uint64_t>(buffer.size(), present.size - offset);
    const std::span<std::byte> part = buffer.first(static_cast<size_t>(count));
    detail::readPayload(operation, table_, present, offset, part);
    return part.size();
  });
}

std::vector<std::byte> Record::payload() const {
  std::vector<std::byte> buffer;
  payload(buffer);
  return buffer;
}

void Record::payload(std::vector<std::byte>& buffer) const {
  const Operation operation(database_, kRead);
  detail::look(operation, [&] {
    const RecordInfo present = presentInfo(operation, table_, info_, opening_, transaction_);
    detail::resizeFor(operation, &buffer, present.size);
    detail::readPayload(operation, table_, present, 0, buffer);
  });
}

PayloadState Record::verify() const {
  const Operation operation(database_, "verify the record");
  return detail::look(operation, [&] {
    const RecordInfo present = presentInfo(operation, table_, info_, opening_, transaction_);
    return static_cast<PayloadState>(storedState(operation, table_, present));
  });
}

void Record::require_sound() const {
  const Operation operation(database_, kRead);
  detail::look(operation, [&] {
    const RecordInfo present = presentInfo(operation, table_, info_, opening_, transaction_);
    const auto state = static_cast<PayloadState>(storedState(operation, table_, present));
    if (state == PayloadState::rotten) operation.failPayload(present);
  });
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

void resizeFor(const Operation& operation, std::vector<std::byte>* buffer, size_t size) {
  try {
    buffer->resize(size);
  } catch (const std::bad_alloc&) {
    operation.fail(Reason::too_large,
                   "there is not enough memory for its " + std::to_string(size) + " bytes");
  }
}

void appendTo(const Operation& operation, std::vector<std::byte>* buffer, ByteView bytes) {
  const size_t from = buffer->size();
  resizeFor(operation, buffer, from + bytes.size());
  std::copy(bytes.begin(), bytes.end(), buffer->begin() + static_cast<ptrdiff_t>(from));
}

void requireInsideFile(const Operation& operation, const RecordInfo& info) {
  if (static_cast<uint64_t>(info.data_position) + info.size <= operation.fileLength()) return;
  operation.fail(Reason::data_damaged, "the payload of record " + to_string(info.id) +
                                           " reaches beyond the end of the file");
}

void appendPayload(const Operation& operation, Id table, const RecordInfo& info, uint32_t size,
                   std::vector<std::byte>* buffer) {
  if (size > kSmallPayload) requireInsideFile(operation, info);
  const size_t from = buffer->size();
  resizeFor(operation, buffer, from + size);
  readPayload(operation, table, info, 0, std::span(*buffer).subspan(from));
}

void readPayload(const Operation& operation, Id table, const RecordInfo& info, uint64_t offset,
                 std::span<std::byte> part) {
  const int64_t from = info.data_position + static_cast<int64_t>(offset);
  if (myFileSeek(operation.db(), from, kFromStart) != 0 ||
      !format::readBytes(operation.db(), part.data(), static_cast<uint32_t>(part.size()))) {
    failReading(operation, info);
  }
  if (offset == 0 && part.size() == info.size) requireSound(operation, table, info, part.data());
}

format::PayloadState stateOf(const Operation& operation, Id table, const RecordInfo& info,
                             const void* payload) {
  const engine::StoredChecksum stored = checksumOf(operation, info);
  if (!stored.isThere) return format::PayloadState::unprotected;
  return stateOfPayload(stored.bytes, identityOf(table, info), payload);
}

namespace {

std::string placeOf(const ChainWalker& walker) {
  const auto number = walker.recordNumber();
  if (number)
    return "at record " + std::to_string(*number) + " of " + std::to_string(walker.count());
  return "at record " + std::to_string(walker.number()) + " from where the walk began";
}

}  // namespace

void failDamagedChain(const Operation& operation, const ChainWalker& walker) {
  operation.fail(Reason::chain_damaged,
                 "the records of " + operation.quotedTable() + " are damaged " + placeOf(walker) +
                     ": " + walker.damage(),
                 walker.recordNumber());
}

}  // namespace detail

}  // namespace qvdb
