// One run: the chosen workloads on the chosen stores, all of one size.
#pragma once

#include <set>
#include <string>

#include "figures/figure.h"

namespace bench {

struct RunOptions {
  Size size;
  std::set<std::string> workloads;  // all when empty
  std::set<std::string> stores;     // all, and the raw limits, when empty
  std::filesystem::path output;
  bool isQuick = false;      // few turns, each measured once
  bool isContinued = false;  // leaves out what is in the output already
  double seconds = 0;        // no workload begins later; 0: no limit
};

// Runs the workloads one after the other, and saves the results in the output after each, beside
// what is there already. Returns whether all have been measured.
bool run(const RunOptions& options);

// Fills a store, reads it once and prints how much memory the process has used, in KiB.
void printPeakMemory(const std::string& store, Size size, bool looksUp);

// A line for each workload, and the raw limits.
void listWorkloads();

}  // namespace bench
