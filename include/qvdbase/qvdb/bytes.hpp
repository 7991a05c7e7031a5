// qvdb::ByteView: the bytes that a function of the layer is given.
#ifndef QVDBASE_QVDB_BYTES_HPP
#define QVDBASE_QVDB_BYTES_HPP

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

// A view of bytes that belong to the caller, who keeps them for as long as the call lasts. It is
// made without a word from
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
  constexpr ByteView() noexcept = default;

  // `size` bytes from `bytes` on; null goes with 0 only.
  constexpr ByteView(const std::byte* bytes, size_t size) noexcept : bytes_(bytes, size) {}

  template <detail::ByteRange Range>
  ByteView(Range&& range) noexcept
      : bytes_(std::as_bytes(std::span(std::ranges::data(range), std::ranges::size(range)))) {}

  template <detail::ConstCharArray Array>
  ByteView(Array& text) noexcept : bytes_(std::as_bytes(std::span(text, lengthOf(text)))) {}

  template <detail::CharBuffer Array>
  ByteView(Array& buffer) = delete;

  template <detail::CharPointer Pointer>
  ByteView(const Pointer& text) noexcept
      : bytes_(std::as_bytes(std::span(std::string_view(text)))) {}

  constexpr const std::byte* data() const noexcept { return bytes_.data(); }
  constexpr size_t size() const noexcept { return bytes_.size(); }
  constexpr bool empty() const noexcept { return bytes_.empty(); }
  constexpr const std::byte* begin() const noexcept { return data(); }
  constexpr const std::byte* end() const noexcept { return data() + size(); }
  constexpr std::span<const std::byte> span() const noexcept { return bytes_; }

 private:
  // A const array without a zero at its end is no literal: all of it counts.
  template <typename Char, size_t kSize>
  static constexpr size_t lengthOf(const Char (&text)[kSize]) noexcept {
    return text[kSize - 1] == Char{} ? kSize - 1 : kSize;
  }

  std::span<const std::byte> bytes_;
};

}  // namespace qvdb

#endif
