// Bounded reads from memory, from files, and from parts of them.
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

size_t PartSource::readAt(int64_t position, void* buffer, size_t count) const {
  count = available(position, count);
  if (count == 0) return 0;
  const int64_t place = position + begin_;
  if (place >= 0) return whole_.readAt(place, buffer, count);
  const auto missing =
      static_cast<size_t>(std::min<uint64_t>(count, static_cast<uint64_t>(-place)));
  std::memset(buffer, 0, missing);
  if (missing == count) return count;
  return missing + whole_.readAt(0, static_cast<char*>(buffer) + missing, count - missing);
}

std::optional<platform::FileHole> PartSource::nextHole(int64_t position) const {
  const int64_t place = position + begin_;
  if (place < 0) return platform::FileHole{0, std::min(-begin_, size())};
  std::optional<platform::FileHole> hole = whole_.nextHole(place);
  if (hole) *hole = {hole->begin - begin_, std::min(hole->end, end_) - begin_};
  if (hole && hole->begin >= hole->end) return std::nullopt;
  return hole;
}

}  // namespace qvdbase::survey
