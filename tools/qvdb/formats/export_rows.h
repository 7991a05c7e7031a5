// Records written into files of other programs, for 'qvdb export' and 'qvdb dump --copy'.
#pragma once

#include <optional>
#include <string>

#include "formats/rows.h"

namespace qvdb::tool {

// Of these one is given; '-' is standard output for `copy`.
struct RowTargets {
  std::optional<std::string> sqlite = {};
  std::optional<std::string> parquet = {};
  std::optional<std::string> copy = {};  // for PostgreSQL's COPY

  int count() const { return (sqlite ? 1 : 0) + (parquet ? 1 : 0) + (copy ? 1 : 0); }
};

// Writes the rows and returns their number. A file that cannot be completed is not left.
uint64_t exportRows(const FlatSource& source, const RowTargets& targets,
                    const OutputOptions& options);

}  // namespace qvdb::tool
