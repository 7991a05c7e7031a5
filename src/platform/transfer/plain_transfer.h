// Moving bytes between memory and a descriptor at a given position, in as few system calls as the
// host allows: one, more only when it moves fewer bytes than it was asked to.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace qvdbase::platform {

// How many bytes of a transfer may lie below `limit`; positions never pass 2^63 - 1.
inline size_t bytesBelow(uint64_t limit, int64_t position, size_t count) {
  constexpr auto kLargestPosition = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  const uint64_t end = std::min(limit, kLargestPosition);
  const auto start = static_cast<uint64_t>(position);
  return start >= end ? 0 : static_cast<size_t>(std::min<uint64_t>(count, end - start));
}

// One call's worth of reading: the bytes read, 0 at the end of the file, -1 when the host fails.
ptrdiff_t readOnce(int descriptor, int64_t position, void* buffer, size_t count);

// Both return the number of bytes moved; fewer than `count` when the file ends or the host fails.
// *failed is set when the host fails to read, with its reason in errno. A refused write is noted.
size_t readPlain(int descriptor, int64_t position, void* buffer, size_t count, bool* failed);
size_t writePlain(int descriptor, int64_t position, const void* buffer, size_t count);

}  // namespace qvdbase::platform
