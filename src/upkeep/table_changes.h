// Changes to whole tables that a compaction makes meanwhile: the format has no operation for them.
#pragma once

#include <qvdbase/qvdb/maintenance.hpp>

#include <filesystem>

#include "upkeep/live_database.h"

namespace qvdbase::upkeep {

// Changes what was read, so that the new file is written without what goes. Names mean the tables
// as they are in the source. Throws Error of `operation`: table_missing; bad_name, name_too_long
// and table_exists for a new name; bad_argument for a table that is named twice.
void changeTables(const qvdb::CompactOptions& options, const std::filesystem::path& path,
                  const char* operation, LiveDatabase* database);

}  // namespace qvdbase::upkeep
