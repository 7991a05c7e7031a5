// Plain files: those of which one pass in the order of the file shows that a copy of what is live
// has all that there is to have.
//
// A plain file has a directory without an error, and nothing but whole blocks of its tables after
// it, one right after the other. Every chain is whole in both directions, and what no chain leads
// to is what operations leave. Most files are plain, and reading them so takes a fraction of
// the time of a survey and a verdict, which come to the same: no error, nothing that a salvage
// would bring back, and no block that is not whole. Of other files nothing is said here.
#pragma once

#include <optional>

#include "recovery/survey/byte_source.h"
#include "upkeep/live_database.h"

namespace qvdbase::upkeep {

// What is live in a plain file; nothing of another one.
std::optional<LiveDatabase> takePlain(const survey::ByteSource& source);

}  // namespace qvdbase::upkeep
