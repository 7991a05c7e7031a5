#include "products/buffered_output.h"

#include <cstring>

namespace qvdbase::products {

BufferedOutput::BufferedOutput(TargetFile& target)
    : sink_([&target](int64_t position, const unsigned char* bytes, size_t count) {
        if (!target.file().writeAt(position, bytes, count)) target.failWriting();
      }) {}

void BufferedOutput::write(const void* bytes, size_t count) {
  const auto* from = static_cast<const unsigned char*>(bytes);
  fill(count, [&](unsigned char* to, size_t part) {
    std::memcpy(to, from, part);
    from += part;
    return true;
  });
}

void BufferedOutput::zeros(uint64_t count) {
  fill(count, [](unsigned char* to, size_t part) {
    std::memset(to, 0, part);
    return true;
  });
}

void BufferedOutput::pass(const unsigned char* bytes, size_t count) {
  flush();
  while (count > 0) {
    const size_t part = std::min(count, kPiece);
    sink_(flushed_, bytes, part);
    flushed_ += static_cast<int64_t>(part);
    bytes += part;
    count -= part;
  }
}

void BufferedOutput::flush() {
  if (held_ == 0) return;
  sink_(flushed_, buffer_.data(), held_);
  flushed_ += static_cast<int64_t>(held_);
  held_ = 0;
}

}  // namespace qvdbase::products
