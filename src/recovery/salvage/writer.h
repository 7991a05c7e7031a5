// Writing the new file of a salvage.
#pragma once

#include <qvdbase/qvdb/salvage.hpp>

#include <map>
#include <optional>

#include "format/payload_checksum.h"
#include "products/target_file.h"
#include "recovery/salvage/plan.h"

namespace qvdbase::salvage {

// The size of the file that the plan makes.
int64_t plannedSize(const survey::Survey& survey, const Plan& plan);

// What the checksums say of the payloads that were written, by the numbers of their blocks; those
// that are not in it have none.
using PayloadStates = std::map<uint32_t, format::PayloadState>;

// Writes what the plan says, from front to back, into the file of `target`, which has been created,
// and counts it in the report. Returns the lowest position in a payload that could not be read, or
// -1. Throws qvdb::Error.
int64_t writeFile(const Job& job, const Plan& plan, products::TargetFile* target,
                  qvdb::SalvageReport* report, PayloadStates* states);

}  // namespace qvdbase::salvage
