// A source that calls a function before each read, which may throw: so that looking at a large file
// can be stopped.
#pragma once

#include <functional>
#include <optional>

#include "recovery/survey/byte_source.h"

namespace qvdbase::survey {

class WatchedSource : public ByteSource {
 public:
  // The source must outlive the object. `beforeRead` is given the position of each read.
  WatchedSource(const ByteSource& source, std::function<void(int64_t)> beforeRead)
      : source_(source), beforeRead_(std::move(beforeRead)) {}

  int64_t size() const override { return source_.size(); }
  size_t readAt(int64_t position, void* buffer, size_t count) const override {
    beforeRead_(position);
    return source_.readAt(position, buffer, count);
  }
  std::optional<platform::FileHole> nextHole(int64_t position) const override {
    return source_.nextHole(position);
  }

 private:
  const ByteSource& source_;
  std::function<void(int64_t)> beforeRead_;
};

}  // namespace qvdbase::survey
