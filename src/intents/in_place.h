// Whether what transactions have changed in a table is in its place although another program has
// changed the table since: then nothing of them is lost, and there is nothing to report.
#pragma once

#include <cstddef>
#include <vector>

#include "intents/run.h"

namespace qvdbase::intents {

// Of the first `committed` intents of a run, and the table in a slot. The table is read whole.
bool isInPlace(const FileBytes& file, const std::vector<RunIntent>& run, size_t committed,
               int slot);

}  // namespace qvdbase::intents
