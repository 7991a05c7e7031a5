// The bytes of a file that are dead: those that belong neither to its directory nor to a record or
// the data of a table.
#pragma once

#include <cstdint>

#include "objects/open_database.h"

namespace qvdb::detail {

// Counts them, by a walk over the headers of all records. Within a look. Throws
// directory_damaged, chain_damaged, data_damaged, cannot_read.
uint64_t countDead(const Operation& operation);

}  // namespace qvdb::detail
