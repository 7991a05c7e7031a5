#include "recovery/survey/part_source.h"

#include <algorithm>
#include <cstring>

namespace qvdbase::survey {

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
