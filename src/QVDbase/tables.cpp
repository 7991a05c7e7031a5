// The table directory: adding, finding, counting and listing tables.
//
// Slots are filled in order and never freed, so the slot of the next table is always the one after
// the last in use. AddTable writes that slot first and the count after it: a table that is not
// counted yet is not there, and the next AddTable writes over it.
#include "QVDbase/tables.h"

#include <qvdbase/qvdbase.h>

#include <cstring>

#include "QVDbase/directory_cache.h"
#include "QVDbase/position.h"
#include "format/Aliment8.h"
#include "format/fields.h"
#include "format/identifiers.h"

using namespace qvdbase;
using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

tablePart1 newTableSlot(const char* name, const NewSlot& given) {
  tablePart1 slot;
  std::memset(&slot, 0, sizeof slot);
  slot.slotMark = kSlotMark;
  slot.infoSize = kInfoSize;
  if (given.tableID == nullptr) {
    GenerateUuID(slot.tableID);
  } else {
    std::memcpy(slot.tableID, given.tableID, sizeof slot.tableID);
  }
  std::memcpy(slot.tableName, name, storedNameLength(name));
  slot.tableVersion = given.tableVersion;
  slot.tableFlags1 = given.tableFlags1;
  slot.tableFlags2 = given.tableFlags2;
  slot.recordWriteCount = given.recordWriteCount;
  slot.dataWriteCount = given.dataWriteCount;
  slot.dataInfoSize = kNewTableDataInfoSize;
  slot.slotEndMark = kSlotEndMark;
  return slot;
}

// Reads past the slots in use, which must be sound and must not have the name, unless that is null.
// The file is then at the slot that comes next.
bool nameIsFree(int16_t db, const DirectoryNumbers& directory, const char* name) {
  for (int i = 0; i < directory.tableCount; ++i) {
    tablePart1 slot;
    if (!readUsedSlot(db, directory.slotSize, &slot)) return false;
    if (name != nullptr && tableNameEquals(slot, name)) return false;
  }
  return true;
}

bool storeTableCount(int16_t db, int64_t directoryPos, int16_t tableCount) {
  const int64_t countPos = directoryPos - kTableCountBeforeDirectory;
  if (myFileSeek(db, countPos, kFromStart) != 0) return false;  // unreached: own position
  if (!writeUint16(db, static_cast<uint16_t>(tableCount))) return false;
  // The cache must not count a table that the file does not: a later AddTable would write after it.
  if (!CallScope::completeWrites()) return false;
  updateTableCount(db, tableCount);
  return true;
}

uint64_t addSlot(int16_t db, const char* name, const NewSlot& given) {
  DirectoryNumbers directory;
  if (!readDirectoryNumbers(db, &directory)) return 0;
  const int64_t directoryPos = myGetFilePos(db);
  // The last slot stays free on purpose: a directory of 32 slots holds 31 tables.
  if (directory.tableCount >= directory.slotCount - 1) return 0;
  if (!nameIsFree(db, directory, given.mayRepeatName ? nullptr : name)) return 0;

  const tablePart1 slot = newTableSlot(name, given);
  if (WriteOne_TablePartOne(db, &slot) != 1) return 0;
  const auto tableCount = static_cast<int16_t>(directory.tableCount + 1);
  if (!storeTableCount(db, directoryPos, tableCount)) return 0;
  return identifierNumber(slot.tableID);
}

// The slots in use, in order, up to the first for which wanted(slot, index) holds. Returns false
// when there is none and when a slot before it is damaged.
template <typename Wanted>
bool findSlot(int16_t db, tablePart1* slot, Wanted wanted) {
  DirectoryNumbers directory;
  if (!readDirectoryNumbers(db, &directory)) return false;
  for (int i = 0; i < directory.tableCount; ++i) {
    if (!readUsedSlot(db, directory.slotSize, slot)) return false;
    if (wanted(*slot, i)) return true;
  }
  return false;
}

}  // namespace

uint64_t AddTable(int16_t db, const char* name) {
  return engine::addTable(db, name, {});
}

uint64_t FindTableByName(int16_t db, const char* name) {
  if (name == nullptr || *name == '\0') return 0;
  SavedPosition position(db);
  tablePart1 slot;
  const bool found = findSlot(db, &slot, [name](const tablePart1& candidate, int) {
    return tableNameEquals(candidate, name);
  });
  return position.restore(found ? identifierNumber(slot.tableID) : uint64_t{0});
}

int GetNumberOfTable(int16_t db, int32_t* count) {
  if (count == nullptr) return 0;
  SavedPosition position(db);
  DirectoryNumbers directory;
  if (!readDirectoryNumbers(db, &directory)) return position.restore(0);
  *count = directory.tableCount;
  return position.restore(1);
}

uint64_t GetTableNameAndIDByIndex(int16_t db, int index, char* name) {
  if (name == nullptr) return 0;
  SavedPosition position(db);
  tablePart1 slot;
  const bool found = findSlot(db, &slot, [index](const tablePart1&, int i) { return i == index; });
  if (!found) return position.restore(uint64_t{0});
  const size_t length = storedNameLength(slot.tableName);
  std::memcpy(name, slot.tableName, length);
  name[length] = '\0';
  return position.restore(identifierNumber(slot.tableID));
}

int internal_GetOneTableInfo(int16_t db, uint64_t table, int16_t tableCount, uint16_t slotSize,
                             tablePart1* slot, int64_t* slotPos) {
  if (slot == nullptr || slotPos == nullptr) return 0;
  for (int i = 0; i < tableCount; ++i) {
    *slotPos = myGetFilePos(db);
    if (!readUsedSlot(db, slotSize, slot)) return 0;
    if (identifierNumber(slot->tableID) == table) return 1;
  }
  return 0;
}

namespace qvdbase::engine {

uint64_t addTable(int16_t db, const char* name, const NewSlot& given) {
  if (name == nullptr || *name == '\0') return 0;
  SavedPosition position(db);
  return position.restore(addSlot(db, name, given));
}

bool findTable(int16_t db, uint64_t table, FoundTable* found) {
  DirectoryNumbers directory;
  if (!readDirectoryNumbers(db, &directory)) return false;
  found->slotSize = directory.slotSize;
  return internal_GetOneTableInfo(db, table, directory.tableCount, directory.slotSize, &found->slot,
                                  &found->slotPos) == 1;
}

bool readUsedSlot(int16_t db, uint16_t slotSize, tablePart1* slot) {
  return ReadOne_TablePartOne(db, slot, slotSize) == 1 && slotHoldsTable(*slot);
}

bool rewriteSlot(int16_t db, int64_t slotPos, const tablePart1& slot) {
  // unreached: own position
  return myFileSeek(db, slotPos, kFromStart) == 0 && WriteOne_TablePartOne(db, &slot) == 1;
}

bool slotIsStillUsed(int16_t db, int64_t slotPos, uint16_t slotSize) {
  tablePart1 present;
  // unreached: own position
  return myFileSeek(db, slotPos, kFromStart) == 0 && readUsedSlot(db, slotSize, &present);
}

void zeroRecordFields(tablePart1* slot) {
  slot->recordCount = slot->recordWriteCount = 0;
  slot->firstRecordPos = slot->lastWrittenRecordPos = slot->lastRecordPos = 0;
}

bool tableNameEquals(const tablePart1& slot, const char* name) {
  const size_t stored = storedNameLength(slot.tableName);
  // `name` is read only as far as it equals the stored one.
  return std::strncmp(slot.tableName, name, stored) == 0 && name[stored] == '\0';
}

}  // namespace qvdbase::engine
