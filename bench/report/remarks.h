// Why a workload can be slower than the best peer: a line for the summary.
#pragma once

#include <string>

namespace bench {

// Empty for a workload of which nothing is known.
std::string whyBehind(const std::string& workload);

}  // namespace bench
