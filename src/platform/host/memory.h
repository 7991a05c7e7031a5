// Memory whose size comes from a file or a caller: it may be impossible to obtain, and then
// the operation fails in the ordinary way. Nothing here throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/host/system_calls.h"

namespace qvdbase::platform {

// At least `size` bytes, uninitialised, aligned for any type; null when they cannot be obtained,
// which on a 32-bit host includes all that does not fit its addresses. They can be given to a
// caller of the library, who returns them with free().
inline void* allocate(uint64_t size) {
  if (size > SIZE_MAX) return nullptr;
  return systemCalls().allocate(size != 0 ? static_cast<size_t>(size) : 1);
}

// Returns memory from allocate() to the host; null is ignored.
inline void release(void* memory) {
  if (memory != nullptr) systemCalls().release(memory);
}

// A block of bytes that is released with the object. A block that could not be obtained is null.
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(uint64_t size)
      : bytes_(static_cast<uint8_t*>(allocate(size))),
        size_(bytes_ != nullptr ? static_cast<size_t>(size) : 0) {}
  ~Buffer() { release(bytes_); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&& other) noexcept
      : bytes_(std::exchange(other.bytes_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    return *this;
  }

  explicit operator bool() const { return bytes_ != nullptr; }
  uint8_t* data() { return bytes_; }
  const uint8_t* data() const { return bytes_; }
  size_t size() const { return size_; }

 private:
  uint8_t* bytes_ = nullptr;
  size_t size_ = 0;
};

}  // namespace qvdbase::platform
