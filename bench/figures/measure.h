// The order in which the turns of one workload run, on all stores of one size.
//
// The stores are visited one after the other, each visit in another random order, so that a slow
// moment of the machine affects all alike. A visit begins with turns that do not count: another
// store was in the caches of the processor before. A figure whose quartiles are too far apart is
// measured again, together with the others of that kind, and the steadiest attempt counts.
#pragma once

#include <cstddef>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace bench {

// The cost of one operation, in nanoseconds: processor time of all threads, and time that passed.
struct Sample {
  double processor = 0;
  double wall = 0;
};

// A store, or a raw limit, that takes part.
struct Participant {
  std::string name;
  std::function<void(size_t turns)> beginVisit;
  std::function<Sample()> turn;
  std::function<void()> endVisit;
};

struct Plan {
  size_t visits = 5;
  size_t warmUpVisits = 0;  // before those, for workloads whose turns are long
  size_t warmUpTurns = 1;   // at the beginning of each visit
  size_t turns = 3;         // of each visit
  size_t attempts = 3;      // at most

  // No further attempt begins after so much time.
  double seconds = 60;
};

struct Measured {
  std::vector<double> processor;
  std::vector<double> wall;
  size_t attempts = 0;
};

// One for each participant, in their order.
std::vector<Measured> measure(const std::vector<Participant>& participants, const Plan& plan,
                              std::mt19937_64& random);

}  // namespace bench
