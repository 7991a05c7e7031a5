// Results as tables in Markdown.
#pragma once

#include <string>

#include "figures/figure.h"

namespace bench {

// One table for each size: every workload and store, with spreads and ratios.
std::string tablesOf(const Results& results);

// One table of one size: each workload that ours run, with the best of ours, the best peer and the
// limit; and where that peer is ahead, why.
std::string summaryOf(const Results& results, Size size);

// One table of ours: how the cost of an operation depends on the number of records.
std::string growthOf(const Results& results);

}  // namespace bench
