// Checking the ends of every chain, for opening with `check`.
#pragma once

#include <qvdbase/qvdb/database.hpp>

namespace qvdb::detail {

// Throws directory_damaged, chain_damaged and cannot_read, as open_checked() describes them.
void checkEnds(const Database& database);

}  // namespace qvdb::detail
