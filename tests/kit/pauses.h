// Pauses that take no time: what the library waits is counted, the clock shows it, and something of
// the test's own can happen meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "kit/replaced_calls.h"

namespace qvdbase::test {

class Pauses {
 public:
  explicit Pauses(std::function<void()> during = {}) {
    during_ = std::move(during);
    microseconds_ = 0;
    begin_ = platform::hostSystemCalls().microseconds();
    calls_->microseconds = [] { return begin_ + microseconds_; };
    calls_->pause = [](uint64_t length) {
      microseconds_ += length;
      if (during_) during_();
    };
  }
  ~Pauses() { during_ = {}; }
  Pauses(const Pauses&) = delete;
  Pauses& operator=(const Pauses&) = delete;

  static uint64_t microseconds() { return microseconds_; }

 private:
  inline static std::function<void()> during_;
  inline static uint64_t begin_ = 0;
  inline static uint64_t microseconds_ = 0;
  ReplacedCalls calls_;
};

}  // namespace qvdbase::test
