// Random numbers of which few are drawn often, as YCSB distributes its requests: number k of n with
// a probability in proportion to 1 / (k + 1) ^ 0.99. By J. Gray and others, "Quickly Generating
// Billion-Record Synthetic Databases".
#pragma once

#include <cstdint>
#include <random>

namespace bench {

class Zipfian {
 public:
  explicit Zipfian(uint64_t count);

  // The next rank, 0 to count - 1; 0 is drawn most often.
  uint64_t operator()(std::mt19937_64& random) const;

  // How often rank 0 is drawn.
  double shareOfFirst() const { return 1 / zeta_; }

 private:
  double count_;
  double zeta_;
  double alpha_;
  double eta_;
};

// Where YCSB puts a rank, so that the popular records are not neighbours: 0 to count - 1.
uint64_t scrambled(uint64_t rank, uint64_t count);

}  // namespace bench
