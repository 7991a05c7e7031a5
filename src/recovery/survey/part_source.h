// A part of another source, taken for a whole one.
#pragma once

#include "recovery/survey/byte_source.h"

namespace qvdbase::survey {

class PartSource : public ByteSource {
 public:
  // The bytes of `whole`, which must outlive the part, from `begin` to before `end`. Where `begin`
  // is below 0, zeros replace the bytes that are missing at the front.
  PartSource(const ByteSource& whole, int64_t begin, int64_t end)
      : whole_(whole), begin_(begin), end_(end) {}

  int64_t size() const override { return end_ > begin_ ? end_ - begin_ : 0; }
  size_t readAt(int64_t position, void* buffer, size_t count) const override;
  std::optional<platform::FileHole> nextHole(int64_t position) const override;

 private:
  const ByteSource& whole_;
  int64_t begin_;
  int64_t end_;
};

}  // namespace qvdbase::survey
