// Checking the ends of chains: of every one, for opening with `check`, and of one that a batch is
// going to be linked to.
#pragma once

#include <cstdint>

#include "format/layout.h"
#include "objects/open_database.h"

namespace qvdb::detail {

// Throws directory_damaged, chain_damaged and cannot_read, as open_checked() describes them.
void checkEnds(const Operation& operation);

// What is wrong with the links at the end of a table's chain, or null: most of all, that the
// deletion of its last record was cut off. Moves the file's position.
const char* problemAtEnd(int16_t db, const tablePart1& slot);

}  // namespace qvdb::detail
