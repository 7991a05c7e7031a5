// The seed of a random test: a new one on each run, printed, and taken from QVDBASE_TEST_SEED in
// the environment to repeat a run.
//
//   std::mt19937_64 random(randomSeed());
#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

namespace qvdbase::test {

inline uint64_t randomSeed() {
  const char* const given = std::getenv("QVDBASE_TEST_SEED");
  const uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
  std::cout << "QVDBASE_TEST_SEED=" << seed << std::endl;
  return seed;
}

}  // namespace qvdbase::test
