// Trying again while a database, or a part of it, is in use.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "platform/handles/lock_bytes.h"
#include "platform/host/clock.h"

namespace qvdb::detail {

// Between two tries. The system can wait for a lock only without a limit in time, so the lock is
// tried again and again.
inline constexpr uint64_t kPauseMicroseconds = 10'000;

// Calls `attempt` until it does not throw in_use, for `wait` at most, and at least once.
template <typename Attempt>
auto whileInUse(std::chrono::milliseconds wait, Attempt attempt) {
  using qvdbase::platform::microsecondCounter;
  const int64_t milliseconds = std::clamp<int64_t>(wait.count(), 0, INT64_MAX / 1'000 - 1);
  const auto length = static_cast<uint64_t>(milliseconds) * 1'000;
  const uint64_t begin = microsecondCounter();
  for (;;) {
    try {
      return attempt();
    } catch (const Error& error) {
      const uint64_t passed = microsecondCounter() - begin;
      if (error.reason() != Reason::in_use || passed >= length) throw;
      qvdbase::platform::pauseFor(std::min(kPauseMicroseconds, length - passed));
    }
  }
}

// Calls `attempt` until a lock is no longer refused, for this time at most, with pauses that grow.
// Returns its last outcome.
template <typename Attempt, typename Pause>
qvdbase::platform::LockOutcome whileRefused(uint64_t microseconds, Attempt attempt,
                                            Pause pauseFor) {
  constexpr uint64_t kFirstPause = 20;
  constexpr uint64_t kLongestPause = 1'000;
  qvdbase::platform::LockOutcome outcome = attempt();
  if (outcome != qvdbase::platform::LockOutcome::refused || microseconds == 0) return outcome;
  const uint64_t begin = qvdbase::platform::microsecondCounter();
  uint64_t waited = 0;
  for (uint64_t pause = kFirstPause;; pause = std::min(pause * 2, kLongestPause)) {
    pauseFor(std::min(pause, microseconds - waited));
    outcome = attempt();
    waited = qvdbase::platform::microsecondCounter() - begin;
    if (outcome != qvdbase::platform::LockOutcome::refused || waited >= microseconds) {
      return outcome;
    }
  }
}

template <typename Attempt>
qvdbase::platform::LockOutcome whileRefused(uint64_t microseconds, Attempt attempt) {
  return whileRefused(microseconds, attempt, qvdbase::platform::pauseFor);
}

}  // namespace qvdb::detail
