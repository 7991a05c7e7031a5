// Record modification: in place while the payload fits the record's capacity, else by relocation.
//
// A relocation appends the new block first, then links predecessor and successor to it. The old
// block is never written to: until the links are changed it is the record, and then it is dead
// space.
#include "QVDbase/record_modify.h"

#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cassert>

#include "QVDbase/position.h"
#include "format/block_parts.h"
#include "format/payload_checksum.h"
#include "platform/host/clock.h"
#include "platform/host/memory.h"

using namespace qvdbase;
using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

bool writeBlock(int16_t db, const unsigned char* tableID, const recordPart1& header,
                const unsigned char* payload, const unsigned char* sum) {
  return writeBlockStart(db, kRecordBlock, tableID) &&
         writeBytes(db, header.recordID, sizeof header.recordID) &&
         writeUint32(db, header.createTime) && writeUint32(db, header.modifyTime) &&
         writeInt64(db, header.prevRecordPos) && writeInt64(db, header.nextRecordPos) &&
         writeBlockContent(db, payload, header.dataLength, header.dataCapacity, sum);
}

// The header has the lengths.
bool appendMoved(int16_t db, const tablePart1& slot, recordPart1* header,
                 const unsigned char* payload, const unsigned char* sum, int64_t* newRecordPos) {
  header->blockMark = kRecordMark;
  header->headerSize = kRecordHeaderSize;
  header->endMarkValue = kHeaderInMemoryEndMark;
  if (myFileSeek(db, 0, kFromEnd) != 0) return false;
  const int64_t blockPos = myGetFilePos(db);
  if (newRecordPos != nullptr) *newRecordPos = blockPos;
  if (!writeBlock(db, slot.tableID, *header, payload, sum)) return false;
  assert(myGetFilePos(db) == blockPos + kRecordBlockOverhead + header->dataCapacity &&
         "a block out of place");
  return true;
}

bool appendMovedProtected(int16_t db, const tablePart1& slot, recordPart1* header,
                          const unsigned char* payload, uint32_t size, int64_t* newRecordPos) {
  header->dataLength = size;
  header->dataCapacity = capacityWithChecksum(size, 0);
  PayloadHash hash;
  hash.add(payload, size);
  const PayloadIdentity identity = payloadIdentity(*header);
  unsigned char sum[checksum::kSize];
  encodeChecksum(identity, hash.of(identity), sum);
  return appendMoved(db, slot, header, payload, sum, newRecordPos);
}

bool copyBytes(int16_t db, int64_t from, int64_t to, int64_t count) {
  constexpr int64_t kPiece = int64_t{256} << 10;
  platform::Buffer piece(static_cast<size_t>(std::min(count, kPiece)));
  if (!piece) return false;
  for (int64_t done = 0; done < count;) {
    const auto part = static_cast<uint32_t>(std::min(count - done, kPiece));
    if (myFileSeek(db, from + done, kFromStart) != 0 || !readBytes(db, piece.data(), part) ||
        myFileSeek(db, to + done, kFromStart) != 0 || !writeBytes(db, piece.data(), part)) {
      return false;
    }
    done += part;
  }
  return true;
}

bool relinkPredecessor(int16_t db, FoundRecord* found, int64_t newRecordPos) {
  FoundTable& table = found->table;
  const int64_t prevRecordPos = found->header.prevRecordPos;
  if (prevRecordPos == 0) {
    table.slot.firstRecordPos = newRecordPos;
    return rewriteSlot(db, table.slotPos, table.slot);
  }
  recordPart1 previous;
  return readRecordHeaderAt(db, prevRecordPos, table.slot.tableID, &previous) &&
         previous.nextRecordPos == found->recordPos &&
         writeLink(db, prevRecordPos, record::kNextRecordPos, newRecordPos);
}

bool relinkSuccessor(int16_t db, FoundRecord* found, int64_t newRecordPos) {
  FoundTable& table = found->table;
  const int64_t nextRecordPos = found->header.nextRecordPos;
  if (nextRecordPos == 0) {
    table.slot.lastRecordPos = newRecordPos;
    return rewriteSlot(db, table.slotPos, table.slot);
  }
  recordPart1 next;
  return readRecordHeaderAt(db, nextRecordPos, table.slot.tableID, &next) &&
         next.prevRecordPos == found->recordPos &&
         writeLink(db, nextRecordPos, record::kPrevRecordPos, newRecordPos);
}

}  // namespace

int ModifyRecordData(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                     uint64_t record, int*) {
  if (size == 0 || payload == nullptr) return 0;
  SavedPosition position(db);
  FoundRecord found;
  if (!findRecord(db, table, record, &found)) return position.restore(0);
  if (size <= found.header.dataCapacity) {
    // The one success that leaves the position where the write ended, right after the payload.
    if (overwriteRecord(db, found.recordPos, payload, size)) return position.leave(1);
    return position.restore(0);
  }
  int64_t newRecordPos = 0;
  return position.restore(relocateRecord(db, &found, payload, size, &newRecordPos) ? 1 : 0);
}

int internal_WriteOneRecordDataInEOF_Modify(int16_t db, const tablePart1* slot, recordPart1* header,
                                            const unsigned char* payload, uint32_t size,
                                            int64_t* newRecordPos) {
  header->dataLength = size;
  header->dataCapacity = size;  // a relocated record keeps no spare capacity
  return appendMoved(db, *slot, header, payload, nullptr, newRecordPos) ? 1 : 0;
}

namespace qvdbase::engine {

bool overwriteRecord(int16_t db, int64_t recordPos, const unsigned char* payload, uint32_t size) {
  return overwriteRecordAt(db, recordPos, payload, size, platform::secondsSinceEpoch());
}

bool overwriteRecordAt(int16_t db, int64_t recordPos, const unsigned char* payload, uint32_t size,
                       uint32_t now) {
  constexpr uint32_t kOverLinks = record::kDataLength - record::kPrevRecordPos;
  constexpr uint32_t kOverCapacity = record::kData - record::kDataCapacity;
  return myFileSeek(db, recordPos + record::kModifyTime, kFromStart) == 0 && writeUint32(db, now) &&
         writeUint32After(db, kOverLinks, size) &&
         writeBytesAfter(db, kOverCapacity, payload, size);
}

bool overwritePart(int16_t db, int64_t recordPos, uint32_t offset, const unsigned char* bytes,
                   uint32_t count) {
  return overwritePartAt(db, recordPos, offset, bytes, count, platform::secondsSinceEpoch());
}

bool overwritePartAt(int16_t db, int64_t recordPos, uint32_t offset, const unsigned char* bytes,
                     uint32_t count, uint32_t now) {
  return myFileSeek(db, recordPos + record::kModifyTime, kFromStart) == 0 && writeUint32(db, now) &&
         // unreached: own position
         myFileSeek(db, recordPos + record::kData + offset, kFromStart) == 0 &&
         writeBytes(db, bytes, count);
}

bool moveRecord(int16_t db, FoundRecord* found, int64_t* newRecordPos) {
  if (myFileSeek(db, 0, kFromEnd) != 0) return false;
  *newRecordPos = myGetFilePos(db);
  const int64_t size = int64_t{found->header.dataCapacity} + kRecordBlockOverhead;
  // A capacity that reaches beyond the file is no reason to make the file as long as that.
  if (size > *newRecordPos - found->recordPos) return false;
  if (!copyBytes(db, found->recordPos, *newRecordPos, size) ||
      !relinkPredecessor(db, found, *newRecordPos) || !relinkSuccessor(db, found, *newRecordPos)) {
    return false;
  }
  found->recordPos = *newRecordPos;
  return true;
}

bool relocateRecord(int16_t db, FoundRecord* found, const unsigned char* payload, uint32_t size,
                    int64_t* newRecordPos, bool isProtected) {
  found->header.modifyTime = platform::secondsSinceEpoch();
  const tablePart1& slot = found->table.slot;
  const bool isAppended =
      isProtected ? appendMovedProtected(db, slot, &found->header, payload, size, newRecordPos)
                  : internal_WriteOneRecordDataInEOF_Modify(db, &slot, &found->header, payload,
                                                            size, newRecordPos) == 1;
  if (!isAppended) return false;
  return relinkPredecessor(db, found, *newRecordPos) && relinkSuccessor(db, found, *newRecordPos);
}

}  // namespace qvdbase::engine
