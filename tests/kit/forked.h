// A child process that got everything of this one, for tests of what objects do there.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

namespace qvdbase::test {

// Waits for a child. Returns its exit status, or -1 when a signal ended it.
inline int endOf(pid_t child) {
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) throw std::runtime_error("no process");
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `work` in a child, which ends right after it: what it returns, or 100 when it throws, is the
// exit status.
template <typename Work>
[[noreturn]] void beTheChild(Work&& work) {
  int result = 100;
  try {
    result = work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "in the child: %s\n", error.what());
  }
  ::_exit(result);
}

// Runs `work` in a child made by fork, which ends right after it, and waits for that. Returns what
// `work` returns, 0 to 99, or 100 when it throws. What gtest notes in the child is lost: only the
// result counts.
template <typename Work>
int inForkedChild(Work&& work) {
  const pid_t child = ::fork();
  if (child != 0) return endOf(child);
  beTheChild(work);
}

// A child that is made at once, before this process opens anything that it would inherit, and
// begins its work when begin() is called. A test that ends without calling end() ends it.
class ForkedLater {
 public:
  template <typename Work>
  explicit ForkedLater(Work&& work) {
    int pipe[2];
    if (::pipe(pipe) != 0) throw std::runtime_error("no pipe");
    child_ = ::fork();
    if (child_ == 0) {
      ::close(pipe[1]);
      char go = 0;
      if (::read(pipe[0], &go, 1) != 1) ::_exit(0);
      beTheChild(work);
    }
    ::close(pipe[0]);
    start_ = pipe[1];
  }
  ~ForkedLater() {
    close();
    if (child_ > 0) endOf(child_);
  }
  ForkedLater(ForkedLater&& other) noexcept
      : child_(std::exchange(other.child_, -1)), start_(std::exchange(other.start_, -1)) {}
  ForkedLater& operator=(ForkedLater&&) = delete;

  void begin() {
    if (::write(start_, "g", 1) != 1) throw std::runtime_error("no child");
  }

  // Waits for its end. Returns what `work` returned, as inForkedChild() does.
  int end() {
    close();
    return endOf(std::exchange(child_, -1));
  }

 private:
  void close() {
    if (start_ >= 0) ::close(std::exchange(start_, -1));
  }

  pid_t child_ = -1;
  int start_ = -1;
};

}  // namespace qvdbase::test
