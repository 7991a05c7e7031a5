// The table slot's structure in memory, as bytes of a file: one of the packs moves slots so.
//
// The bytes are those of a host that stores numbers least significant byte first, whatever this
// host's own order, so that the pack's files are the same everywhere.
#pragma once

#include "format/layout.h"

namespace qvdbase::format {

void storeSlotStructure(const tablePart1& slot, unsigned char bytes[sizeof(tablePart1)]);
void loadSlotStructure(const unsigned char bytes[sizeof(tablePart1)], tablePart1* slot);

}  // namespace qvdbase::format
