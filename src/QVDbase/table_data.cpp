// Table data: setting, sizing and reading it.
//
// Data that fits the present block is written over it, and the slot stays as it is. Larger data
// becomes a new block at the end of the file; the slot is rewritten last, so that readers get the
// old data until the new block is complete.
#include "QVDbase/table_data.h"

#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <cstring>

#include "QVDbase/position.h"
#include "QVDbase/tables.h"
#include "format/Aliment8.h"
#include "format/fields.h"
#include "format/fill.h"
#include "format/identifiers.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

bool writeTableDataBlock(int16_t db, const unsigned char* tableID, const unsigned char* data,
                         uint32_t size, uint32_t capacity) {
  if (!writeUint8(db, kTableDataMark) || !writeUint16(db, kTableDataHeaderSize) ||
      !writeBytes(db, tableID, kIdentifierSize) || !writeUint32(db, size) ||
      !writeUint32(db, capacity) || !writeBytes(db, data, size)) {
    return false;
  }
  if (capacity > size && internal_WriteEmptyDatas(db, capacity - size) != 1) return false;
  return writeUint8(db, kBlockEndMark);
}

// The file stands at the block's data. The rest of the room, the old end mark included, stays.
bool overwriteTableData(int16_t db, int64_t blockPos, const unsigned char* data, uint32_t size) {
  return writeBytes(db, data, size) && writeUint8(db, kBlockEndMark) &&
         myFileSeek(db, blockPos + tabledata::kDataLength, kFromStart) == 0 &&
         writeUint32(db, size);
}

// In a scope of its own: a write that is refused here must not fail those for a later slot.
bool setDataOfSlot(int16_t db, tablePart1* slot, int64_t slotPos, uint16_t slotSize,
                   const unsigned char* data, uint32_t size, uint32_t reserve) {
  CallScope scope;
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
    if (myFileSeek(db, nextSlotPos, kFromStart) != 0) return 0;
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
    TableDataHeader present;
    if (!readTableDataHeader(db, slot->firstDataPos, slot->tableID, &present)) return 0;
    if (present.dataCapacity >= size) {
      return overwriteTableData(db, slot->firstDataPos, data, size) ? 1 : 0;
    }
  }
  return internal_WriteOneTableLinkInEOF(db, tableID, slotPos, slotSize, data, size, reserve, slot);
}

int internal_WriteOneTableLinkInEOF(int16_t db, const unsigned char* tableID, int64_t slotPos,
                                    uint16_t slotSize, const unsigned char* data, uint32_t size,
                                    uint32_t reserve, tablePart1* slotOut) {
  if (myFileSeek(db, 0, kFromEnd) != 0) return 0;
  const int64_t blockPos = myGetFilePos(db);
  if (!writeTableDataBlock(db, tableID, data, size, std::max(size, reserve))) return 0;

  if (myFileSeek(db, slotPos, kFromStart) != 0) return 0;
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
  uint8_t mark = 0;
  uint16_t headerSize = 0;
  unsigned char owner[kIdentifierSize];
  if (myFileSeek(db, blockPos, kFromStart) != 0) return false;
  if (!readUint8(db, &mark) || mark != kTableDataMark) return false;
  if (!readUint16(db, &headerSize) || headerSize != kTableDataHeaderSize) return false;
  if (!readBytes(db, owner, sizeof owner)) return false;
  return std::memcmp(owner, tableID, sizeof owner) == 0;
}

bool readTableDataHeader(int16_t db, int64_t blockPos, const unsigned char* tableID,
                         TableDataHeader* header) {
  return seekTableData(db, blockPos, tableID) && readUint32(db, &header->dataLength) &&
         readUint32(db, &header->dataCapacity);
}

}  // namespace qvdbase::engine
