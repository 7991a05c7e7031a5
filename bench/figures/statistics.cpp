#include "figures/statistics.h"

#include <algorithm>
#include <cmath>

namespace bench {

double quantileOf(std::vector<double> values, double quantile) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const double place = quantile * static_cast<double>(values.size() - 1);
  const auto below = static_cast<size_t>(place);
  const size_t above = std::min(below + 1, values.size() - 1);
  return std::lerp(values[below], values[above], place - static_cast<double>(below));
}

double medianOf(const std::vector<double>& values) {
  return quantileOf(values, 0.5);
}

double spreadOf(const std::vector<double>& values) {
  const double median = medianOf(values);
  if (median == 0) return 0;
  return (quantileOf(values, 0.75) - quantileOf(values, 0.25)) / median;
}

bool isSteady(const std::vector<double>& values) {
  return spreadOf(values) <= kLargestSpread;
}

}  // namespace bench
