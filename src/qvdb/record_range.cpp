// qvdb::RecordRange: the walk over a table's records.
//
// Headers are read in batches, each inside one transfer scope; the first batches are small, for
// those who want only the first records. A damage that is met while reading ahead is kept until the
// walk has delivered the records before it.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/record.hpp>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "QVDbase/tables.h"
#include "qvdb/chain_walker.h"
#include "qvdb/open_database.h"
#include "qvdb/records.h"
#include "support/file_transfers.h"

namespace qvdb {

namespace {
constexpr const char* kWalk = "list the records";
constexpr std::size_t kFirstBatch = 4;
constexpr std::size_t kLargestBatch = 1024;
// A batch ends when its payloads pass this size, so that memory holds little more than the largest.
constexpr std::size_t kLoadedBytes = 256 * 1024;
}  // namespace

struct detail::Walk {
  std::shared_ptr<OpenDatabase> database;
  Id table;
  std::string tableName;
  ChainWalker walker;
  Load load = Load::headers;
  std::vector<RecordInfo> batch;
  std::vector<std::byte> payloads;  // of the batch, one behind the other
  std::size_t payloadAt = 0;        // of the current record
  std::size_t at = 0;               // of the current record in the batch
  std::uint32_t delivered = 0;      // records, the current one included
  std::uint64_t changesSeen = 0;    // OpenDatabase::changes when the batch was read
  std::size_t batchSize = kFirstBatch;
  bool isDamaged = false;             // at the walker's last step
  std::exception_ptr payloadFailure;  // of the record behind the batch

  // Reads the payload behind the others of the batch.
  void loadPayload(const Operation& operation, const recordPart1& header, std::int64_t position) {
    const std::size_t from = payloads.size();
    const std::uint32_t size = header.dataLength;
    if (size == 0) return;
    if (const unsigned char* view =
            qvdbase::viewFile(operation.db(), position + qvdbase::record::kData, size)) {
      const auto* bytes = reinterpret_cast<const std::byte*>(view);
      payloads.insert(payloads.end(), bytes, bytes + size);
      return;
    }
    qvdbase::FoundRecord found;
    found.header = header;
    found.recordPos = position;
    std::vector<std::byte> payload;
    readWholePayload(operation, found, &payload);
    payloads.resize(from + size);
    std::copy(payload.begin(), payload.end(), payloads.begin() + static_cast<std::ptrdiff_t>(from));
  }

  // A payload that cannot be read is an error when the walk gets there, like a damaged header.
  bool tryLoadPayload(const Operation& operation, const recordPart1& header,
                      std::int64_t position) {
    if (load == Load::headers) return true;
    try {
      loadPayload(operation, header, position);
      return true;
    } catch (...) {
      if (batch.empty()) throw;
      payloadFailure = std::current_exception();
      return false;
    }
  }

  // Reads the next batch. It stays empty at the end of the walk; throws when the damage is next.
  void refill(const Operation& operation) {
    batch.clear();
    payloads.clear();
    at = 0;
    payloadAt = 0;
    changesSeen = database->changes;
    if (payloadFailure != nullptr) std::rethrow_exception(std::exchange(payloadFailure, nullptr));
    if (isDamaged) failDamagedChain(operation, walker, tableName);
    while (batch.size() < batchSize && payloads.size() < kLoadedBytes) {
      recordPart1 header;
      std::int64_t position = 0;
      const ChainWalker::Step step = walker.next(operation.db(), &header, &position);
      isDamaged = step == ChainWalker::Step::damaged;
      if (step != ChainWalker::Step::record) break;
      if (!tryLoadPayload(operation, header, position)) break;
      batch.push_back(recordInfo(header, position));
    }
    batchSize = std::min(batchSize * 2, kLargestBatch);
    if (batch.empty() && isDamaged) failDamagedChain(operation, walker, tableName);
  }

  // The chain has changed: what was read ahead may be wrong, so the walk goes on from the block of
  // the current record, whose links stand even when it is no part of the chain any more.
  void rereadBehind(const Operation& operation, std::int64_t position) {
    isDamaged = false;
    payloadFailure = nullptr;
    if (!walker.resumeBehind(operation.db(), position, delivered)) {
      operation.fail(Reason::chain_damaged,
                     "record " + std::to_string(delivered) + " of table '" + tableName +
                         "' does not stand any more where it stood",
                     delivered);
    }
  }
};

RecordRange::RecordRange(std::shared_ptr<detail::OpenDatabase> database, Id table, Load load)
    : walk_(std::make_unique<detail::Walk>()) {
  walk_->load = load;
  walk_->database = std::move(database);
  walk_->table = table;
}

RecordRange::RecordRange(RecordRange&&) noexcept = default;
RecordRange& RecordRange::operator=(RecordRange&&) noexcept = default;
RecordRange::~RecordRange() = default;

RecordRange::iterator RecordRange::begin() {
  start();
  return iterator(this);
}

void RecordRange::start() {
  done_ = true;
  detail::Walk& walk = *walk_;
  const detail::Operation operation(walk.database, kWalk);
  detail::ReadScope scope(operation.db());
  const qvdbase::FoundTable found = operation.table(walk.table);
  walk.tableName = detail::storedName(found.slot);
  walk.walker = detail::ChainWalker(found.slot);
  walk.isDamaged = false;
  walk.delivered = 0;
  walk.batchSize = kFirstBatch;
  walk.refill(operation);
  current_ = Record(walk.database, walk.table, {});
  take();
}

void RecordRange::advance() {
  detail::Walk& walk = *walk_;
  const bool hasChanged = walk.database->changes != walk.changesSeen;
  ++walk.at;
  if (walk.at == walk.batch.size() || hasChanged || walk.database->handle == 0) {
    done_ = true;  // unless a record follows; an error ends the walk
    const detail::Operation operation(walk.database, kWalk);
    detail::ReadScope scope(operation.db());
    if (hasChanged) walk.rereadBehind(operation, current_.info_.position);
    walk.refill(operation);
  }
  take();
}

void RecordRange::take() {
  detail::Walk& walk = *walk_;
  done_ = walk.at == walk.batch.size();
  if (done_) return;
  ++walk.delivered;
  current_.info_ = walk.batch[walk.at];
  if (walk.load == Load::headers) return;
  current_.loaded_ = std::span(walk.payloads).subspan(walk.payloadAt, current_.info_.size);
  walk.payloadAt += current_.info_.size;
}

}  // namespace qvdb
