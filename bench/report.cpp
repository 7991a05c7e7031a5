// Turns the results of a run into tables: for each size, number and workload the median of each
// store, the spread of its turns, and its ratio to the best peer and to the raw limit.
//
//   qvdbase_bench_report RESULTS.json...
//   qvdbase_bench_report --growth RESULTS.json...     one table instead: a column for each number
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Series {
  std::vector<double> times;  // nanoseconds for one operation, one value a turn
  double diskPerRecord = 0;

  double at(double quantile) const {
    std::vector<double> sorted = times;
    std::sort(sorted.begin(), sorted.end());
    return sorted[static_cast<size_t>(quantile * static_cast<double>(sorted.size() - 1) + 0.5)];
  }
  double median() const { return at(0.5); }
  double spread() const { return (at(1) - at(0)) / median(); }
};

using ByStore = std::map<std::string, Series>;
using Key = std::pair<std::pair<long, long>, std::string>;  // value size, records, workload

std::map<Key, ByStore> read(const std::vector<std::string>& files) {
  std::map<Key, ByStore> all;
  for (const std::string& name : files) {
    std::ifstream file(name);
    const nlohmann::json results = nlohmann::json::parse(file);
    for (const auto& run : results.at("benchmarks")) {
      if (run.value("run_type", "iteration") != "iteration" || run.contains("error_occurred"))
        continue;
      std::stringstream parts(run.at("name").get<std::string>());
      std::string workload, store, value, records;
      std::getline(parts, workload, '/');
      std::getline(parts, store, '/');
      std::getline(parts, value, '/');
      std::getline(parts, records, '/');
      Series& series = all[{{std::stol(value), std::stol(records)}, workload}][store];
      series.times.push_back(run.at("real_time").get<double>());
      if (run.contains("disk_per_record")) {
        series.diskPerRecord = run.at("disk_per_record").get<double>();
      }
    }
  }
  return all;
}

bool isOurs(const std::string& store) {
  return store.starts_with("qvdbase");
}

std::string ratio(double time, double to) {
  if (to <= 0) return "";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", time / to);
  return text;
}

std::string nanoseconds(double time) {
  char text[32];
  if (time < 1e4) {
    std::snprintf(text, sizeof text, "%.0f ns", time);
  } else if (time < 1e7) {
    std::snprintf(text, sizeof text, "%.1f us", time / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.1f ms", time / 1e6);
  }
  return text;
}

void print(const Key& key, const ByStore& stores) {
  double best = 0;
  double raw = 0;
  for (const auto& [store, series] : stores) {
    if (store == "raw") raw = series.median();
    if (isOurs(store) || store == "raw") continue;
    best = best == 0 ? series.median() : std::min(best, series.median());
  }
  std::vector<std::pair<double, std::string>> order;
  for (const auto& [store, series] : stores) order.emplace_back(series.median(), store);
  std::sort(order.begin(), order.end());
  for (const auto& [time, store] : order) {
    const Series& series = stores.at(store);
    const std::string disk =
        series.diskPerRecord > 0 ? std::to_string(static_cast<long>(series.diskPerRecord)) : "";
    std::printf("| %s | %s%s%s | %s | %.0f %% | %s | %s | %s |\n", key.second.c_str(),
                isOurs(store) ? "**" : "", store.c_str(), isOurs(store) ? "**" : "",
                nanoseconds(time).c_str(), series.spread() * 100, ratio(time, best).c_str(),
                ratio(time, raw).c_str(), disk.c_str());
  }
}

void printTables(const std::map<Key, ByStore>& all) {
  std::pair<long, long> size{-1, -1};
  for (const auto& [key, stores] : all) {
    if (key.first != size) {
      size = key.first;
      std::printf("\n### Values of %ld bytes, %ld records\n\n", size.first, size.second);
      std::printf(
          "| workload | store | median per operation | spread | to the best peer | to raw | "
          "bytes on disk per record |\n|---|---|---|---|---|---|---|\n");
    }
    print(key, stores);
  }
}

// How the cost of an operation grows with the number of records.
void printGrowth(const std::map<Key, ByStore>& all) {
  std::map<std::string, std::map<long, double>> medians;  // by workload and store, then by number
  std::set<long> numbers;
  for (const auto& [key, stores] : all) {
    numbers.insert(key.first.second);
    for (const auto& [store, series] : stores) {
      medians[key.second + " | " + store][key.first.second] = series.median();
    }
  }
  std::printf("| workload | store |");
  for (const long number : numbers) std::printf(" %ld records |", number);
  std::printf("\n|---|---|");
  for (size_t i = 0; i < numbers.size(); ++i) std::printf("---|");
  std::printf("\n");
  for (const auto& [row, byNumber] : medians) {
    std::printf("| %s |", row.c_str());
    for (const long number : numbers) {
      const auto found = byNumber.find(number);
      std::printf(" %s |", found == byNumber.end() ? "" : nanoseconds(found->second).c_str());
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files(argv + 1, argv + argc);
  const bool growth = !files.empty() && files.front() == "--growth";
  if (growth) files.erase(files.begin());
  const std::map<Key, ByStore> all = read(files);
  growth ? printGrowth(all) : printTables(all);
  return 0;
}
