// Reading ahead for a walk.
#include "objects/walks/read_ahead.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "objects/record_search.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr size_t kLargestBatch = 1024;
// A batch ends when its payloads pass this size, so that memory holds little more than the largest.
constexpr size_t kLoadedBytes = 256 * 1024;
// From so many records on, no further apart on average than this, a piece of the file pays.
constexpr size_t kManyRecords = 128;
constexpr int64_t kWidestStep = 4096;
constexpr uint32_t kPieceSize = 128 * 1024;
// What is in memory anyway costs nothing to take more of.
constexpr uint32_t kPinnedSize = 1024 * 1024;

// Where a piece of this size begins that has the chain's next record.
int64_t startOf(const ChainWalker& chain, uint32_t size) {
  const int64_t next = chain.nextPosition();
  if (chain.isForward()) return next;
  const int64_t passed = chain.passedPosition();
  const bool isClose = passed > next && passed - next <= int64_t{size} / 2;
  constexpr int64_t kFarthest = std::numeric_limits<int64_t>::max() - format::record::kData;
  const int64_t end = isClose ? passed : std::min(next, kFarthest) + format::record::kData;
  return std::max<int64_t>(0, end - int64_t{size});
}

}  // namespace

void ReadBatch::read(const Operation& operation, ChainWalker& chain) {
  isForward_ = chain.isForward();
  while (records_.size() < size_ && payloads_.size() < kLoadedBytes) {
    if (!readOne(operation, chain)) break;
  }
  size_ = std::min(size_ * 2, kLargestBatch);
}

void ReadBatch::finish() {
  records_.clear();
  payloads_.clear();
  at_ = 0;
  payloadAt_ = 0;
  if (failure_ != nullptr) std::rethrow_exception(std::exchange(failure_, nullptr));
}

bool ReadBatch::isDense() const {
  if (records_.size() < kManyRecords) return false;
  const int64_t from = records_.front().position;
  const int64_t to = records_.back().position;
  const int64_t span = isForward_ ? to - from : from - to;
  return span > 0 && span / static_cast<int64_t>(records_.size()) <= kWidestStep;
}

// False when no record follows, or it cannot be read.
bool ReadBatch::readOne(const Operation& operation, ChainWalker& chain) {
  recordPart1 header;
  int64_t position = 0;
  std::optional<ChainWalker> before;
  if (operation.database().readsBesideWriters()) before = chain;
  const ChainWalker::Step step = chain.next(operation.db(), &header, &position);
  if (step == ChainWalker::Step::end) return false;
  if (step == ChainWalker::Step::damaged && hasBecomeShorter(operation, chain)) {
    chain.endHere();
    return false;
  }
  const bool isRead = tryToRead([&] {
    if (step == ChainWalker::Step::damaged) failDamagedChain(operation, chain);
    readPayload(operation, header, position);
  });
  if (!isRead) {
    if (before) leaveFor(*before, chain);
    return false;
  }
  storeInfo(header, position, &records_.emplace_back());
  return true;
}

// Beside writers it is looked at again when the walk gets there, and may have changed by then.
void ReadBatch::leaveFor(const ChainWalker& before, ChainWalker& chain) {
  failure_ = nullptr;
  chain = before;
}

// Reads what is wanted of the payload after the others of the batch.
void ReadBatch::readPayload(const Operation& operation, const recordPart1& header,
                            int64_t position) {
  const uint32_t size = loading_.of(header.dataLength);
  if (size == 0) return;
  const unsigned char* view =
      support::viewFile(operation.db(), position + format::record::kData, size);
  if (view == nullptr) {
    return appendPayload(operation, loading_.table, recordInfo(header, position), size, &payloads_);
  }
  const auto* bytes = reinterpret_cast<const std::byte*>(view);
  payloads_.insert(payloads_.end(), bytes, bytes + size);
  if (size != header.dataLength) return;
  const RecordInfo info = recordInfo(header, position);
  requireSound(operation, loading_.table, info, payloads_.data() + payloads_.size() - size);
}

// What cannot be read is an error when the walk gets there. What the host answered is known now.
template <typename Read>
bool ReadBatch::tryToRead(Read read) {
  try {
    read();
    return true;
  } catch (const std::exception&) {
    if (records_.empty()) throw;
    failure_ = std::current_exception();
    return false;
  }
}

bool FilePiece::pin(int16_t db, const ChainWalker& chain) {
  start_ = startOf(chain, kPinnedSize);
  pinned_ = platform::pinBytes(db, start_, kPinnedSize);
  data_ = pinned_.data();
  length_ = static_cast<uint32_t>(pinned_.size());
  return at(chain.nextPosition(), format::record::kData) != nullptr;
}

// Back from a record, the bytes between the next one's header and it are that one's payload.
bool FilePiece::read(int16_t db, const ChainWalker& chain) {
  pinned_.release();
  length_ = 0;
  taken_ = 0;
  if (chain.nextPosition() <= 0 || chain.isAtCount()) return false;
  if (pin(db, chain)) return true;
  start_ = startOf(chain, kPieceSize);
  bytes_.resize(kPieceSize);
  data_ = bytes_.data();
  // At the end of the file it is less than was asked for.
  if (!support::seekTo(db, start_)) return false;
  static_cast<void>(support::readFile(db, bytes_.data(), kPieceSize, &length_));
  return length_ > 0;
}

}  // namespace qvdb::detail
