// qvdb::BulkAppender: a batch of the engine, with reasons for its failures.
#include <qvdbase/qvdb/bulk.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <algorithm>
#include <limits>

#include "QVDbase/record_batch.h"
#include "format/identifiers.h"
#include "platform/clock.h"
#include "platform/process_mark.h"
#include "qvdb/open_database.h"
#include "qvdb/table_index.h"

namespace qvdb {

using detail::Operation;
using detail::ReadScope;

namespace {
constexpr const char* kAppend = "add the records";
}

struct detail::Bulk {
  Bulk(std::shared_ptr<OpenDatabase> opened, const qvdbase::FoundTable& table)
      : database(std::move(opened)), batch(database->handle, table) {}

  std::shared_ptr<OpenDatabase> database;
  qvdbase::RecordBatch batch;
  qvdbase::IdentifierSeries identifiers;
  bool isFinished = false;
  qvdbase::platform::ProcessMark maker;

  // Takes in what is in the file. The index, if there is one, is built again when it is next used:
  // that costs less than telling it of each record.
  bool finish() {
    if (isFinished) return true;
    isFinished = true;
    if (database->handle == 0) return false;
    ++database->changes;
    const bool complete = batch.finish();
    const Id table{qvdbase::identifierNumber(batch.table().slot.tableID)};
    if (const auto index = indexOf(*database, table)) index->isStale = true;
    return complete;
  }
};

BulkAppender Table::appender() {
  const Operation operation(database_, kAppend);
  operation.requireWritable();
  return BulkAppender(database_, id_);
}

BulkAppender::BulkAppender(std::shared_ptr<detail::OpenDatabase> database, Id table) {
  const Operation operation(database, kAppend);
  ReadScope scope(operation.db());
  bulk_ = std::make_unique<detail::Bulk>(database, operation.table(table));
  if (bulk_->batch.begin()) return;
  bulk_->isFinished = true;
  operation.fail(Reason::chain_damaged,
                 "nothing can be added to the table: the end of its chain is damaged");
}

BulkAppender::BulkAppender(BulkAppender&&) noexcept = default;

BulkAppender& BulkAppender::operator=(BulkAppender&& other) noexcept {
  std::swap(bulk_, other.bulk_);
  return *this;
}

BulkAppender::~BulkAppender() {
  if (bulk_ == nullptr || bulk_->isFinished || !bulk_->maker.isOwn()) return;
  try {
    ReadScope scope(bulk_->database->handle);
    static_cast<void>(bulk_->finish());
  } catch (...) {
  }
}

Id BulkAppender::add(const NewRecord& record) {
  const Operation operation(bulk_->database, kAppend);
  if (bulk_->isFinished) operation.fail(Reason::bad_argument, "the batch is finished");
  if (record.payload.size() > std::numeric_limits<std::uint32_t>::max()) {
    operation.fail(Reason::too_large, "a record would be " + std::to_string(record.payload.size()) +
                                          " bytes, and 4,294,967,295 are the most");
  }
  qvdbase::BatchRecord entry;
  if (record.id) {
    internal_ConvertInt64_2UuID(record.id->value, entry.recordID);
  } else {
    bulk_->identifiers.next(entry.recordID);
  }
  entry.createTime = qvdbase::platform::secondsSinceEpoch();
  entry.modifyTime = entry.createTime;
  entry.dataLength = static_cast<std::uint32_t>(record.payload.size());
  entry.reserve = record.reserve;
  const bool done =
      bulk_->batch.add(entry, reinterpret_cast<const unsigned char*>(record.payload.data()));
  if (done) return Id{qvdbase::identifierNumber(entry.recordID)};

  ReadScope scope(operation.db());
  static_cast<void>(bulk_->finish());
  operation.failedWrite(std::max<std::uint64_t>(entry.dataLength, entry.reserve) +
                        qvdbase::kRecordBlockOverhead);
}

std::uint32_t BulkAppender::finish() {
  const Operation operation(bulk_->database, kAppend);
  ReadScope scope(operation.db());
  if (!bulk_->finish()) operation.failedWrite(1);
  return bulk_->batch.taken();
}

std::uint32_t BulkAppender::taken() const noexcept {
  return bulk_->batch.taken();
}

}  // namespace qvdb
