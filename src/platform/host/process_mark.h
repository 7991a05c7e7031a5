// Which process made something. A child that got it by fork must release it without finishing or
// undoing anything: the file, and what happens to it, still belong to the parent.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/host/system_calls.h"

namespace qvdbase::platform {

namespace detail {
extern constinit uint32_t forkDepth;
}

// By how many forks this process descends from the first that had the library: another number in a
// child than in its parent. Costs no call.
inline uint32_t forkDepth() {
  return detail::forkDepth;
}

class ProcessMark {
 public:
  // Made with the object that it marks, in the process that the object belongs to.
  ProcessMark() : process_(systemCalls().processId()), forks_(systemCalls().forkCount()) {}

  // The fork depth of that process.
  uint32_t forkDepth() const { return depth_; }

  // Whether this process is the one that made the mark.
  bool isOwn() const { return process_ == systemCalls().processId(); }

  // The same, without asking the host as long as nothing has forked since.
  bool isStillOwn() const { return forks_ == systemCalls().forkCount() || isOwn(); }

  // Whether nothing has forked since: without a question to the host.
  bool isUnforked() const { return forks_ == systemCalls().forkCount(); }

  // Whether a child may have got the marked object by fork, or this process is such a child.
  bool maybeShared() const { return !isOwn() || forks_ != systemCalls().forkCount(); }

 private:
  pid_t process_;
  uint32_t forks_;
  uint32_t depth_ = platform::forkDepth();
};

}  // namespace qvdbase::platform
