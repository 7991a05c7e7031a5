// Runs workloads on stores of one size and saves what they cost in a file; see --help.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "run.h"
#include "workloads/workload.h"

namespace {

void checkNames(const bench::RunOptions& options) {
  for (const std::string& name : options.workloads) {
    if (bench::findWorkload(name) == nullptr) {
      throw CLI::ValidationError("--workloads", "there is no workload " + name + "; see --list");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures QVDbase beside its peers.");
  bench::RunOptions options;
  std::string peakMemory;
  bool looksUp = false;
  bool isList = false;
  std::vector<std::string> workloads;
  std::vector<std::string> stores;
  options.size = {100, 10'000};
  app.add_option("--value", options.size.value, "bytes of each value")
      ->check(CLI::Range(size_t{16}, size_t{2048}));
  app.add_option("--records", options.size.records, "number of records")
      ->check(CLI::Range(size_t{100}, size_t{100'000'000}));
  app.add_option("--workloads", workloads, "only these")->delimiter(',');
  app.add_option("--stores", stores, "only these")->delimiter(',');
  app.add_option("--output", options.output, "file of results, which is added to");
  app.add_option("--seconds", options.seconds, "begin no workload after so many seconds");
  app.add_flag("--continue", options.isContinued, "leave out what the file has already");
  app.add_flag("--quick", options.isQuick, "few turns");
  app.add_flag("--list", isList, "print what each workload measures, and run none");
  app.add_option("--peak-memory", peakMemory,
                 "instead: fill and read this store and print the process's peak memory in KiB");
  app.add_flag("--lookup", looksUp, "with --peak-memory: look a record up, too");
  try {
    app.parse(argc, argv);
    options.workloads = {workloads.begin(), workloads.end()};
    options.stores = {stores.begin(), stores.end()};
    checkNames(options);
    if (!isList && peakMemory.empty() && options.output.empty()) {
      throw CLI::RequiredError("--output");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  try {
    if (isList) {
      bench::listWorkloads();
    } else if (!peakMemory.empty()) {
      bench::printPeakMemory(peakMemory, options.size, looksUp);
    } else if (!bench::run(options)) {
      std::fprintf(stderr, "bench: the time is over; --continue measures the rest\n");
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
  }
  return 0;
}
