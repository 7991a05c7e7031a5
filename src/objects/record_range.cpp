// qvdb::RecordRange: the walk over a table's records.
//
// Headers are read in batches, each inside one transfer scope; the first batches are small, for
// those who want only the first records. A damage that is met while reading ahead is kept until the
// walk has delivered the records before it. Where the records of a batch lay close together in the
// order of the file, a large piece of the file is read instead, and the walk goes from record to
// record in there: nothing is decoded ahead, and payloads are handed out where they stand.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/record.hpp>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "QVDbase/tables.h"
#include "format/Aliment8.h"
#include "format/big_endian.h"
#include "objects/chain_walker.h"
#include "objects/file_piece.h"
#include "objects/open_database.h"
#include "objects/records.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb {

namespace {
constexpr const char* kWalk = "list the records";
constexpr size_t kFirstBatch = 4;
constexpr size_t kLargestBatch = 1024;
// A batch ends when its payloads pass this size, so that memory holds little more than the largest.
constexpr size_t kLoadedBytes = 256 * 1024;
// Batches of so many records, which lie no further apart on average, are worth a piece of the file;
// so many must have come of one to read another.
constexpr size_t kWorthAPiece = 128;
constexpr int64_t kWidestStep = 4096;
constexpr size_t kLeastOfAPiece = 16;
}  // namespace

struct detail::Walk {
  Walk() = default;
  ~Walk() {
    if (database != nullptr) std::erase(database->walks, this);
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  std::shared_ptr<OpenDatabase> database;
  Id table;
  std::string tableName;
  ChainWalker walker;
  Load load = Load::headers;
  std::vector<RecordInfo> batch;
  std::vector<std::byte> payloads;  // of the batch, one behind the other
  size_t payloadAt = 0;             // of the next record
  FilePiece piece;
  bool inPiece = false;      // the walk goes through the piece, and there is no batch
  size_t fromPiece = 0;      // records that have come of the piece
  bool isDense = false;      // what follows is worth a piece
  size_t at = 0;             // of the next record in the batch
  uint32_t delivered = 0;    // records, the current one included
  uint64_t changesSeen = 0;  // OpenDatabase::changes when the batch was read
  int64_t pieceAt = 0;       // the current record, where it came of the piece
  size_t batchSize = kFirstBatch;
  // What has become of the current record, when it has moved or is gone.
  struct {
    uint32_t number = 0;  // the record, as `delivered` counts
    bool isGone = false;
    int64_t position = 0;  // of its new block; of the record after it, when it is gone
  } changed;
  bool isDamaged = false;             // at the walker's last step
  std::exception_ptr payloadFailure;  // of the record behind the batch

  // Reads the payload behind the others of the batch.
  void loadPayload(const Operation& operation, const recordPart1& header, int64_t position) {
    const uint32_t size = header.dataLength;
    if (size == 0) return;
    if (const unsigned char* view =
            support::viewFile(operation.db(), position + format::record::kData, size)) {
      const auto* bytes = reinterpret_cast<const std::byte*>(view);
      payloads.insert(payloads.end(), bytes, bytes + size);
      return;
    }
    appendPayload(operation, recordInfo(header, position), &payloads);
  }

  // A payload that cannot be read is an error when the walk gets there, like a damaged header.
  bool tryLoadPayload(const Operation& operation, const recordPart1& header, int64_t position) {
    if (load == Load::headers) return true;
    try {
      loadPayload(operation, header, position);
      return true;
    } catch (const std::exception&) {
      if (batch.empty()) throw;
      payloadFailure = std::current_exception();
      return false;
    }
  }

  void judgeDensity() {
    if (batch.size() < kWorthAPiece) return;
    const int64_t span = batch.back().position - batch.front().position;
    isDense = span > 0 && span / static_cast<int64_t>(batch.size()) <= kWidestStep;
  }

  // Takes one record into the batch. False when none follows, or its payload cannot be had.
  bool takeNext(const Operation& operation) {
    recordPart1 header;
    int64_t position = 0;
    const ChainWalker::Step step = walker.next(operation.db(), &header, &position);
    isDamaged = step == ChainWalker::Step::damaged;
    if (step != ChainWalker::Step::record) return false;
    if (!tryLoadPayload(operation, header, position)) return false;
    storeInfo(header, position, &batch.emplace_back());
    return true;
  }

  void readBatch(const Operation& operation) {
    while (batch.size() < batchSize && payloads.size() < kLoadedBytes) {
      if (!takeNext(operation)) break;
    }
    batchSize = std::min(batchSize * 2, kLargestBatch);
    judgeDensity();
  }

  // The next record out of the piece. False when it is not in there as far as it is wanted, or when
  // none follows.
  bool takeFromPiece(RecordInfo* info, std::span<const std::byte>* payload) {
    const int64_t position = walker.nextPosition();
    const unsigned char* head = piece.at(position, format::record::kData);
    if (head == nullptr) return false;
    const auto size = format::loadBigEndian<uint32_t>(head + format::record::kDataLength);
    const unsigned char* bytes = nullptr;
    if (load == Load::payloads) {
      bytes = piece.at(position + format::record::kData, size);
      if (bytes == nullptr) return false;
    }
    const ChainWalker::Step step = walker.pass(head);
    isDamaged = step == ChainWalker::Step::damaged;
    if (step != ChainWalker::Step::record) return false;
    storeInfo(head, position, info);
    pieceAt = position;
    if (bytes != nullptr) *payload = std::as_bytes(std::span(bytes, size));
    ++fromPiece;
    return true;
  }

  // Reads the piece that begins with the next record, if one is worth it. A record that is larger
  // than a piece is left to a batch.
  bool readPiece(const Operation& operation) {
    const int64_t next = walker.nextPosition();
    return isDense && next > 0 && !walker.isAtCount() && piece.read(operation.db(), next);
  }

  // Reads what follows and takes the first record of it. False at the end of the walk; throws when
  // the damage is next.
  bool refill(const Operation& operation, RecordInfo* info, std::span<const std::byte>* payload) {
    batch.clear();
    payloads.clear();
    at = 0;
    payloadAt = 0;
    changesSeen = database->changes;
    if (payloadFailure != nullptr) std::rethrow_exception(std::exchange(payloadFailure, nullptr));
    if (isDamaged) failDamagedChain(operation, walker);
    if (inPiece) isDense = fromPiece >= kLeastOfAPiece;
    fromPiece = 0;
    inPiece = readPiece(operation);
    if (inPiece && takeFromPiece(info, payload)) return true;
    if (inPiece) isDense = inPiece = false;
    if (!isDamaged) readBatch(operation);
    if (batch.empty() && isDamaged) failDamagedChain(operation, walker);
    return takeFromBatch(info, payload);
  }

  bool takeFromBatch(RecordInfo* info, std::span<const std::byte>* payload) {
    if (at == batch.size()) return false;
    *info = batch[at++];
    if (load == Load::headers) return true;
    *payload = std::span<const std::byte>(payloads).subspan(payloadAt, info->size);
    payloadAt += info->size;
    return true;
  }

  // The next record of what has been read.
  bool take(RecordInfo* info, std::span<const std::byte>* payload) {
    return inPiece ? takeFromPiece(info, payload) : takeFromBatch(info, payload);
  }

  // Whether the walk has delivered a record and has not ended.
  bool hasCurrent() const { return delivered > 0 && (inPiece || at > 0); }

  // Where the current record is now.
  int64_t currentPosition() const {
    if (changed.number == delivered) return changed.position;
    return inPiece ? pieceAt : batch[at - 1].position;
  }

  bool isCurrentGone() const { return changed.number == delivered && changed.isGone; }

  // A change of this table that leaves what was read ahead as it is in the file: one of the record
  // that was just delivered, or an addition beyond what was read.
  bool goesOnAfter(const RecordChange& change) {
    using Kind = RecordChange::Kind;
    if (change.kind == Kind::added) {
      const bool wasAtEnd = walker.nextPosition() == 0;
      if (wasAtEnd && isCurrentGone() && changed.position == 0) changed.position = change.position;
      return !wasAtEnd && !inPiece;
    }
    if (change.position != currentPosition()) return false;
    const bool wasGone = isCurrentGone();  // then it is the record after it that has changed
    if (change.kind != Kind::inPlace) {
      changed = {delivered, wasGone || change.kind == Kind::removed, change.to};
    }
    return !wasGone;
  }

  void note(const RecordChange& change) {
    const bool isUpToDate = changesSeen + 1 == database->changes;
    const bool goesOn = change.table != table || (hasCurrent() && goesOnAfter(change));
    if (isUpToDate && goesOn) changesSeen = database->changes;
  }

  // The chain has changed: what was read ahead may be wrong, so the walk goes on from the block of
  // the current record.
  void rereadBehind(const Operation& operation, int64_t foundAt) {
    isDamaged = false;
    payloadFailure = nullptr;
    if (isCurrentGone()) return walker.resumeAt(changed.position, delivered);
    const int64_t position = hasCurrent() ? currentPosition() : foundAt;
    if (!walker.resumeAfter(operation.db(), position, delivered)) {
      operation.fail(Reason::chain_damaged,
                     "record " + std::to_string(delivered) + " of table '" + tableName +
                         "' is not any more where it was",
                     delivered);
    }
  }
};

void detail::OpenDatabase::noteChange(const RecordChange& change) {
  for (Walk* walk : walks) walk->note(change);
}

RecordRange::RecordRange(std::shared_ptr<detail::OpenDatabase> database, Id table, Load load)
    : walk_(std::make_unique<detail::Walk>()) {
  walk_->load = load;
  walk_->database = std::move(database);
  walk_->table = table;
}

RecordRange::RecordRange(RecordRange&&) noexcept = default;
RecordRange& RecordRange::operator=(RecordRange&&) noexcept = default;
RecordRange::~RecordRange() = default;

RecordRange::iterator RecordRange::begin() & {
  start();
  return iterator(this);
}

void RecordRange::start() {
  done_ = true;
  detail::Walk& walk = *walk_;
  const detail::Operation operation(walk.database, kWalk);
  engine::SavedPosition scope(operation.db());
  const engine::FoundTable found = operation.table(walk.table);
  auto& walks = walk.database->walks;
  if (std::find(walks.begin(), walks.end(), &walk) == walks.end()) walks.push_back(&walk);
  walk.tableName = format::storedName(found.slot);
  walk.walker = detail::ChainWalker(found.slot);
  walk.isDamaged = false;
  walk.payloadFailure = nullptr;
  walk.isDense = false;
  walk.inPiece = false;
  walk.delivered = 0;
  walk.changed = {};
  walk.batchSize = kFirstBatch;
  current_ = Record(walk.database, walk.table, {});
  done_ = !walk.refill(operation, &current_.info_, &current_.loaded_);
  walk.delivered = done_ ? 0 : 1;
}

void RecordRange::advance() {
  detail::Walk& walk = *walk_;
  const bool hasChanged = walk.database->changes != walk.changesSeen;
  const bool isOpen = walk.database->handle != 0;
  if (hasChanged || !isOpen || !walk.take(&current_.info_, &current_.loaded_)) {
    return readOn(hasChanged);
  }
  ++walk.delivered;
}

// Apart from the step that is taken for nearly every record, which so stays small.
void RecordRange::readOn(bool hasChanged) {
  done_ = true;  // unless a record follows; an error ends the walk
  detail::Walk& walk = *walk_;
  const detail::Operation operation(walk.database, kWalk);
  engine::SavedPosition scope(operation.db());
  operation.about(walk.tableName);
  if (hasChanged) walk.rereadBehind(operation, current_.info_.position);
  done_ = !walk.refill(operation, &current_.info_, &current_.loaded_);
  if (!done_) ++walk.delivered;
}

}  // namespace qvdb
