#include "figures/zipfian.h"

#include <algorithm>
#include <cmath>

namespace bench {
namespace {

constexpr double kTheta = 0.99;

double zetaOf(uint64_t count) {
  double sum = 0;
  for (uint64_t i = 1; i <= count; ++i) sum += 1 / std::pow(static_cast<double>(i), kTheta);
  return sum;
}

// From 0 to below 1, the same on every machine.
double unit(std::mt19937_64& random) {
  return static_cast<double>(random() >> 11) * 0x1p-53;
}

}  // namespace

Zipfian::Zipfian(uint64_t count)
    : count_(static_cast<double>(count)),
      zeta_(zetaOf(count)),
      alpha_(1 / (1 - kTheta)),
      eta_((1 - std::pow(2 / count_, 1 - kTheta)) / (1 - zetaOf(2) / zeta_)) {}

uint64_t Zipfian::operator()(std::mt19937_64& random) const {
  const double u = unit(random);
  if (u * zeta_ < 1) return 0;
  if (u * zeta_ < 1 + std::pow(0.5, kTheta)) return 1;
  const double rank = count_ * std::pow(eta_ * u - eta_ + 1, alpha_);
  return static_cast<uint64_t>(std::min(rank, count_ - 1));
}

// FNV-1a of the eight bytes.
uint64_t scrambled(uint64_t rank, uint64_t count) {
  uint64_t hash = 0xCBF29CE484222325;
  for (int i = 0; i < 8; ++i) {
    hash ^= rank & 0xFF;
    hash *= 0x100000001B3;
    rank >>= 8;
  }
  return hash % count;
}

}  // namespace bench
