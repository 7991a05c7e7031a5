// Medians and quartiles of the turns of a figure.
#pragma once

#include <vector>

namespace bench {

// The value below which the share `quantile` (0 to 1) of the values lies, interpolated between the
// two next to it. 0 without any value.
double quantileOf(std::vector<double> values, double quantile);

double medianOf(const std::vector<double>& values);

// The distance between the quartiles, as a share of the median.
double spreadOf(const std::vector<double>& values);

// A figure whose quartiles are further apart is measured again, and flagged if that does not help.
constexpr double kLargestSpread = 0.25;

bool isSteady(const std::vector<double>& values);

}  // namespace bench
