// Reading the payloads of a damaged file. Bytes that the system cannot read become zeros, and are
// counted.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::salvage {

class PayloadReader {
 public:
  // The source must outlive the reader.
  explicit PayloadReader(const survey::ByteSource& source);

  // Passes the payload of the block to `take` in pieces, as far as the file has it. Returns how
  // many of its bytes could not be read.
  uint64_t read(const survey::Block& block, const std::function<void(const char*, size_t)>& take);

  // The lowest position that could not be read; negative when there was none.
  int64_t unreadableAt() const { return unreadableAt_; }

 private:
  uint64_t load(int64_t position, size_t count);

  const survey::ByteSource& source_;
  std::vector<char> piece_;
  int64_t unreadableAt_ = -1;
};

}  // namespace qvdbase::salvage
