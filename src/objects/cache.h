// The cache of a database, see qvdbase/qvdb/cache.hpp.
#pragma once

#include <cstddef>

#include "objects/open_database.h"

namespace qvdb::detail {

// Makes one holder more, and this the budget. Throws bad_argument unless the database is open
// exclusively, and opened_elsewhere.
void holdCache(const Operation& operation, size_t bytes);

// Gives a database that was opened again the cache that it has holders of.
void attachCache(const OpenDatabase& database);

}  // namespace qvdb::detail
