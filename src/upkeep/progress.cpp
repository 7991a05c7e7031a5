// Handing progress on.
#include "upkeep/progress.h"

#include <algorithm>

#include "platform/host/cancellation.h"
#include "platform/host/thread_cancelled.h"

namespace qvdbase::upkeep {

bool Reporter::report(int percent) {
  if (stops_) return false;
  highest_ = std::clamp(percent, std::max(highest_, 0), 100);
  if (!function_) return true;
  try {
    const platform::CancellationPause cancellation;
    stops_ = !function_(highest_);
  } catch (platform::ThreadCancelled&) {
    throw;
  } catch (...) {
    exception_ = std::current_exception();
    stops_ = true;
  }
  return !stops_;
}

bool Reporter::wantsToStop() const {
  if (exception_) std::rethrow_exception(exception_);
  return stops_;
}

uint16_t Reporter::packProgress(int, int percent, void* reporter) {
  return static_cast<Reporter*>(reporter)->report(percent) ? 1 : 0;
}

uint16_t Reporter::repairProgress(int percent, int, void* reporter) {
  return packProgress(0, percent, reporter);
}

}  // namespace qvdbase::upkeep
