// Moving bytes between memory and a descriptor at a given position, in as few system calls as the
// host allows: one, more only when it moves fewer bytes than it was asked to.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvdbase::platform {

// How many bytes of a transfer may lie below `limit`; positions never pass 2^63 - 1.
size_t bytesBelow(uint64_t limit, int64_t position, size_t count);

// One call's worth of reading: the bytes read, 0 at the end of the file, -1 when the host fails.
ptrdiff_t readOnce(int descriptor, int64_t position, void* buffer, size_t count);

// Both return the number of bytes moved; fewer than `count` when the file ends or the host fails.
// *failed is set when the host fails to read, with its reason in errno. A refused write is noted.
size_t readPlain(int descriptor, int64_t position, void* buffer, size_t count, bool* failed);
size_t writePlain(int descriptor, int64_t position, const void* buffer, size_t count);

}  // namespace qvdbase::platform
