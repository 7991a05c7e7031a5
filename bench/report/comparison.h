// The figures of one workload and size side by side.
#pragma once

#include <string>
#include <vector>

#include "figures/figure.h"

namespace bench {

struct Comparison {
  std::string workload;
  Size size;
  std::vector<const Figure*> figures;  // the fastest first, by processor time
  const Figure* ours = nullptr;        // the fastest of ours
  const Figure* peer = nullptr;        // the fastest of the others
  const Figure* limit = nullptr;       // the fastest raw limit
};

// One for each size and workload: sizes in ascending order, workloads as the results have them. The
// results must outlive them.
std::vector<Comparison> compare(const Results& results);

// The median of the processor time of one operation, in nanoseconds, by which stores are compared.
double costOf(const Figure& figure);

// How many times the cost of the other figure it is; 0 when there is no other one.
double timesOf(const Figure& figure, const Figure* other);

}  // namespace bench
