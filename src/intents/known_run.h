// Planning again and again for a file that others commit to: intents that were read once are not
// read again.
#pragma once

#include <vector>

#include "format/intent.h"
#include "intents/recovery.h"
#include "intents/run.h"

namespace qvdbase::intents {

struct KnownRun {
  format::WordBytes word{};
  std::vector<RunIntent> intents;
};

// As plan(). `known` is what the last call for the same file has left there, or nothing.
RecoveryPlan planAgain(const Reader& file, KnownRun* known);

}  // namespace qvdbase::intents
