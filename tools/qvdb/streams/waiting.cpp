// Waiting for a database that is in use.
#include "streams/waiting.h"

#include <thread>

#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

constexpr std::chrono::milliseconds kPause(20);

}  // namespace

std::optional<uint64_t> waitSeconds;

// Compares whole seconds that have passed: no value of --wait overflows.
bool Patience::waitForNextAttempt() const {
  using std::chrono::duration_cast;
  const auto passed = std::chrono::steady_clock::now() - begin_;
  const auto seconds = duration_cast<std::chrono::seconds>(passed).count();
  if (static_cast<uint64_t>(seconds) >= waitSeconds.value_or(0)) return false;
  std::this_thread::sleep_for(kPause);
  throwIfInterrupted();
  return true;
}

}  // namespace qvdb::tool
