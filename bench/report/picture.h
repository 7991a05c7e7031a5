// The ratios at a glance, as a picture in SVG.
#pragma once

#include <string>

#include "figures/figure.h"

namespace bench {

// A row for each workload, a dot for each peer: how many times our time it takes, on a logarithmic
// scale. A dot to the right of the line in the middle is slower than ours.
std::string pictureOf(const Results& results, Size size);

// Where a ratio is drawn, between 0 (smallest and below) and 1 (largest and above).
double placeOf(double times, double smallest, double largest);

}  // namespace bench
