// Record append: writes a new record block at the end of the file and links it after the table's
// last record.
//
// Order of writes: the block, the link in the old last record, the slot. The block is complete
// before anything points to it, and the slot comes last, so that it never counts a block that the
// chain does not reach.
#include "QVDbase/record_append.h"

#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cassert>
#include <cstring>

#include "QVDbase/position.h"
#include "QVDbase/record_find.h"
#include "QVDbase/tables.h"
#include "format/block_parts.h"
#include "format/identifiers.h"
#include "format/payload_checksum.h"
#include "platform/host/clock.h"

using namespace qvdbase;
using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

bool writeNewRecordID(int16_t db, unsigned char* recordID, bool useGivenID) {
  if (useGivenID) return writeBytes(db, recordID, kIdentifierSize);
  unsigned char generated[kIdentifierSize];
  GenerateUuID(generated);
  if (recordID != nullptr) std::memcpy(recordID, generated, sizeof generated);
  return writeBytes(db, generated, sizeof generated);
}

// The block's fields from the mark to the two times, which are `now` then.
bool writeIdentity(int16_t db, const unsigned char* tableID, unsigned char* recordID,
                   bool useGivenID, uint32_t* now) {
  if (!writeBlockStart(db, kRecordBlock, tableID) || !writeNewRecordID(db, recordID, useGivenID)) {
    return false;
  }
  *now = platform::secondsSinceEpoch();
  return writeUint32(db, *now) && writeUint32(db, *now);
}

// Both lengths, the payload, and the rest of the block.
bool writeProtected(int16_t db, const PayloadIdentity& identity, const unsigned char* payload,
                    uint32_t capacity) {
  PayloadHash hash;
  hash.add(payload, identity.dataLength);
  unsigned char sum[checksum::kSize];
  encodeChecksum(identity, hash.of(identity), sum);
  return writeBlockContent(db, payload, identity.dataLength, capacity, sum);
}

// The record that the new one follows: 0 when the table has none. Returns false when the slot
// contradicts itself.
bool previousRecord(const tablePart1& slot, int64_t* prevRecordPos) {
  *prevRecordPos = slot.recordCount == 0 ? 0 : slot.lastRecordPos;
  if (slot.recordCount == 0) return slot.lastRecordPos == 0 && slot.firstRecordPos == 0;
  return slot.lastRecordPos != 0;
}

bool linkAfter(int16_t db, int64_t prevRecordPos, const unsigned char* tableID,
               int64_t newRecordPos) {
  recordPart1 previous;
  if (!readRecordHeaderAt(db, prevRecordPos, tableID, &previous)) return false;
  if (previous.nextRecordPos != 0) return false;  // not the end of the chain: do not cut it
  return writeLink(db, prevRecordPos, record::kNextRecordPos, newRecordPos);
}

tablePart1 withRecord(tablePart1 slot, int64_t newRecordPos) {
  if (slot.firstRecordPos == 0) slot.firstRecordPos = newRecordPos;
  slot.lastWrittenRecordPos = newRecordPos;
  slot.lastRecordPos = newRecordPos;
  slot.recordCount += 1;
  slot.recordWriteCount += 1;
  return slot;
}

int addRecord(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
              uint32_t reserve, unsigned char* recordID, uint16_t useGivenID) {
  FoundTable found;
  if (!findTable(db, table, &found)) return 0;
  return internal_AddOneRecordData(db, &found.slot, found.slot.tableID, found.slotPos,
                                   found.slotSize, payload, size, reserve, recordID, useGivenID);
}

}  // namespace

int AddRecordData(int16_t db, uint64_t table, const unsigned char* payload, uint32_t size,
                  uint32_t reserve, uint64_t* record) {
  if (record == nullptr) return 0;
  if (payload == nullptr && size > 0) return 0;
  SavedPosition position(db);
  unsigned char recordID[kIdentifierSize];
  const int result = position.restore(addRecord(db, table, payload, size, reserve, recordID, 0));
  if (result == 1) *record = identifierNumber(recordID);
  return result;
}

int AddRecordData_AssignRecordID(int16_t db, uint64_t table, const unsigned char* payload,
                                 uint32_t size, uint32_t reserve, const uint64_t* record) {
  if (record == nullptr) return 0;
  if (payload == nullptr && size > 0) return 0;
  SavedPosition position(db);
  unsigned char recordID[kIdentifierSize];
  internal_ConvertInt64_2UuID(*record, recordID);
  return position.restore(addRecord(db, table, payload, size, reserve, recordID, 1));
}

int internal_AddOneRecordData(int16_t db, tablePart1* slot, const unsigned char* tableID,
                              int64_t slotPos, uint16_t slotSize, const unsigned char* payload,
                              uint32_t size, uint32_t reserve, unsigned char* recordID,
                              uint16_t useGivenID) {
  if (recordID == nullptr) return 0;
  if (!chainHeadMatchesCount(*slot)) return 0;
  int64_t newRecordPos = 0;
  return internal_WriteOneRecordDataInEOF(db, slot, tableID, recordID, slotPos, slotSize, payload,
                                          size, reserve, &newRecordPos, useGivenID);
}

int internal_WriteOneRecordDataInEOF(int16_t db, tablePart1* slot, const unsigned char* tableID,
                                     unsigned char* recordID, int64_t slotPos, uint16_t slotSize,
                                     const unsigned char* payload, uint32_t size, uint32_t reserve,
                                     int64_t* newRecordPos, uint16_t useGivenID) {
  int64_t blockPos = 0;
  if (!appendRecord(db, slot, tableID, recordID, slotPos, slotSize, payload, size, reserve,
                    useGivenID != 0, &blockPos)) {
    return 0;
  }
  *newRecordPos = blockPos;
  return 1;
}

namespace qvdbase::engine {

bool appendRecord(int16_t db, tablePart1* slot, const unsigned char* tableID,
                  unsigned char* recordID, int64_t slotPos, uint16_t slotSize,
                  const unsigned char* payload, uint32_t size, uint32_t reserve, bool useGivenID,
                  int64_t* blockPos, bool isProtected) {
  if (myFileSeek(db, 0, kFromEnd) != 0) return false;
  *blockPos = myGetFilePos(db);
  uint32_t now = 0;
  if (!writeIdentity(db, tableID, recordID, useGivenID, &now)) return false;
  int64_t prevRecordPos = 0;
  if (!previousRecord(*slot, &prevRecordPos)) return false;
  const uint32_t capacity =
      isProtected ? capacityWithChecksum(size, reserve) : std::max(size, reserve);
  if (!writeInt64(db, prevRecordPos) || !writeInt64(db, 0)) return false;
  const bool isWritten =
      isProtected
          ? writeProtected(db, {identifierNumber(tableID), identifierNumber(recordID), now, size},
                           payload, capacity)
          : writeBlockContent(db, payload, size, capacity);
  if (!isWritten) return false;
  assert(myGetFilePos(db) == *blockPos + kRecordBlockOverhead + capacity && "a block out of place");
  if (prevRecordPos != 0 && !linkAfter(db, prevRecordPos, tableID, *blockPos)) return false;

  // The slot is read afresh only to see that it is still one; what is written is the caller's. A
  // packed table keeps its source's table-data positions that way.
  if (!slotIsStillUsed(db, slotPos, slotSize)) return false;
  const tablePart1 updated = withRecord(*slot, *blockPos);
  assert(updated.lastRecordPos == *blockPos && "the chain does not end at the append");
  if (!rewriteSlot(db, slotPos, updated)) return false;
  *slot = updated;
  return true;
}

bool chainHeadMatchesCount(const tablePart1& slot) {
  return (slot.firstRecordPos == 0) == (slot.recordCount == 0);
}

bool hasSameChain(const tablePart1& now, const tablePart1& then) {
  return now.recordCount == then.recordCount && now.recordWriteCount == then.recordWriteCount &&
         now.firstRecordPos == then.firstRecordPos && now.lastRecordPos == then.lastRecordPos;
}

}  // namespace qvdbase::engine
