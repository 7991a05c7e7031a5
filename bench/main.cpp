// Runs the workloads. Beside the framework's own options:
//
//   --values=100,1024        sizes of values, in bytes
//   --records=10000,100000   numbers of records
//   --peak-memory=STORE      instead: fills and reads one store and prints its peak memory in KiB
//   --lookup=yes             with --peak-memory: looks a record up too, for which ours make an
//                            index
//   --list                   instead: prints what each workload measures
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string_view>

#include "raw.h"
#include "store.h"

namespace {

std::vector<size_t> numbers(const std::string& list) {
  std::vector<size_t> result;
  std::stringstream stream(list);
  for (std::string number; std::getline(stream, number, ',');) result.push_back(std::stoul(number));
  return result;
}

// Takes "--name=value" out of the arguments.
std::string option(int* argc, char** argv, const std::string& name, const std::string& otherwise) {
  std::string value = otherwise;
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    const std::string argument = argv[i];
    if (argument.starts_with("--" + name + "=")) {
      value = argument.substr(name.size() + 3);
    } else {
      argv[kept++] = argv[i];
    }
  }
  *argc = kept;
  return value;
}

int printPeakMemory(const std::string& name, size_t valueSize, size_t records, bool looksUp) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qvdbase-bench-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return 1;
  const std::filesystem::path folder = pattern;
  for (const bench::StoreKind& kind : bench::storeKinds()) {
    if (kind.name != name) continue;
    const auto store = kind.make();
    store->open(folder);
    store->appendMany(records, bench::Bytes(valueSize, 'v'), nullptr);
    store->scanKeys();
    store->scanValues();
    bench::Bytes value;
    if (looksUp) store->get(1, &value);
    store->close();
  }
  std::filesystem::remove_all(folder);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%ld\n", usage.ru_maxrss);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "--list") {
    bench::listWorkloads();
    return 0;
  }
  const auto values = numbers(option(&argc, argv, "values", "100"));
  const auto records = numbers(option(&argc, argv, "records", "10000"));
  const std::string store = option(&argc, argv, "peak-memory", "");
  const bool looksUp = option(&argc, argv, "lookup", "no") != "no";
  if (!store.empty()) return printPeakMemory(store, values.at(0), records.at(0), looksUp);
  bench::registerWorkloads(values, records);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  bench::removeScratch();
  return 0;
}
