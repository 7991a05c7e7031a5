// What a list of imported files says of an earlier time.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "archive/imported_files.h"

namespace qvdb::tool {

// Whether the list is complete for that time. A list of version 1 is for none.
bool isCompleteAt(const ImportedFiles& files, int64_t time);

// What was in the list at `time`, in seconds since 1970, in its order: each name once, with the
// kind that it had. What has no times counts as always there, unless it was removed.
std::vector<ImportedFile> entriesAt(const ImportedFiles& files, int64_t time);

// When that name was removed last until `time`; nothing where it was there, or that is not known.
std::optional<int64_t> removalBefore(const ImportedFiles& files, std::string_view name,
                                     int64_t time);

}  // namespace qvdb::tool
