// The table slot on disk: 144 bytes, least significant byte first, through the buffer codec.
#pragma once

#include <qvdbase/Aliment8.h>

#include <cstddef>
#include <string>

#include "format/layout.h"

// Reads `length` bytes (the header's slot size) at the file's position and decodes the first 144 of
// them; with a length below 144 the missing bytes are zeros. Returns 1; 0 when the read fails, with
// *slot untouched. The position is then after the bytes read.
int ReadOne_TablePartOne(int16_t file, tablePart1* slot, int length);

// Encodes the slot and writes its 144 bytes at the file's position. Returns the result of the
// write: 1, or 0.
int WriteOne_TablePartOne(int16_t file, const tablePart1* slot);

namespace qvdbase::format {

// The codec itself, on whole images.
void decodeSlot(const unsigned char image[kSlotImageSize], tablePart1* slot);
void encodeSlot(const tablePart1& slot, unsigned char image[kSlotImageSize]);

// Whether the slot holds a table: both of its marks are there.
bool slotHoldsTable(const tablePart1& slot);

// Of a table's name, in a slot or a caller's, the bytes before its zero, 32 at most. Nothing after
// the zero is touched, not even by a pointer.
size_t storedNameLength(const char* name);

// The slot's name, which ends after 32 bytes at the latest.
std::string storedName(const tablePart1& slot);

}  // namespace qvdbase::format
