// The raw limits: what the same bytes cost without a store.
#pragma once

#include <cstddef>
#include <filesystem>
#include <vector>

namespace bench {

void registerRaw(std::size_t valueSize, std::size_t records, const std::filesystem::path& scratch);

void registerWorkloads(const std::vector<std::size_t>& valueSizes,
                       const std::vector<std::size_t>& recordCounts);
void removeScratch();

}  // namespace bench
