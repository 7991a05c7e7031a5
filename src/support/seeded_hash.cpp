// Drawing the seed: from the clock, which counts nanoseconds, and from the addresses of the program
// and its stack.
#include "support/seeded_hash.h"

#include <atomic>
#include <chrono>

using namespace qvdbase::support;

namespace qvdbase::support {
namespace {

HashSeed drawn() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  const auto today = std::chrono::system_clock::now().time_since_epoch().count();
  const auto program = reinterpret_cast<uintptr_t>(&drawn);
  const auto stack = reinterpret_cast<uintptr_t>(&now);
  const HashSeed places = {program, stack};
  const HashSeed clocks = {static_cast<uint64_t>(now), static_cast<uint64_t>(today)};
  return {mixed(clocks.before, places), mixed(clocks.between, clocks) ^ mixed(stack, places)};
}

}  // namespace

const HashSeed& hashSeed() {
  static const HashSeed seed = drawn();
  return seed;
}

uint64_t drawnNumber() {
  static std::atomic<uint64_t> count = 0;
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  const HashSeed clock = {static_cast<uint64_t>(now), hashSeed().before};
  return mixed(mixed(++count, hashSeed()), clock);
}

}  // namespace qvdbase::support
