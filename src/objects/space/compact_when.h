// Compacting a database when it is opened or closed: see OpenOptions::compact_when.
#pragma once

#include "objects/open_database.h"

namespace qvdb::detail {

// Compacts the database where enough of its file is dead and nothing prevents it. `state` is its
// own.
void compactIfDue(Database& database, OpenDatabase& state);

}  // namespace qvdb::detail
