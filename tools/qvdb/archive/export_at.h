// Writes a folder that was imported as it was at an earlier time.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "archive/folder_writer.h"

namespace qvdb::tool {

struct ExportAt {
  std::string table;               // name or identifier
  std::string folder;              // where to
  std::vector<std::string> names;  // only these; empty for all
  int64_t time = 0;                // seconds since 1970
};

// Returns the exit status. Throws Failure; Error; Interrupted.
int exportAt(const ExportAt& what, const FolderOptions& options);

}  // namespace qvdb::tool
