// Numbers as header and blocks store them: most significant byte first, whatever the host's own
// order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace qvdbase::format {

namespace detail {

template <typename Unsigned, size_t... index>
Unsigned composed(const unsigned char* bytes, std::index_sequence<index...>) {
  return static_cast<Unsigned>(
      ((static_cast<uint64_t>(bytes[index]) << 8 * (sizeof(Unsigned) - 1 - index)) | ...));
}

template <typename Unsigned, size_t... index>
void decomposed(unsigned char* bytes, Unsigned value, std::index_sequence<index...>) {
  ((bytes[index] = static_cast<unsigned char>(value >> 8 * (sizeof(Unsigned) - 1 - index) & 0xFF)),
   ...);
}

}  // namespace detail

// Composed in one expression, which compilers turn into a load and a byte swap.
template <typename Unsigned>
Unsigned loadBigEndian(const unsigned char* bytes) {
  return detail::composed<Unsigned>(bytes, std::make_index_sequence<sizeof(Unsigned)>());
}

template <typename Unsigned>
void storeBigEndian(unsigned char* bytes, Unsigned value) {
  detail::decomposed(bytes, value, std::make_index_sequence<sizeof(Unsigned)>());
}

}  // namespace qvdbase::format
