// Writing the new file of a salvage.
#pragma once

#include "products/target_file.h"
#include "recovery/salvage/plan.h"
#include "recovery/survey/byte_source.h"

namespace qvdbase::salvage {

struct Written {
  uint64_t records = 0;
  uint64_t data = 0;
  uint64_t payloadBytes = 0;
  uint64_t recordsCut = 0;
  uint64_t bytesUnreadable = 0;  // of the payloads: zeros replace them
  int64_t unreadableAt = -1;     // the lowest position of these in the source
};

// The size of the file that the plan makes.
int64_t plannedSize(const survey::Survey& survey, const Plan& plan);

// Writes what the plan says, from front to back, into the file of `target`, which has been created.
// Throws qvdb::Error.
Written writeFile(const survey::ByteSource& source, const survey::Survey& survey, const Plan& plan,
                  products::TargetFile* target);

}  // namespace qvdbase::salvage
