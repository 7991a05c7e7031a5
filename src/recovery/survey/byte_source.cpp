// Bounded reads from memory and from files.
#include "recovery/survey/byte_source.h"

#include <algorithm>
#include <cstring>

namespace qvdbase::survey {
namespace {

constexpr int64_t kPage = 4096;

}  // namespace

size_t ByteSource::available(int64_t position, size_t count) const {
  if (position < 0 || position >= size()) return 0;
  return static_cast<size_t>(std::min(static_cast<uint64_t>(size() - position), uint64_t{count}));
}

int64_t nextReadable(const ByteSource& source, int64_t position, int64_t end) {
  const auto isReadable = [&](int64_t at) {
    char byte;
    return source.readAt(at, &byte, 1) == 1;
  };
  int64_t bad = position;
  int64_t good = (bad / kPage + 1) * kPage;
  for (; good < end && !isReadable(good); good += kPage) bad = good;
  good = std::min(good, end);
  // The pages of a part of a file are not those of the device.
  while (good - bad > 1) {
    const int64_t middle = bad + (good - bad) / 2;
    (isReadable(middle) ? good : bad) = middle;
  }
  return good;
}

size_t MemorySource::readAt(int64_t position, void* buffer, size_t count) const {
  const size_t there = available(position, count);
  if (there > 0) std::memcpy(buffer, bytes_.data() + position, there);
  return there;
}

size_t FileSource::readAt(int64_t position, void* buffer, size_t count) const {
  const size_t there = available(position, count);
  return there > 0 ? file_.readAt(position, buffer, there) : 0;
}

std::optional<platform::FileHole> FileSource::nextHole(int64_t position) const {
  platform::FileHole hole;
  if (position >= size_ || !file_.nextHole(position, size_, &hole)) return std::nullopt;
  return hole;
}

}  // namespace qvdbase::survey
