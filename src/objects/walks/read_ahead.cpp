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

bool ReadBatch::take(RecordInfo* info, std::span<const std::byte>* payload) {
  if (at_ == records_.size()) return false;
  *info = records_[at_++];
  if (loading_.isNone()) return true;
  const uint32_t loaded = loading_.of(info->size);
  *payload = std::span<const std::byte>(payloads_).subspan(payloadAt_, loaded);
  payloadAt_ += loaded;
  return true;
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

void FilePiece::setLength(uint32_t length) {
  constexpr auto kSmallest = static_cast<uint32_t>(format::record::kData);
  length_ = length;
  heads_ = length < kSmallest ? 0 : length - kSmallest + 1;
}

bool FilePiece::pin(int16_t db, const ChainWalker& chain) {
  start_ = startOf(chain, kPinnedSize);
  pinned_ = platform::pinBytes(db, start_, kPinnedSize);
  data_ = pinned_.data();
  setLength(static_cast<uint32_t>(pinned_.size()));
  return offsetOf(chain.nextPosition()) < heads_;
}

// Back from a record, the bytes between the next one's header and it are that one's payload.
bool FilePiece::read(int16_t db, const ChainWalker& chain) {
  pinned_.release();
  setLength(0);
  taken_ = 0;
  if (chain.nextPosition() <= 0 || chain.isAtCount()) return false;
  if (pin(db, chain)) return true;
  start_ = startOf(chain, kPieceSize);
  if (bytes_ == nullptr) bytes_.reset(new unsigned char[kPieceSize]);
  data_ = bytes_.get();
  // At the end of the file it is less than was asked for.
  if (!support::seekTo(db, start_)) return false;
  uint32_t length = 0;
  static_cast<void>(support::readFile(db, bytes_.get(), kPieceSize, &length));
  setLength(length);
  return length > 0;
}

bool FilePiece::take(ChainWalker& chain, const Loading& loading, RecordInfo* info,
                     std::span<const std::byte>* payload) {
  const int64_t position = chain.nextPosition();
  const uint64_t offset = offsetOf(position);
  if (offset >= heads_) return false;
  const unsigned char* head = data_ + offset;
  const auto size = format::loadBigEndian<uint32_t>(head + format::record::kDataLength);
  const auto capacity = format::loadBigEndian<uint32_t>(head + format::record::kDataCapacity);
  const uint32_t loaded = loading.of(size);
  if (loaded >= heads_ - offset) return false;
  if (loaded == size && format::hasChecksumSpace(size, capacity)) {
    return takeIfSound(chain, loading.table, info, payload);
  }
  return take(chain, head, position, info) && show(head, loaded, payload);
}

// Whether the payload agrees with its checksum: not one whose checksum is not in the piece.
bool FilePiece::isSound(const RecordInfo& info, Id table) const {
  const uint64_t offset = offsetOf(format::checksumPosition(info.position, info.capacity));
  if (offset > length_ || length_ - offset < format::checksum::kSize) return false;
  const unsigned char* payload = data_ + offsetOf(info.data_position);
  return isSoundInMemory(table, info, payload, data_ + offset);
}

// Not inline, so that nothing is prepared for it where there is no space for a checksum.
__attribute__((noinline)) bool FilePiece::takeIfSound(ChainWalker& chain, Id table,
                                                      RecordInfo* info,
                                                      std::span<const std::byte>* payload) {
  const int64_t position = chain.nextPosition();
  const unsigned char* head = data_ + offsetOf(position);
  RecordInfo found;
  storeInfo(head, position, &found);
  return isSound(found, table) && take(chain, head, position, info) &&
         show(head, found.size, payload);
}

}  // namespace qvdb::detail
