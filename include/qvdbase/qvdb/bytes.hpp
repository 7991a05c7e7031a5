// qvdb::ByteView: the bytes that are passed to a function of the layer.
#pragma once

#include <qvdbase/qvdb/cpp20.hpp>

#include <concepts>
#include <cstddef>
#include <ranges>
#include <span>
#include <string_view>
#include <type_traits>

namespace qvdb {

class ByteView;

namespace detail {

// The types whose objects are one byte of a payload or of text. bool is none of them.
template <typename T>
concept Character = std::same_as<T, char> || std::same_as<T, char8_t>;
template <typename T>
concept Byte = Character<T> || std::same_as<T, std::byte> || std::same_as<T, unsigned char> ||
    std::same_as<T, signed char>;

// Arrays of characters: a literal is const, a buffer is not.
template <typename T>
concept CharArray = std::is_array_v<T> && Character<std::remove_cv_t<std::remove_extent_t<T>>>;
template <typename T>
concept ConstCharArray = CharArray<T> && std::is_const_v<std::remove_extent_t<T>>;
template <typename T>
concept CharBuffer = CharArray<T> && !ConstCharArray<T>;

template <typename T>
concept ByteRange = !std::same_as<std::remove_cvref_t<T>, ByteView> &&
                    !CharArray<std::remove_reference_t<T>> && std::ranges::contiguous_range<T> &&
                    std::ranges::sized_range<T> && Byte<std::ranges::range_value_t<T>>;

template <typename T>
concept CharPointer = std::is_pointer_v<T> && std::is_convertible_v<T, const char*>;

}  // namespace detail

// A view of bytes that stay the caller's and must exist until the call returns. These convert to it
// implicitly:
//
//   any contiguous range of std::byte, char, unsigned char, signed char or char8_t: vectors,
//     strings, string views, arrays, spans;
//   a string literal: its characters, without the zero at its end;
//   a pointer to characters: those up to the first zero, as std::string_view takes them; not null.
//
// An array of characters that is not const is refused, because nothing says whether its text or all
// of it is meant: pass std::string_view(array) or std::span(array).
class ByteView {
 public:
  constexpr ByteView() noexcept = default;  // no bytes

  // `size` bytes from `bytes` on; null is allowed with 0 only.
  constexpr ByteView(const std::byte* bytes, size_t size) noexcept : bytes_(bytes, size) {}

  // The bytes of a range: a vector, string, array, span, ...
  template <detail::ByteRange Range>
  ByteView(Range&& range) noexcept
      : bytes_(std::as_bytes(std::span(std::ranges::data(range), std::ranges::size(range)))) {}

  // The characters of a literal, without the zero at its end.
  template <detail::ConstCharArray Array>
  ByteView(Array& text) noexcept : bytes_(std::as_bytes(std::span(text, lengthOf(text)))) {}

  // Refused: see above.
  template <detail::CharBuffer Array>
  ByteView(Array& buffer) = delete;

  // The characters up to the first zero; the pointer must not be null.
  template <detail::CharPointer Pointer>
  ByteView(const Pointer& text) noexcept
      : bytes_(std::as_bytes(std::span(std::string_view(text)))) {}

  // The first byte; may be null when there are none.
  constexpr const std::byte* data() const noexcept { return bytes_.data(); }

  // The number of bytes.
  constexpr size_t size() const noexcept { return bytes_.size(); }

  // Whether there are no bytes.
  constexpr bool empty() const noexcept { return bytes_.empty(); }

  // The first byte, for range-based loops.
  constexpr const std::byte* begin() const noexcept { return data(); }

  // The end of the bytes.
  constexpr const std::byte* end() const noexcept { return data() + size(); }

  // The same bytes as a span.
  constexpr std::span<const std::byte> span() const noexcept { return bytes_; }

 private:
  // A const array without a zero at its end is not a literal: all of it counts.
  template <typename Char, size_t kSize>
  static constexpr size_t lengthOf(const Char (&text)[kSize]) noexcept {
    return text[kSize - 1] == Char{} ? kSize - 1 : kSize;
  }

  std::span<const std::byte> bytes_;
};

}  // namespace qvdb
