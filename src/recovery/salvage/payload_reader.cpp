// A read that fails in a large piece loses only what cannot be read, and continues after it.
#include "recovery/salvage/payload_reader.h"

#include <algorithm>

using namespace qvdbase::survey;

namespace qvdbase::salvage {
namespace {

constexpr size_t kPiece = size_t{1} << 20;

}  // namespace

PayloadReader::PayloadReader(const ByteSource& source) : source_(source), piece_(kPiece) {}

uint64_t PayloadReader::read(const Block& block,
                             const std::function<void(const char*, size_t)>& take) {
  const int64_t end = block.dataPos() + block.dataThere();
  uint64_t unreadable = 0;
  for (int64_t position = block.dataPos(); position < end;) {
    const auto count = static_cast<size_t>(std::min<int64_t>(end - position, kPiece));
    unreadable += load(position, count);
    take(piece_.data(), count);
    position += static_cast<int64_t>(count);
  }
  return unreadable;
}

uint64_t PayloadReader::load(int64_t position, size_t count) {
  uint64_t unreadable = 0;
  char* to = piece_.data();
  while (count > 0) {
    const size_t held = source_.readAt(position, to, count);
    position += static_cast<int64_t>(held);
    to += held;
    count -= held;
    if (count == 0) break;
    const int64_t next = nextReadable(source_, position, position + static_cast<int64_t>(count));
    const auto lost = static_cast<size_t>(next - position);
    if (unreadableAt_ < 0 || position < unreadableAt_) unreadableAt_ = position;
    unreadable += lost;
    std::fill_n(to, lost, '\0');
    position = next;
    to += lost;
    count -= lost;
  }
  return unreadable;
}

}  // namespace qvdbase::salvage
