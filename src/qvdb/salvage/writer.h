// Writing the new file of a salvage.
#pragma once

#include <filesystem>

#include "qvdb/raw/byte_source.h"
#include "qvdb/salvage/plan.h"

namespace qvdbase::salvage {

struct Written {
  uint64_t records = 0;
  uint64_t data = 0;
  uint64_t payloadBytes = 0;
  uint64_t recordsCut = 0;
};

// Writes what the plan says, from front to back, in a new file at `target`, and removes it again
// when that fails. Throws qvdb::Error.
Written writeFile(const raw::ByteSource& source, const raw::Survey& survey, const Plan& plan,
                  const std::filesystem::path& target);

}  // namespace qvdbase::salvage
