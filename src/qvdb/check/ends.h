// The look at the ends of every chain that opening with `check` takes.
#pragma once

#include <filesystem>

namespace qvdb::detail {

// Throws directory_damaged and chain_damaged, as open_checked() describes them.
void checkEnds(const std::filesystem::path& path);

}  // namespace qvdb::detail
