#include "workloads/turn.h"

#include <sys/resource.h>
#include <time.h>

namespace bench {
namespace {

double nanosecondsOf(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double nanosecondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
}

}  // namespace

Clocks Clocks::now() {
  rusage children;
  getrusage(RUSAGE_CHILDREN, &children);
  return {nanosecondsOf(CLOCK_PROCESS_CPUTIME_ID) + nanosecondsOf(children.ru_utime) +
              nanosecondsOf(children.ru_stime),
          nanosecondsOf(CLOCK_MONOTONIC)};
}

Sample Turn::sample() const {
  return {processor_ / operations_, wall_ / operations_};
}

}  // namespace bench
