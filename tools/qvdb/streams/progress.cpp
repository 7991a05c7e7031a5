// Progress of long work.
#include "streams/progress.h"

#include <unistd.h>

namespace qvdb::tool {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);

void writeError(const std::string& text) {
  static_cast<void>(!::write(STDERR_FILENO, text.data(), text.size()));
}

}  // namespace

Progress::Progress(const char* doing, uint64_t total, const char* things)
    : doing_(doing),
      total_(total),
      things_(things != nullptr ? things : ""),
      isTerminal_(::isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now()) {}

Progress::~Progress() {
  clear();
}

void Progress::step() {
  setTo(done_ + 1);
}

void Progress::setTo(uint64_t done) {
  done_ = done;
  if (!isTerminal_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kInterval;
  show();
}

void Progress::show() {
  std::string line = "\r\x1b[K" + doing_ + " ";
  const std::string done = std::to_string(done_);
  if (things_.empty()) {
    line += std::to_string(done_ * 100 / total_) + " %";
  } else if (total_ != 0) {
    line += done;
    line += " of " + std::to_string(total_);
    line += " " + things_ + " (" + std::to_string(done_ * 100 / total_) + " %)";
  } else {
    line += done + " " + things_;
  }
  writeError(line);
  isShown_ = true;
}

void Progress::clear() {
  if (isShown_) writeError("\r\x1b[K");
  isShown_ = false;
}

}  // namespace qvdb::tool
