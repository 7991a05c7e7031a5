// Taking a record out of its table.
#pragma once

#include "QVDbase/record_find.h"

namespace qvdbase::engine {

// Unlinks a record that was found and rewrites the slot. Returns false when the record's links
// contradict the slot, when a neighbour cannot be read, and when a write fails.
[[nodiscard]] bool unlinkRecord(int16_t db, FoundRecord* found);

}  // namespace qvdbase::engine
