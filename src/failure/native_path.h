// From a path of the system to the 16-bit path that the file layer takes.
#pragma once

#include <qvdbase/base.h>

#include <filesystem>
#include <vector>

namespace qvdbase::failure {

// Absolute, zero-terminated, single '/' between the components. Throws Error path_not_reachable,
// in the name of `operation`, when the file layer would not reach the file of that path or, worse,
// would reach another one.
std::vector<QVWCHAR> nativePath(const std::filesystem::path& path, const char* operation);

}  // namespace qvdbase::failure
