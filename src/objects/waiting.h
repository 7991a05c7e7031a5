// Trying again while a database is in use.
#pragma once

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>

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

}  // namespace qvdb::detail
