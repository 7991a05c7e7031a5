// qvdb::RecordWriter: one record of a batch, its payload in pieces.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>
#include <qvdbase/qvdb/writer.hpp>

#include <utility>

#include "failure/failure.h"
#include "format/identifiers.h"
#include "objects/open_database.h"
#include "objects/records.h"
#include "objects/writing/bulk.h"

using namespace qvdbase;

namespace qvdb {

using detail::Operation;

RecordWriter Table::writer(uint32_t reserve, std::optional<Id> record, Checksum checksum) {
  NewRecord unchecked(ByteView(), reserve, record, checksum);
  unchecked.given_ids = GivenIds::as_they_are;
  if (record) Operation(database_, detail::kWrite).requireIdentifier(*record);
  return writer(unchecked);
}

RecordWriter Table::writer(const NewRecord& record) {
  return RecordWriter(detail::Bulk::open(database_, id_), record, true);
}

RecordWriter::RecordWriter(std::shared_ptr<detail::Bulk> bulk, const NewRecord& record,
                           bool isAlone)
    : isAlone_(isAlone) {
  const Operation operation(bulk->database, detail::kWrite);
  bulk->requireIdle(operation);
  const engine::BatchRecord entry = bulk->entryOf(operation, record);
  const detail::OwnWrites writes(*bulk->database);
  if (!bulk->batch.openRecord(entry)) bulk->failed(operation, format::kRecordBlockOverhead);
  id_ = Id{format::identifierNumber(entry.recordID)};
  isProtected_ = entry.isProtected;
  bulk->inPieces = true;
  if (detail::KeyChange::concerns(operation, bulk->table)) bulk->pieces.emplace();
  bulk_ = std::move(bulk);
  if (record.payload.empty()) return;
  try {
    write(record.payload);
  } catch (...) {
    discard();  // the destructor does not run
    throw;
  }
}

RecordWriter::RecordWriter(RecordWriter&&) noexcept = default;

RecordWriter& RecordWriter::operator=(RecordWriter&& other) noexcept {
  RecordWriter taken(std::move(other));
  bulk_.swap(taken.bulk_);
  std::swap(id_, taken.id_);
  std::swap(size_, taken.size_);
  std::swap(isProtected_, taken.isProtected_);
  std::swap(isAlone_, taken.isAlone_);
  return *this;
}

RecordWriter::~RecordWriter() {
  discard();
}

void RecordWriter::write(ByteView bytes) {
  requireOpen();
  const Operation operation(bulk_->database, detail::kWrite);
  bulk_->requireOpen(operation);
  const uint32_t size = operation.requireSize(uint64_t{size_} + bytes.size(), isProtected_);
  const uint32_t count = size - size_;
  const detail::OwnWrites writes(*bulk_->database);
  if (bulk_->pieces) detail::appendTo(operation, &*bulk_->pieces, bytes);
  if (!bulk_->batch.appendPayload(detail::bytesOf(bytes), count)) bulk_->failed(operation, count);
  size_ = size;
}

Id RecordWriter::finish() {
  requireOpen();
  detail::withKeys(bulk_->database, detail::kWrite, bulk_->table,
                   [&](const Operation& operation, detail::KeyChange& keys) {
                     bulk_->requireOpen(operation);
                     if (!bulk_->addPieces(operation, id_, keys)) return std::optional<Id>();
                     return std::optional(id_);
                   });
  if (isAlone_) bulk_->finishCommitted(detail::kWrite);
  bulk_.reset();
  return id_;
}

void RecordWriter::discard() noexcept {
  const std::shared_ptr<detail::Bulk> bulk = std::exchange(bulk_, nullptr);
  if (bulk == nullptr) return;
  bulk->dropRecord();
  if (isAlone_) bulk->discard();
}

// A writer without its batch was finished, discarded or moved from.
void RecordWriter::requireOpen() const {
  if (bulk_ != nullptr) return;
  failure::throwError(detail::kWrite, Reason::bad_argument, "its writer was finished or discarded");
}

}  // namespace qvdb
