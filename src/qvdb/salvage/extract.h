// Writing the payloads of a salvage into a folder, each to a file of its own.
#pragma once

#include <filesystem>

#include "qvdb/raw/byte_source.h"
#include "qvdb/salvage/plan.h"

namespace qvdbase::salvage {

// Writes the payload of every planned block and "manifest.jsonl", a line of JSON for each. Throws
// qvdb::Error.
void extractPayloads(const raw::ByteSource& source, const raw::Survey& survey, const Plan& plan,
                     const std::filesystem::path& folder);

}  // namespace qvdbase::salvage
