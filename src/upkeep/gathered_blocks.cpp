#include "upkeep/gathered_blocks.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "format/big_endian.h"
#include "format/block_heads.h"
#include "format/payload_checksum.h"

using namespace qvdbase::format;
using namespace qvdbase::survey;

namespace qvdbase::upkeep {
namespace {

using support::KeyedNumber;

constexpr size_t kMemory = size_t{64} << 20;    // for the blocks
constexpr size_t kLargest = size_t{1} << 20;    // of a block that is kept in it
constexpr int64_t kPiece = int64_t{256} << 10;  // of the source
constexpr int64_t kGap = 4096;  // as many bytes are read as fast as another call is made

bool hasChecksumSpace(const LiveBlock& block) {
  return block.kind == BlockKind::record && !block.isCut &&
         format::hasChecksumSpace(block.length, block.capacity);
}

// What is copied: without spare bytes, or with a checksum in them, what is after the payload comes
// along.
int64_t endOfCopied(const LiveBlock& block) {
  const bool isWhole = block.length == block.capacity || hasChecksumSpace(block);
  return isWhole ? block.claimedEnd() : block.dataPos() + block.length;
}

// With a checksum, where there can be one.
uint32_t protectedCapacity(const LiveBlock& block) {
  if (block.kind != BlockKind::record || hasChecksumSpace(block)) return block.capacity;
  const uint32_t larger = capacityWithChecksum(block.length, block.capacity);
  return format::hasChecksumSpace(block.length, larger) ? larger : block.capacity;
}

uint32_t capacityInCopy(const LiveBlock& block, const Protection& protection) {
  return protection.unprotected ? protectedCapacity(block) : block.capacity;
}

}  // namespace

int64_t sizeInProtectedCopy(const LiveBlock& block) {
  const uint32_t more = protectedCapacity(block) - block.capacity;
  return block.claimedEnd() - block.position + int64_t{more};
}

bool GatheredBlocks::add(const LiveBlock& block) {
  const size_t size = sizeOf(block);
  if (size > kLargest) return write() && copyLarge(block);
  if (size_ + size > kMemory && !write()) return false;
  blocks_.push_back(&block);
  size_ += size;
  return true;
}

bool GatheredBlocks::finish() {
  return write();
}

bool GatheredBlocks::write() {
  if (blocks_.empty()) return true;
  if (image_.size() < size_) {
    image_ = {};  // never two of them
    image_ = platform::LargeArray<unsigned char>(size_);
  }
  if (!readAll()) return false;
  here_ = output_.position();
  unsigned char* bytes = image_.begin();
  for (const LiveBlock* each : blocks_) {
    if (!finishBlock(*each, bytes)) return false;
    bytes += sizeOf(*each);
  }
  output_.pass(image_.begin(), size_);
  blocks_.clear();
  size_ = 0;
  return true;
}

// ---- reading in the order of the source

bool GatheredBlocks::readAll() {
  order_.clear();
  order_.reserve(blocks_.size());
  size_t place = 0;
  for (uint32_t i = 0; i < blocks_.size(); ++i) {
    order_.push_back(
        {static_cast<uint64_t>(blocks_[i]->position), i, static_cast<uint32_t>(place)});
    place += sizeOf(*blocks_[i]);
  }
  support::sortByKey(&order_);
  const KeyedNumber* const end = order_.data() + order_.size();
  for (const KeyedNumber* begin = order_.data(); begin != end;) {
    const KeyedNumber* next = begin + 1;
    int64_t reached = endOfCopied(blockOf(*begin));
    for (; next != end; ++next) {
      const LiveBlock& block = blockOf(*next);
      const bool isNear = block.position - reached <= kGap;
      if (!isNear || endOfCopied(block) - blockOf(*begin).position > kPiece) break;
      reached = std::max(reached, endOfCopied(block));
    }
    if (!readPiece(begin, next)) return false;
    begin = next;
  }
  return true;
}

// Straight to its place what is to stay together.
bool GatheredBlocks::readPiece(const KeyedNumber* begin, const KeyedNumber* end) {
  const int64_t position = blockOf(*begin).position;
  const auto size = static_cast<size_t>(endOfCopied(blockOf(end[-1])) - position);
  if (isOneRun(begin, end)) return source_.readAll(position, image_.begin() + begin->note, size);
  if (piece_.size() < size) piece_.resize(size);
  if (!source_.readAll(position, piece_.data(), size)) return false;
  copyRuns(begin, end);
  return true;
}

// Whether each of them lies right after the one before it, here and there, and nothing between them
// is left out.
bool GatheredBlocks::isOneRun(const KeyedNumber* begin, const KeyedNumber* end) const {
  for (const KeyedNumber* each = begin; each + 1 != end; ++each) {
    const LiveBlock& block = blockOf(*each);
    const auto copied = static_cast<size_t>(endOfCopied(block) - block.position);
    const bool isFollowed =
        endOfCopied(block) == blockOf(each[1]).position && each->note + copied == each[1].note;
    if (!isFollowed) return false;
  }
  return true;
}

void GatheredBlocks::copyRuns(const KeyedNumber* begin, const KeyedNumber* end) {
  const int64_t from = blockOf(*begin).position;
  while (begin != end) {
    const LiveBlock& first = blockOf(*begin);
    size_t size = static_cast<size_t>(endOfCopied(first) - first.position);
    const KeyedNumber* next = begin + 1;
    for (; next != end; ++next) {
      const LiveBlock& block = blockOf(*next);
      const bool follows = block.position == first.position + static_cast<int64_t>(size) &&
                           next->note == begin->note + size;
      if (!follows) break;
      size += static_cast<size_t>(endOfCopied(block) - block.position);
    }
    std::memcpy(image_.begin() + begin->note, piece_.data() + (first.position - from), size);
    begin = next;
  }
}

// ---- what a block has anew

// The links, and what is after the payload. What the spare bytes of a source hold is dead, except
// for a checksum.
bool GatheredBlocks::finishBlock(const LiveBlock& block, unsigned char* bytes) {
  if (!setHead(block, bytes)) return false;
  unsigned char* const end = bytes + sizeOf(block) - 1;
  unsigned char* const payload = bytes + (block.dataPos() - block.position);
  unsigned char sum[checksum::kSize];
  bool hasSum = hasChecksumSpace(block) && isChecksum(end - sizeof sum);
  if (hasSum) std::memcpy(sum, end - sizeof sum, sizeof sum);
  if (makesChecksum(block, bytes, hasSum ? sum : nullptr)) {
    PayloadHash hash;
    hash.add(payload, block.length);
    const PayloadIdentity identity = payloadIdentity(decodeRecordHead(bytes));
    encodeChecksum(identity, hash.of(identity), sum);
    hasSum = true;
    ++made_;
  }
  const auto spare = static_cast<size_t>(end - payload) - block.length;
  if (spare > 0) std::memset(end - spare, 0, spare);
  if (hasSum) std::memcpy(end - sizeof sum, sum, sizeof sum);
  *end = kBlockEndMark;
  return true;
}

// `present` is the one that the block has, or null.
bool GatheredBlocks::makesChecksum(const LiveBlock& block, const unsigned char* head,
                                   const unsigned char* present) const {
  if (block.kind != BlockKind::record) return false;
  const uint32_t capacity = capacityInCopy(block, protection_);
  if (!format::hasChecksumSpace(block.length, capacity)) return false;
  if (present == nullptr) return protection_.unprotected;
  return protection_.changedElsewhere &&
         stateWithoutHash(present, payloadIdentity(decodeRecordHead(head))) ==
             PayloadState::changedElsewhere;
}

// False when the header is not the one that was surveyed. The first record of a table has no
// predecessor, and the last one no successor.
bool GatheredBlocks::setHead(const LiveBlock& block, unsigned char* bytes) {
  const int64_t position = std::exchange(here_, here_ + static_cast<int64_t>(sizeOf(block)));
  const auto isStill = [&](int64_t lengthAt, int64_t capacityAt) {
    return isBlockStart(bytes) && loadBigEndian<uint32_t>(bytes + lengthAt) == block.length &&
           loadBigEndian<uint32_t>(bytes + capacityAt) == block.capacity;
  };
  if (block.kind == BlockKind::tableData) {
    return isStill(tabledata::kDataLength, tabledata::kDataCapacity);
  }
  if (!isStill(record::kDataLength, record::kDataCapacity)) return false;
  storeBigEndian(bytes + record::kDataCapacity, capacityInCopy(block, protection_));
  const int64_t prev = block.isFirst ? 0 : previous_;
  const int64_t next = block.isLast ? 0 : here_;
  storeBigEndian(bytes + record::kPrevRecordPos, static_cast<uint64_t>(prev));
  storeBigEndian(bytes + record::kNextRecordPos, static_cast<uint64_t>(next));
  previous_ = position;
  return true;
}

// One that cannot be read is none.
bool GatheredBlocks::readChecksum(const LiveBlock& block, unsigned char* sum) const {
  if (!hasChecksumSpace(block)) return false;
  const int64_t position = checksumPosition(block.position, block.capacity);
  return position >= 0 && source_.readAll(position, sum, checksum::kSize) && isChecksum(sum);
}

// A block of any size, piece by piece.
bool GatheredBlocks::copyLarge(const LiveBlock& block) {
  unsigned char head[record::kData];
  const auto headSize = static_cast<size_t>(block.dataPos() - block.position);
  here_ = output_.position();
  if (!source_.readAll(block.position, head, headSize) || !setHead(block, head)) return false;
  output_.write(head, headSize);
  unsigned char sum[checksum::kSize];
  const bool isThere = readChecksum(block, sum);
  const bool isNew = makesChecksum(block, head, isThere ? sum : nullptr);
  PayloadHash hash;
  int64_t from = block.dataPos();
  const bool isCopied = output_.fill(block.length, [&](unsigned char* to, size_t part) {
    const bool isRead = source_.readAll(from, to, part);
    from += static_cast<int64_t>(part);
    if (isRead && isNew) hash.add(to, part);
    return isRead;
  });
  if (!isCopied) return false;
  if (isNew) {
    const PayloadIdentity identity = payloadIdentity(decodeRecordHead(head));
    encodeChecksum(identity, hash.of(identity), sum);
    ++made_;
  }
  const bool hasSum = isNew || isThere;
  const uint32_t spare = capacityInCopy(block, protection_) - block.length;
  output_.zeros(hasSum ? spare - checksum::kSize : spare);
  if (hasSum) output_.write(sum, sizeof sum);
  output_.write(&kBlockEndMark, 1);
  return true;
}

}  // namespace qvdbase::upkeep
