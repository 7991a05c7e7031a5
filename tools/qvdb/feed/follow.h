// qvdb records --follow: lists what is added to a table while it runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "feed/newest_records.h"

namespace qvdb::tool {

struct FollowOptions {
  std::string file;
  std::string table;
  Newest newest;                  // what is listed first
  std::optional<uint64_t> limit;  // records
  bool json = false;              // one object a line
};

// Returns the exit status when the limit is reached or a signal asks the process to end. Throws as
// commands do.
int followRecords(const FollowOptions& options);

}  // namespace qvdb::tool
