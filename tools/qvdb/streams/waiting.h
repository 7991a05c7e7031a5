// Waiting for a database that is in use.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <chrono>
#include <cstdint>
#include <optional>

namespace qvdb::tool {

// The value of --wait: how long the command may wait, in seconds. Nothing: not at all.
extern std::optional<uint64_t> waitSeconds;

// The time for repeated attempts.
class Patience {
 public:
  // Waits a moment. False, at once, when the time is over. Throws Interrupted.
  bool waitForNextAttempt() const;

 private:
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Calls `attempt` again as long as it throws in_use and --wait allows. It must not have printed or
// read anything before it throws.
template <typename Attempt>
auto whileInUse(Attempt attempt) {
  const Patience patience;
  for (;;) {
    try {
      return attempt();
    } catch (const Error& error) {
      if (error.reason() != Reason::in_use || !patience.waitForNextAttempt()) throw;
    }
  }
}

}  // namespace qvdb::tool
