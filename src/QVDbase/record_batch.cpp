// Appending many records at once: blocks in pieces, then one link and one slot.
#include "QVDbase/record_batch.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "QVDbase/position.h"
#include "QVDbase/record_append.h"
#include "QVDbase/record_find.h"
#include "format/big_endian.h"
#include "format/block_heads.h"
#include "format/fields.h"
#include "format/fill.h"

namespace qvdbase {
namespace {

// Larger pieces are written a little faster, but the host then keeps them in larger units, in which
// each later change of a few bytes costs more.
constexpr uint32_t kPieceSize = uint32_t{256} << 10;

void putNextRecordPos(unsigned char* block, int64_t nextRecordPos) {
  storeBigEndian(block + record::kNextRecordPos, static_cast<uint64_t>(nextRecordPos));
}

// Whether the record that the batch goes behind is there and is the last one.
bool lastRecordIsOpen(int16_t db, const tablePart1& slot) {
  recordPart1 last;
  return readRecordHeaderAt(db, slot.lastRecordPos, slot.tableID, &last) && last.nextRecordPos == 0;
}

// Whether nobody has changed the chain since the batch began: its first record says what lies
// before it, and its blocks stand where the end of the file was.
bool hasSameChain(const tablePart1& now, const tablePart1& then) {
  return now.recordCount == then.recordCount && now.recordWriteCount == then.recordWriteCount &&
         now.firstRecordPos == then.firstRecordPos && now.lastRecordPos == then.lastRecordPos;
}

bool endsAt(int16_t db, int64_t position) {
  return myFileSeek(db, 0, kFromEnd) == 0 && myGetFilePos(db) == position;
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
  failed_ = false;
  return true;
}

bool RecordBatch::add(const BatchRecord& record, const unsigned char* payload) {
  const uint32_t capacity = std::max(record.dataLength, record.reserve);
  const int64_t blockSize = int64_t{capacity} + kRecordBlockOverhead;
  constexpr int64_t kFarthest = std::numeric_limits<int64_t>::max() - 2 * int64_t{kPieceSize};
  if (failed_ || piecePos_ > kFarthest - blockSize) return false;
  if (table_.slot.recordCount > UINT32_MAX - added_.count - 1) return false;
  if (blockSize > int64_t{kPieceSize} - pieceUsed_ && !writePiece()) return false;

  const int64_t blockPos = piecePos_ + pieceUsed_;
  recordPart1 header = {};
  header.blockMark = kRecordMark;
  header.headerSize = kRecordHeaderSize;
  std::memcpy(header.tableID, table_.slot.tableID, kIdentifierSize);
  std::memcpy(header.recordID, record.recordID, kIdentifierSize);
  header.createTime = record.createTime;
  header.modifyTime = record.modifyTime;
  header.prevRecordPos = added_.count == 0 ? table_.slot.lastRecordPos : added_.last;
  header.dataLength = record.dataLength;
  header.dataCapacity = capacity;

  if (blockSize > int64_t{kPieceSize}) return writeAlone(header, payload, capacity);
  if (pieceUsed_ > 0) putNextRecordPos(piece_.data() + lastInPiece_, blockPos);
  unsigned char* block = piece_.data() + pieceUsed_;
  encodeRecordHead(header, block);
  if (record.dataLength > 0) std::memcpy(block + record::kData, payload, record.dataLength);
  std::memset(block + record::kData + record.dataLength, 0, capacity - record.dataLength);
  block[record::kData + capacity] = kBlockEndMark;

  lastInPiece_ = pieceUsed_;
  pieceUsed_ += static_cast<uint32_t>(blockSize);
  if (added_.count == 0) added_.first = blockPos;
  added_.last = blockPos;
  added_.count += 1;
  return true;
}

bool RecordBatch::finish() {
  const bool complete = !failed_ && writePiece();
  const bool takenIn = written_.count == 0 || takeIn();
  return complete && takenIn;
}

// Each piece has a scope of its own: that it is with the operating system must be known before it
// counts, and a piece that is refused must not make the taking in of those before it fail.
bool RecordBatch::writePiece() {
  if (pieceUsed_ == 0) return true;
  SavedPosition position(db_);
  const uint32_t length = pieceUsed_;
  pieceUsed_ = 0;
  const bool written =
      endsAt(db_, piecePos_) && writeBytes(db_, piece_.data(), length) && linkToWritten(piecePos_);
  const bool complete = position.restore(written);
  piecePos_ += length;
  if (complete) written_ = added_;
  failed_ = !complete;
  return complete;
}

// A block that no piece can hold. The piece before it has been written.
bool RecordBatch::writeAlone(const recordPart1& header, const unsigned char* payload,
                             uint32_t capacity) {
  SavedPosition position(db_);
  const int64_t blockPos = piecePos_;
  const uint32_t fill = capacity - header.dataLength;
  unsigned char image[record::kData];
  encodeRecordHead(header, image);
  const bool written = endsAt(db_, blockPos) && writeBytes(db_, image, record::kData) &&
                       writeBytes(db_, payload, header.dataLength) &&
                       (fill == 0 || internal_WriteEmptyDatas(db_, fill) == 1) &&
                       writeUint8(db_, kBlockEndMark) && linkToWritten(blockPos);
  const bool complete = position.restore(written);
  piecePos_ += int64_t{capacity} + kRecordBlockOverhead;
  failed_ = !complete;
  if (!complete) return false;
  added_.first = added_.count == 0 ? blockPos : added_.first;
  added_.last = blockPos;
  added_.count += 1;
  written_ = added_;
  return true;
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
  return last.nextRecordPos == 0 || writeLink(db_, written_.last, record::kNextRecordPos, 0);
}

bool RecordBatch::takeIn() {
  CallScope scope;
  if (failed_ && !endsSoundly()) return false;
  tablePart1 slot;
  if (myFileSeek(db_, table_.slotPos, kFromStart) != 0 ||
      !readUsedSlot(db_, table_.slotSize, &slot) || !hasSameChain(slot, table_.slot)) {
    return false;
  }
  if (slot.recordCount != 0) {
    if (!lastRecordIsOpen(db_, slot)) return false;
    if (!writeLink(db_, slot.lastRecordPos, record::kNextRecordPos, written_.first)) return false;
  }
  if (slot.firstRecordPos == 0) slot.firstRecordPos = written_.first;
  slot.lastWrittenRecordPos = written_.last;
  slot.lastRecordPos = written_.last;
  slot.recordCount += written_.count;
  slot.recordWriteCount += written_.count;
  if (!rewriteSlot(db_, table_.slotPos, slot) || !scope.end()) return false;
  table_.slot = slot;
  taken_ = written_.count;
  return true;
}

}  // namespace qvdbase
