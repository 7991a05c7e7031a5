// Appending a copied record, as the packs do.
#pragma once

#include <cstdint>

#include "format/layout.h"

// Appends a record to the table whose slot is at slotPos, with the identifier, the times, the
// length and the capacity of the source record. On success *slot is the slot as now in the file.
// Returns 1; 0 when the slot's first position and count disagree and when the file cannot be read
// or written.
int internal_AddOneRecordData_ForPack(int16_t db, tablePart1* slot, const unsigned char* tableID,
                                      int64_t slotPos, uint16_t slotSize,
                                      const unsigned char* payload, const recordPart1* source);
