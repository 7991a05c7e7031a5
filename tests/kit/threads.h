// Threads in tests: several at once, started together, each with its number.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <exception>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

namespace qvdbase::test {

// Whether the library is built for several threads. Tests that need that skip themselves without:
//
//   if (!kHasThreads) GTEST_SKIP() << "the library is built for one thread";
#if defined(QVDBASE_NO_THREADS)
inline constexpr bool kHasThreads = false;
#else
inline constexpr bool kHasThreads = true;
#endif

// Runs `work` in that many threads at once and waits for them.
inline void runThreads(int count, const std::function<void(int)>& work) {
  std::latch start(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      try {
        work(i);
      } catch (const std::exception& error) {
        ADD_FAILURE() << "thread " << i << ": " << error.what();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// A thread that repeats `step` for as long as the object lives, at least once.
class BusyThread {
 public:
  explicit BusyThread(std::function<void()> step)
      : thread_([this, repeated = std::move(step)] {
          do {
            repeated();
          } while (!stop_);
        }) {}
  ~BusyThread() {
    stop_ = true;
    thread_.join();
  }
  BusyThread(const BusyThread&) = delete;
  BusyThread& operator=(const BusyThread&) = delete;

 private:
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

}  // namespace qvdbase::test
