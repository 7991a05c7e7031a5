// qvdb::BulkAppender: many records in one batch.
#include <qvdbase/qvdb/bulk.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <utility>

#include "objects/open_database.h"
#include "objects/writing/bulk.h"

namespace qvdb {

using detail::Operation;

BulkAppender Table::appender() {
  return BulkAppender(detail::Bulk::open(database_, id_));
}

BulkAppender::BulkAppender(std::shared_ptr<detail::Bulk> bulk) : bulk_(std::move(bulk)) {}

BulkAppender::BulkAppender(BulkAppender&&) noexcept = default;

BulkAppender& BulkAppender::operator=(BulkAppender&& other) noexcept {
  BulkAppender taken(std::move(other));
  bulk_.swap(taken.bulk_);
  return *this;
}

// A writer that still exists keeps the batch, but not its records.
BulkAppender::~BulkAppender() {
  if (bulk_ != nullptr) bulk_->discard();
}

Id BulkAppender::add(const NewRecord& record) {
  return detail::withKeys(bulk_->database, detail::kAppend, bulk_->table,
                          [&](const Operation& operation, detail::KeyChange& keys) {
                            bulk_->requireIdle(operation);
                            const bool isAdded = bulk_->add(operation, record, keys);
                            return isAdded ? std::optional(bulk_->latest) : std::nullopt;
                          });
}

RecordWriter BulkAppender::writer(uint32_t reserve, std::optional<Id> record, Checksum checksum) {
  NewRecord unchecked(ByteView(), reserve, record, checksum);
  unchecked.given_ids = GivenIds::as_they_are;
  if (record) Operation(bulk_->database, detail::kWrite).requireIdentifier(*record);
  return writer(unchecked);
}

RecordWriter BulkAppender::writer(const NewRecord& record) {
  return RecordWriter(bulk_, record, false);
}

uint32_t BulkAppender::finish() {
  {
    const Operation operation(bulk_->database, detail::kAppend);
    if (bulk_->state == detail::Bulk::State::finished) return taken();
    bulk_->requireIdle(operation);
  }
  bulk_->finishCommitted(detail::kAppend);
  return taken();
}

uint32_t BulkAppender::taken() const noexcept {
  const detail::DatabaseTurn turn(*bulk_->database);
  return bulk_->batch.taken();
}

}  // namespace qvdb
