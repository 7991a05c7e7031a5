// Loading the window: how much, and what a short read means.
#include "recovery/survey/window.h"

#include <algorithm>

namespace qvdbase::survey {
namespace {

constexpr size_t kSmallest = Window::kLargestView;
constexpr size_t kLargest = size_t{256} << 10;

}  // namespace

const uint8_t* Window::load(int64_t position, size_t count) {
  if (position < 0 || count > kLargestView) return nullptr;
  if (position > source_.size() - static_cast<int64_t>(count)) return nullptr;

  const int64_t end = start_ + static_cast<int64_t>(held_);
  const bool goesOn =
      held_ > 0 && position >= start_ && position <= end + static_cast<int64_t>(kSmallest);
  step_ = goesOn ? std::min(step_ * 2, kLargest) : kSmallest;
  if (buffer_.size() < step_) buffer_.resize(step_);
  start_ = position;
  held_ = source_.readAt(position, buffer_.data(), step_);
  // A host may give nothing at all where it cannot give everything.
  if (held_ < count) held_ = source_.readAt(position, buffer_.data(), count);
  if (count <= held_) return buffer_.data();
  unreadableAt_ = position + static_cast<int64_t>(held_);
  return nullptr;
}

}  // namespace qvdbase::survey
