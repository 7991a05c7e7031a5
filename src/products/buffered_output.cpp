#include "products/buffered_output.h"

#include <cstring>

namespace qvdbase::products {

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

void BufferedOutput::flush() {
  if (!target_.file().writeAt(flushed_, buffer_.data(), held_)) target_.failWriting();
  flushed_ += static_cast<int64_t>(held_);
  held_ = 0;
}

}  // namespace qvdbase::products
