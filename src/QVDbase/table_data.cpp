// Table data: setting, sizing and reading it.
//
// Data that fits the present block is written over it, and the slot is not touched. Larger data
// becomes a new block at the end of the file. The slot is rewritten last, so that readers get the
// old data until the new block is complete.
#include "QVDbase/table_data.h"

#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cassert>

#include "QVDbase/position.h"
#include "QVDbase/tables.h"
#include "format/Aliment8.h"
#include "format/block_parts.h"
#include "format/identifiers.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

// The file is at the block's data. The rest of the capacity, the old end mark included, stays.
bool overwriteTableData(int16_t db, int64_t blockPos, const unsigned char* data, uint32_t size) {
  return writeBytes(db, data, size) && writeUint8(db, kBlockEndMark) &&
         // unreached: own position
         myFileSeek(db, blockPos + tabledata::kDataLength, kFromStart) == 0 &&
         writeUint32(db, size);
}

// In a scope of its own: a write that is refused here must not fail those for a later slot.
bool setDataOfSlot(int16_t db, tablePart1* slot, int64_t slotPos, uint16_t slotSize,
                   const unsigned char* data, uint32_t size, uint32_t reserve) {
  CallScope scope(db);
  return internal_SetOneTableData(db, slot, slot->tableID, slotPos, slotSize, data, size,
                                  reserve) == 1 &&
         scope.end();
}

// Walks the slots in use and sets the data of each that has the identifier until one succeeds.
int setTableData(int16_t db, uint64_t table, const unsigned char* data, uint32_t size,
                 uint32_t reserve) {
  DirectoryNumbers directory;
  if (!readDirectoryNumbers(db, &directory)) return 0;
  for (int i = 0; i < directory.tableCount; ++i) {
    const int64_t slotPos = myGetFilePos(db);
    tablePart1 slot;
    if (!readUsedSlot(db, directory.slotSize, &slot)) return 0;
    if (identifierNumber(slot.tableID) != table) continue;

    const int64_t nextSlotPos = myGetFilePos(db);
    if (setDataOfSlot(db, &slot, slotPos, directory.slotSize, data, size, reserve)) return 1;
    if (myFileSeek(db, nextSlotPos, kFromStart) != 0) return 0;  // unreached: own position
  }
  return 0;
}

// Finds the table's present block and leaves the file at its dataLength.
bool seekTableDataOf(int16_t db, uint64_t table) {
  FoundTable found;
  if (!findTable(db, table, &found) || found.slot.firstDataPos == 0) return false;
  unsigned char tableID[kIdentifierSize];
  internal_ConvertInt64_2UuID(table, tableID);
  return seekTableData(db, found.slot.firstDataPos, tableID);
}

int getTableDataSize(int16_t db, uint64_t table, uint32_t* size) {
  uint32_t dataLength = 0;
  if (!seekTableDataOf(db, table) || !readUint32(db, &dataLength)) return 0;
  *size = dataLength;
  return 1;
}

int getTableData(int16_t db, uint64_t table, void* buffer) {
  uint32_t dataLength = 0;
  uint32_t dataCapacity = 0;
  if (!seekTableDataOf(db, table) || !readUint32(db, &dataLength) ||
      !readUint32(db, &dataCapacity) || dataLength == 0) {
    return 0;
  }
  return readBytes(db, buffer, dataLength) ? 1 : 0;
}

}  // namespace

int SetTableData(int16_t db, uint64_t table, const unsigned char* data, uint32_t size,
                 uint32_t reserve) {
  if (data == nullptr && size > 0) return 0;
  SavedPosition position(db);
  return position.restore(setTableData(db, table, data, size, reserve));
}

int GetTableData(int16_t db, uint64_t table, void* buffer) {
  if (buffer == nullptr) return 0;
  SavedPosition position(db);
  return position.restore(getTableData(db, table, buffer));
}

int GetTableDataSize(int16_t db, uint64_t table, uint32_t* size) {
  if (size == nullptr) return 0;
  SavedPosition position(db);
  return position.restore(getTableDataSize(db, table, size));
}

int internal_SetOneTableData(int16_t db, tablePart1* slot, const unsigned char* tableID,
                             int64_t slotPos, uint16_t slotSize, const unsigned char* data,
                             uint32_t size, uint32_t reserve) {
  if (slot->firstDataPos != 0) {
    TableDataHead present;
    if (!readTableDataHead(db, slot->firstDataPos, slot->tableID, &present)) return 0;
    if (present.dataCapacity >= size) {
      return overwriteTableData(db, slot->firstDataPos, data, size) ? 1 : 0;
    }
  }
  return internal_WriteOneTableLinkInEOF(db, tableID, slotPos, slotSize, data, size, reserve, slot);
}

int internal_WriteOneTableLinkInEOF(int16_t db, const unsigned char* tableID, int64_t slotPos,
                                    uint16_t slotSize, const unsigned char* data, uint32_t size,
                                    uint32_t reserve, tablePart1* slotOut) {
  if (myFileSeek(db, 0, kFromEnd) != 0) return 0;  // unreached: own position
  const int64_t blockPos = myGetFilePos(db);
  const uint32_t capacity = std::max(size, reserve);
  if (!writeBlockStart(db, kTableDataBlock, tableID) ||
      !writeBlockContent(db, data, size, capacity)) {
    return 0;
  }
  assert(myGetFilePos(db) == blockPos + kTableDataBlockOverhead + capacity &&
         "a block out of place");
  if (myFileSeek(db, slotPos, kFromStart) != 0) return 0;  // unreached: own position
  tablePart1 slot;
  if (!readUsedSlot(db, slotSize, &slot)) return 0;
  slot.dataBlockCount = 1;
  slot.dataWriteCount += 1;
  slot.firstDataPos = blockPos;
  slot.lastWrittenDataPos = blockPos;
  slot.lastDataPos = blockPos;
  if (!rewriteSlot(db, slotPos, slot)) return 0;
  if (slotOut != nullptr) *slotOut = slot;
  return 1;
}

namespace qvdbase::engine {

bool seekTableData(int16_t db, int64_t blockPos, const unsigned char* tableID) {
  TableDataHead head;
  return myFileSeek(db, blockPos, kFromStart) == 0 &&
         readBlockStart(db, kTableDataBlock, tableID, &head);
}

bool readTableDataHead(int16_t db, int64_t blockPos, const unsigned char* tableID,
                       TableDataHead* head) {
  return myFileSeek(db, blockPos, kFromStart) == 0 &&
         readBlockStart(db, kTableDataBlock, tableID, head) && readUint32(db, &head->dataLength) &&
         readUint32(db, &head->dataCapacity);
}

bool measureTableDataBlock(int16_t db, int64_t blockPos, const unsigned char* tableID,
                           int64_t* length) {
  TableDataHead head;
  uint8_t endMark = 0;
  if (!readTableDataHead(db, blockPos, tableID, &head)) return false;
  if (myFileSeek(db, head.dataCapacity, kFromCurrent) != 0) return false;
  if (!readUint8(db, &endMark) || endMark != kBlockEndMark) return false;
  *length = myGetFilePos(db) - blockPos;
  return true;
}

}  // namespace qvdbase::engine
