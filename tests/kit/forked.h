// A child process that got everything of this one, for tests of what objects do there.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

namespace qvdbase::test {

// Waits for a child. Returns its exit status, or -1 when a signal ended it.
inline int endOf(pid_t child) {
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) throw std::runtime_error("no process");
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `work` in a child made by fork, which ends right after it, and waits for that. Returns what
// `work` returns, 0 to 99, or 100 when it throws. What gtest notes in the child is lost: only the
// result counts.
template <typename Work>
int inForkedChild(Work&& work) {
  const pid_t child = ::fork();
  if (child != 0) return endOf(child);
  int result = 100;
  try {
    result = work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "in the child: %s\n", error.what());
  }
  ::_exit(result);
}

}  // namespace qvdbase::test
