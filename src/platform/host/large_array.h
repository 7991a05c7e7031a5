// An array of zeros for tables that are asked at random places: a large one is in large pages where
// the host has them, because otherwise nearly every question misses the address translations too.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/host/system_calls.h"

namespace qvdbase::platform {

template <typename T>
class LargeArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  // From so many bytes on: below it a large page would be wasted.
  static constexpr size_t kLarge = size_t{4} << 20;

  LargeArray() = default;
  // All bytes are zeros. Throws std::bad_alloc.
  explicit LargeArray(size_t count) : size_(count) {
    if (count == 0) return;
    if (count > SIZE_MAX / sizeof(T)) throw std::bad_alloc();
    isReserved_ = bytes() >= kLarge;
    void* memory = isReserved_ ? systemCalls().reserve(bytes(), true) : nullptr;
    if (memory == nullptr) {
      isReserved_ = false;
      memory = ::operator new(bytes());
      std::fill_n(static_cast<unsigned char*>(memory), bytes(), static_cast<unsigned char>(0));
    }
    items_ = static_cast<T*>(memory);
  }
  ~LargeArray() {
    if (isReserved_) {
      systemCalls().unreserve(items_, bytes());
    } else {
      ::operator delete(items_);
    }
  }
  LargeArray(const LargeArray&) = delete;
  LargeArray& operator=(const LargeArray&) = delete;
  LargeArray(LargeArray&& other) noexcept { swap(other); }
  LargeArray& operator=(LargeArray&& other) noexcept {
    LargeArray taken(std::move(other));
    swap(taken);
    return *this;
  }
  void swap(LargeArray& other) noexcept {
    std::swap(items_, other.items_);
    std::swap(size_, other.size_);
    std::swap(isReserved_, other.isReserved_);
  }

  bool empty() const { return size_ == 0; }
  size_t size() const { return size_; }
  size_t bytes() const { return size_ * sizeof(T); }
  T& operator[](size_t index) { return items_[index]; }
  const T& operator[](size_t index) const { return items_[index]; }
  T* begin() { return items_; }
  T* end() { return items_ + size_; }
  const T* begin() const { return items_; }
  const T* end() const { return items_ + size_; }

 private:
  T* items_ = nullptr;
  size_t size_ = 0;
  bool isReserved_ = false;
};

}  // namespace qvdbase::platform
