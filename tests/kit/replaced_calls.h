// Puts chosen system calls of a test's own in place of the host's, for as long as the object lives.
//
//   ReplacedCalls calls;
//   calls->fileSizeLimit = [] { return uint64_t{100}; };
#pragma once

#include "kit/other_thread.h"
#include "platform/host/system_calls.h"

namespace qvdbase::test {

class ReplacedCalls {
 public:
  ReplacedCalls() { replaceHostCalls(&calls_); }
  ~ReplacedCalls() { replaceHostCalls(nullptr); }
  ReplacedCalls(const ReplacedCalls&) = delete;
  ReplacedCalls& operator=(const ReplacedCalls&) = delete;

  platform::SystemCalls* operator->() { return &calls_; }

 private:
  platform::SystemCalls calls_ = platform::hostSystemCalls();
};

}  // namespace qvdbase::test
