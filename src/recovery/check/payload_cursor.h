// Reading a payload from its front, as far as it is in the file.
#pragma once

#include "recovery/survey/survey.h"
#include "recovery/survey/window.h"

namespace qvdbase::check {

class PayloadCursor {
 public:
  // The window must outlive the cursor.
  PayloadCursor(survey::Window& window, const survey::Block& block)
      : window_(window), position_(block.dataPos()), end_(position_ + block.dataThere()) {}

  int64_t position() const { return position_; }
  int64_t left() const { return end_ - position_; }

  // The next bytes, at most Window::kLargestView, valid until the window is used again. Null when
  // there are not so many, or they cannot be read.
  const uint8_t* take(size_t count) {
    if (left() < static_cast<int64_t>(count)) return nullptr;
    const uint8_t* const bytes = window_.at(position_, count);
    skip(static_cast<int64_t>(count));
    return bytes;
  }

  // At most left().
  void skip(int64_t count) { position_ += count; }

 private:
  survey::Window& window_;
  int64_t position_;
  int64_t end_;
};

}  // namespace qvdbase::check
