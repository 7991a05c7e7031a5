#include "report/comparison.h"

#include <algorithm>

#include "figures/statistics.h"

namespace bench {
namespace {

Comparison& findOrAdd(std::vector<Comparison>& all, const Figure& figure) {
  for (Comparison& each : all) {
    if (each.size == figure.size && each.workload == figure.workload) return each;
  }
  return all.emplace_back(Comparison{figure.workload, figure.size, {}, {}, {}, {}});
}

void keepFastest(Comparison& comparison) {
  for (const Figure* figure : comparison.figures) {
    const Figure*& fastest = isOurs(*figure)  ? comparison.ours
                             : isRaw(*figure) ? comparison.limit
                                              : comparison.peer;
    if (fastest == nullptr) fastest = figure;
  }
}

}  // namespace

double costOf(const Figure& figure) {
  return medianOf(countedOf(figure));
}

double timesOf(const Figure& figure, const Figure* other) {
  return other == nullptr || costOf(*other) == 0 ? 0 : costOf(figure) / costOf(*other);
}

std::vector<Comparison> compare(const Results& results) {
  std::vector<Comparison> all;
  for (const Figure& figure : results.figures) findOrAdd(all, figure).figures.push_back(&figure);
  std::stable_sort(all.begin(), all.end(),
                   [](const auto& a, const auto& b) { return a.size < b.size; });
  for (Comparison& each : all) {
    std::stable_sort(each.figures.begin(), each.figures.end(),
                     [](const auto* a, const auto* b) { return costOf(*a) < costOf(*b); });
    keepFastest(each);
  }
  return all;
}

}  // namespace bench
