// Appending many records at once: blocks in pieces, then one link and one slot.
#include "QVDbase/record_batch.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <limits>
#include <utility>

#include "QVDbase/position.h"
#include "QVDbase/record_append.h"
#include "QVDbase/record_find.h"
#include "format/big_endian.h"
#include "format/block_heads.h"
#include "format/block_parts.h"

using namespace qvdbase::support;
using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace qvdbase::engine {
namespace {

// Larger pieces are written a little faster, but the host then keeps them in larger units, in which
// each later change of a few bytes costs more.
constexpr uint32_t kPieceSize = uint32_t{256} << 10;

// Links a block of the piece, the last one so far, to the next.
void linkInMemory(unsigned char* block, int64_t nextRecordPos) {
  unsigned char* link = block + record::kNextRecordPos;
  assert(loadBigEndian<uint64_t>(link) == 0 && "a record in the piece has a successor already");
  storeBigEndian(link, static_cast<uint64_t>(nextRecordPos));
}

// Whether the record that the batch follows is there and is the last one.
bool lastRecordIsOpen(int16_t db, const tablePart1& slot) {
  recordPart1 last;
  return readRecordHeaderAt(db, slot.lastRecordPos, slot.tableID, &last) && last.nextRecordPos == 0;
}

uint32_t capacityOf(uint32_t length, uint32_t reserve, bool isProtected) {
  return isProtected ? capacityWithChecksum(length, reserve) : std::max(length, reserve);
}

void encodeChecksum(const recordPart1& header, const PayloadHash& hash, unsigned char* sum) {
  const PayloadIdentity identity = payloadIdentity(header);
  format::encodeChecksum(identity, hash.of(identity), sum);
}

}  // namespace

RecordBatch::RecordBatch(int16_t db, const FoundTable& table) : db_(db), table_(table) {}

bool RecordBatch::begin() {
  const tablePart1& slot = table_.slot;
  failed_ = true;
  if (!chainHeadMatchesCount(slot)) return false;
  if ((slot.recordCount == 0) != (slot.lastRecordPos == 0)) return false;
  if (slot.recordCount != 0 && !lastRecordIsOpen(db_, slot)) return false;
  piece_ = platform::Buffer(kPieceSize);
  if (!piece_) return false;
  if (myFileSeek(db_, 0, kFromEnd) != 0) return false;
  piecePos_ = myGetFilePos(db_);
  appended_ = {piecePos_, piecePos_};
  failed_ = false;
  return true;
}

bool RecordBatch::add(const BatchRecord& record, const unsigned char* payload) {
  const uint32_t capacity = capacityOf(record.dataLength, record.reserve, record.isProtected);
  const int64_t blockSize = int64_t{capacity} + kRecordBlockOverhead;
  if (!canAdd(blockSize)) return false;
  if (blockSize > int64_t{kPieceSize} - pieceUsed_ && !writePiece()) return false;

  recordPart1 header = headerOf(record);
  header.dataLength = record.dataLength;
  header.dataCapacity = capacity;
  unsigned char sum[checksum::kSize];
  if (record.isProtected) {
    PayloadHash hash;
    hash.add(payload, record.dataLength);
    encodeChecksum(header, hash, sum);
  }
  const unsigned char* const ownSum = record.isProtected ? sum : nullptr;
  if (blockSize > int64_t{kPieceSize}) return writeAlone(header, payload, ownSum);
  unsigned char* data = piece_.data() + pieceUsed_ + record::kData;
  if (record.dataLength > 0) std::memcpy(data, payload, record.dataLength);
  completeInPiece(header, ownSum);
  return true;
}

bool RecordBatch::canAdd(int64_t blockSize) const {
  constexpr int64_t kFarthest = std::numeric_limits<int64_t>::max() - 2 * int64_t{kPieceSize};
  // unreached: no file is that long
  return !failed_ && !open_.isOpen && piecePos_ <= kFarthest - blockSize &&
         table_.slot.recordCount <= UINT32_MAX - added_.count - 1;
}

recordPart1 RecordBatch::headerOf(const BatchRecord& record) const {
  recordPart1 header = {};
  header.blockMark = kRecordMark;
  header.headerSize = kRecordHeaderSize;
  std::memcpy(header.tableID, table_.slot.tableID, kIdentifierSize);
  std::memcpy(header.recordID, record.recordID, kIdentifierSize);
  header.createTime = record.createTime;
  header.modifyTime = record.modifyTime;
  header.prevRecordPos = added_.count == 0 ? table_.slot.lastRecordPos : added_.last;
  return header;
}

void RecordBatch::noteAdded(int64_t blockPos) {
  assert(blockPos >= appended_.from && "a block before those of the batch");
  assert((added_.count == 0 || blockPos > added_.last) && "a block before the one it follows");
  if (added_.count == 0) added_.first = blockPos;
  added_.last = blockPos;
  added_.count += 1;
}

// For a block that is in the file, with all before it.
bool RecordBatch::noteWritten(int64_t blockPos) {
  noteAdded(blockPos);
  written_ = added_;
  return true;
}

// Makes a whole block of the payload that is in its place after the blocks of the piece.
void RecordBatch::completeInPiece(const recordPart1& header, const unsigned char* sum) {
  const int64_t blockPos = piecePos_ + pieceUsed_;
  if (pieceUsed_ > 0) linkInMemory(piece_.data() + lastInPiece_, blockPos);
  unsigned char* block = piece_.data() + pieceUsed_;
  encodeRecordHead(header, block);
  std::memset(block + record::kData + header.dataLength, 0,
              header.dataCapacity - header.dataLength);
  unsigned char* const end = block + record::kData + header.dataCapacity;
  if (sum != nullptr) std::memcpy(end - checksum::kSize, sum, checksum::kSize);
  *end = kBlockEndMark;
  lastInPiece_ = pieceUsed_;
  pieceUsed_ += static_cast<uint32_t>(kRecordBlockOverhead + header.dataCapacity);
  assert(pieceUsed_ <= kPieceSize && "a block that is larger than what is left of its piece");
  noteAdded(blockPos);
}

bool RecordBatch::writeOut() {
  return !failed_ && !open_.isOpen && writePiece();
}

bool RecordBatch::finish() {
  if (open_.isOpen) return false;
  const bool complete = !failed_ && writePiece();
  const bool takenIn = written_.count == 0 || takeIn();
  return complete && takenIn;
}

void RecordBatch::discard() {
  failed_ = true;
  open_.isOpen = false;
  pieceUsed_ = 0;
  if (!isLinked_ && appended_.end > appended_.from) static_cast<void>(takeBack(db_, appended_));
}

// Whether the file still ends where the next bytes go; so many of them then count as this batch's.
bool RecordBatch::isAtEnd(int64_t length) {
  if (myFileSeek(db_, 0, kFromEnd) != 0) return false;
  disturbed_ = myGetFilePos(db_) != piecePos_;
  if (disturbed_) return false;
  appended_.end = piecePos_ + length;
  return true;
}

// Appends `length` bytes, which write() writes. Each piece has a scope of its own: that it is with
// the operating system must be known before it counts, and a piece that is refused must not make
// the taking in of those before it fail.
template <typename Write>
bool RecordBatch::appendPiece(int64_t length, Write write) {
  SavedPosition position(db_);
  const bool complete = position.restore(isAtEnd(length) && write());
  piecePos_ += length;
  failed_ = !complete;
  return complete;
}

bool RecordBatch::writePiece() {
  if (pieceUsed_ == 0) return true;
  const uint32_t length = std::exchange(pieceUsed_, 0);
  if (!appendPiece(length, [&] {
        return writeBytes(db_, piece_.data(), length) && linkToWritten(piecePos_);
      })) {
    return false;
  }
  written_ = added_;
  return true;
}

// A block that no piece can hold. The piece before it has been written.
bool RecordBatch::writeAlone(const recordPart1& header, const unsigned char* payload,
                             const unsigned char* sum) {
  const uint32_t capacity = header.dataCapacity;
  const int64_t blockPos = piecePos_;
  unsigned char image[record::kData];
  encodeRecordHead(header, image);
  return appendPiece(int64_t{capacity} + kRecordBlockOverhead,
                     [&] {
                       return writeBytes(db_, image, record::kData) &&
                              writeBytes(db_, payload, header.dataLength) &&
                              writeBlockEnd(db_, capacity - header.dataLength, sum) &&
                              linkToWritten(blockPos);
                     }) &&
         noteWritten(blockPos);
}

bool RecordBatch::openRecord(const BatchRecord& record) {
  if (!canAdd(int64_t{UINT32_MAX} + kRecordBlockOverhead)) return false;
  if (kPieceSize - pieceUsed_ < record::kData && !writePiece()) return false;
  open_ = {};
  open_.isOpen = true;
  open_.header = headerOf(record);
  open_.reserve = record.reserve;
  open_.isProtected = record.isProtected;
  open_.blockPos = piecePos_ + pieceUsed_;
  open_.inPiece = record::kData;  // the header is stored last
  return true;
}

bool RecordBatch::appendPayload(const unsigned char* bytes, uint32_t count) {
  const uint32_t most = open_.isProtected ? kMostWithChecksum : UINT32_MAX;
  if (failed_ || !open_.isOpen || count > most - open_.length) return false;
  if (open_.isProtected) open_.hash.add(bytes, count);
  while (count > 0) {
    if (open_.isInFile && open_.inPiece == 0 && count >= kPieceSize) {
      open_.length += count;
      return writeOpenPart(bytes, count);
    }
    if (pieceUsed_ + open_.inPiece == kPieceSize && !makeSpace()) return false;
    const uint32_t fitting = std::min(count, kPieceSize - pieceUsed_ - open_.inPiece);
    std::memcpy(piece_.data() + pieceUsed_ + open_.inPiece, bytes, fitting);
    open_.inPiece += fitting;
    open_.length += fitting;
    bytes += fitting;
    count -= fitting;
  }
  return true;
}

bool RecordBatch::closeRecord() {
  if (failed_ || !open_.isOpen) return false;
  const uint32_t capacity = capacityOf(open_.length, open_.reserve, open_.isProtected);
  const int64_t blockSize = int64_t{capacity} + kRecordBlockOverhead;
  const auto fits = [&] { return blockSize <= int64_t{kPieceSize} - pieceUsed_; };
  if (!open_.isInFile && !fits() && pieceUsed_ > 0 && !makeSpace()) return false;
  if (!open_.isInFile && !fits() && !makeSpace()) return false;
  open_.header.dataLength = open_.length;
  open_.header.dataCapacity = capacity;
  open_.isOpen = false;
  unsigned char sum[checksum::kSize];
  if (open_.isProtected) encodeChecksum(open_.header, open_.hash, sum);
  const unsigned char* const ownSum = open_.isProtected ? sum : nullptr;
  if (open_.isInFile) return closeInFile(ownSum);
  completeInPiece(open_.header, ownSum);
  return true;
}

bool RecordBatch::dropRecord() {
  if (!open_.isOpen) return !failed_;
  open_.isOpen = false;
  if (failed_ || !open_.isInFile) return !failed_;
  failed_ = !takeBack(db_, {open_.blockPos, appended_.end}) || myFileSeek(db_, 0, kFromEnd) != 0;
  if (failed_) return false;
  const int64_t end = myGetFilePos(db_);
  disturbed_ = end != open_.blockPos && end != piecePos_;
  failed_ = disturbed_;
  if (!failed_) piecePos_ = appended_.end = end;
  return !failed_;
}

// Writes the blocks before the record that is open, or, once there are none, what there is of it.
bool RecordBatch::makeSpace() {
  if (const uint32_t before = pieceUsed_; before > 0) {
    if (!writePiece()) return false;
    std::memmove(piece_.data(), piece_.data() + before, open_.inPiece);
    return true;
  }
  if (!open_.isInFile) {
    open_.header.dataLength = open_.header.dataCapacity = UINT32_MAX;
    encodeRecordHead(open_.header, piece_.data());
  }
  open_.isInFile = true;
  return writeOpenPart(piece_.data(), std::exchange(open_.inPiece, 0));
}

bool RecordBatch::writeOpenPart(const unsigned char* bytes, uint32_t count) {
  return appendPiece(count, [&] { return writeBytes(db_, bytes, count); });
}

// The lengths follow once all that they count is there.
bool RecordBatch::closeInFile(const unsigned char* sum) {
  const uint32_t rest = std::exchange(open_.inPiece, 0);
  const uint32_t fill = open_.header.dataCapacity - open_.length;
  return appendPiece(
             int64_t{rest} + fill + 1,
             [&] {
               return writeBytes(db_, piece_.data(), rest) && writeBlockEnd(db_, fill, sum) &&
                      // unreached: own position
                      myFileSeek(db_, open_.blockPos + record::kDataLength, kFromStart) == 0 &&
                      writeUint32(db_, open_.header.dataLength) &&
                      writeUint32(db_, open_.header.dataCapacity) && linkToWritten(open_.blockPos);
             }) &&
         noteWritten(open_.blockPos);
}

// The pieces are written with their last record open, so that they end soundly wherever the batch
// stops; the link across their border follows once the next piece is there.
bool RecordBatch::linkToWritten(int64_t pieceFirst) {
  return written_.count == 0 || writeLink(db_, written_.last, record::kNextRecordPos, pieceFirst);
}

// After a failure the last record that is wholly in the file may have got the link to one that is
// not: it is cleared again, or nothing is taken in.
bool RecordBatch::endsSoundly() {
  recordPart1 last;
  if (!readRecordHeaderAt(db_, written_.last, table_.slot.tableID, &last)) return false;
  // unreached: needs two failures, the second alone
  return last.nextRecordPos == 0 || writeLink(db_, written_.last, record::kNextRecordPos, 0);
}

bool RecordBatch::takeIn() {
  CallScope scope(db_);
  if (failed_ && !endsSoundly()) return false;
  tablePart1 slot;
  if (myFileSeek(db_, table_.slotPos, kFromStart) != 0 ||
      !readUsedSlot(db_, table_.slotSize, &slot)) {
    return false;
  }
  // The batch's first record names the last one, and its blocks are where the end of the file was.
  disturbed_ = disturbed_ || !hasSameChain(slot, table_.slot);
  if (disturbed_ || (slot.recordCount != 0 && !lastRecordIsOpen(db_, slot))) return false;
  assert(written_.last < appended_.end && "a record beyond what the batch has written");
  isLinked_ = true;
  if (slot.recordCount != 0) {
    if (!writeLink(db_, slot.lastRecordPos, record::kNextRecordPos, written_.first)) return false;
  }
  if (slot.firstRecordPos == 0) slot.firstRecordPos = written_.first;
  slot.lastRecordPos = slot.lastWrittenRecordPos = written_.last;
  slot.recordCount += written_.count;
  slot.recordWriteCount += written_.count;
  if (!rewriteSlot(db_, table_.slotPos, slot) || !scope.end()) return false;
  table_.slot = slot;
  taken_ = written_.count;
  return true;
}

}  // namespace qvdbase::engine
