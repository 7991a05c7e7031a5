// Transactions in a mend: what completing them does, and those that cannot be completed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "intents/recovery.h"
#include "recovery/survey/patched_source.h"

namespace qvdbase::mend {

// One sentence for each thing that recovery writes; none where the pending word is not set.
std::vector<std::string> completionOf(const intents::RecoveryPlan& plan);

// Takes the mark back that recovery has left in an intent which another program has contradicted.
survey::Patch unmarked(int64_t intent);

}  // namespace qvdbase::mend
