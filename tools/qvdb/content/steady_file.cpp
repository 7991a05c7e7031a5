// Whether a database stays as it is while all of it is read.
#include "content/steady_file.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

// File systems take the time from a clock that advances in steps, of 10 milliseconds at most where
// they keep fractions of a second.
constexpr int64_t kStep = 12'000'000;
constexpr std::chrono::milliseconds kPause(15);
constexpr int kMostPauses = 10;

// Whether the time is that of a step which may not be over yet.
bool isOfNow(const timespec& modified) {
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const int64_t seconds = int64_t{now.tv_sec} - modified.tv_sec;
  if (seconds < -1 || seconds > 1) return false;
  return std::abs(seconds * 1'000'000'000 + now.tv_nsec - modified.tv_nsec) < kStep;
}

}  // namespace

// A file whose name has gone has the state of none, which it keeps.
SteadyFile::State SteadyFile::look() const {
  struct stat status = {};
  if (::stat(path_.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

SteadyFile::SteadyFile(const Database& database) : path_(database.path().native()) {
  for (int pauses = 0; pauses <= kMostPauses; ++pauses) {
    state_ = look();
    if (!isOfNow(state_.modified)) return;
    throwIfInterrupted();
    std::this_thread::sleep_for(kPause);
  }
  throw ChangedMeanwhile(path_);
}

void SteadyFile::require() const {
  const State now = look();
  const bool isSame = now.device == state_.device && now.file == state_.file &&
                      now.size == state_.size && now.modified.tv_sec == state_.modified.tv_sec &&
                      now.modified.tv_nsec == state_.modified.tv_nsec;
  if (!isSame) throw ChangedMeanwhile(path_);
}

}  // namespace qvdb::tool
