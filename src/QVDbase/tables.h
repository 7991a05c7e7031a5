// The table directory: finding the slot of a table.
#pragma once

#include <cstdint>

#include "QVDbase/header.h"
#include "format/layout.h"

// Finds a table by its identifier among the first `tableCount` slots. The file must be at the first
// slot. Returns 1 with the slot and its position stored, the file right after the slot; returns 0
// when an output is null, when a slot before the wanted one cannot be read or is damaged,
// and when there is no such table. The position is not restored.
int internal_GetOneTableInfo(int16_t db, uint64_t table, int16_t tableCount, uint16_t slotSize,
                             tablePart1* slot, int64_t* slotPos);

namespace qvdbase::engine {

// A table that was found: its slot as read, and what is needed to rewrite it in place.
struct FoundTable {
  tablePart1 slot;
  int64_t slotPos;
  uint16_t slotSize;
};

// What is given of a table that is added, beside its name.
struct NewSlot {
  const unsigned char* tableID = nullptr;  // null: a new one
  uint16_t tableVersion = format::kNewTableVersion;
  uint16_t tableFlags1 = 0;
  uint16_t tableFlags2 = 0;
  uint32_t recordWriteCount = 0;
  uint32_t dataWriteCount = 0;
  bool mayRepeatName = false;
};

// What AddTable does, with a slot that holds what is given.
uint64_t addTable(int16_t db, const char* name, const NewSlot& given);

// Reads the directory and finds a table: how every operation on one table begins. The position is
// not restored.
[[nodiscard]] bool findTable(int16_t db, uint64_t table, FoundTable* found);

// Reads the slot at the file's position; it must hold a table.
[[nodiscard]] bool readUsedSlot(int16_t db, uint16_t slotSize, tablePart1* slot);

// Seeks to slotPos and writes the slot there.
[[nodiscard]] bool rewriteSlot(int16_t db, int64_t slotPos, const tablePart1& slot);

// Whether the slot at slotPos can be read and holds a table. Its other fields do not matter
// to the writers, which continue with the slot they have.
[[nodiscard]] bool slotIsStillUsed(int16_t db, int64_t slotPos, uint16_t slotSize);

// Makes it the slot of a table that has no records and never had any.
void zeroRecordFields(tablePart1* slot);

// The stored name, which ends after 32 bytes at the latest, against a terminated one.
bool tableNameEquals(const tablePart1& slot, const char* name);

}  // namespace qvdbase::engine
