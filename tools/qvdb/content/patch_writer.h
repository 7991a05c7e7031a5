// What makes one database of another, as lines that 'qvdb patch' takes. docs/text.md describes
// them.
#pragma once

#include <qvdbase/qvdb.hpp>

#include "content/json_lines.h"

namespace qvdb::tool {

inline constexpr uint64_t kPatchFormat = 1;

// Returns whether the databases differ; the patch is written in any case. Throws as
// compareDatabases().
bool writePatch(const Database& a, const Database& b, JsonLines& lines);

}  // namespace qvdb::tool
