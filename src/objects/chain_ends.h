// The look at the ends of every chain that opening with `check` takes.
#pragma once

#include <qvdbase/qvdb/database.hpp>

namespace qvdb::detail {

// Throws directory_damaged and chain_damaged, as open_checked() describes them.
void checkEnds(const Database& database);

}  // namespace qvdb::detail
