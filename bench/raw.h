// What main.cpp runs: the workloads on every store, and the raw limits, which are what the same
// bytes cost without a store.
#pragma once

#include <cstddef>
#include <filesystem>
#include <vector>

namespace bench {

void registerRaw(size_t valueSize, size_t records, const std::filesystem::path& scratch);

void registerWorkloads(const std::vector<size_t>& valueSizes,
                       const std::vector<size_t>& recordCounts);
// Prints a line for each workload: its name, what it measures, and which stores run it.
void listWorkloads();
void removeScratch();

}  // namespace bench
