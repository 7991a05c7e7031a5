// Numbers, names and identifiers in sentences.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace qvdbase::survey {

// One text of all parts, which are texts and numbers. They come by value: a reference to a field of
// a slot or header could be to one that is not aligned.
template <typename... Parts>
std::string joined(Parts... parts) {
  std::string text;
  const auto add = [&](const auto& part) {
    if constexpr (std::integral<std::decay_t<decltype(part)>>) {
      text += std::to_string(part);
    } else {
      text += part;
    }
  };
  (add(parts), ...);
  return text;
}

// "1 record", "2 records"; the second one for plurals that take more than an "s".
std::string counted(std::integral auto count, const char* one, const char* many) {
  return joined(count, " ", count == 1 ? one : many);
}
std::string counted(std::integral auto count, const char* thing) {
  return joined(count, " ", thing, count == 1 ? "" : "s");
}

// A name from a file, made fit to be shown: in single quotes, with backslashes before quotes and
// backslashes, and control characters as "\x" and two digits.
std::string shown(const std::string& name);

// Two lower-case digits.
std::string hexDigits(unsigned char byte);

// "0x" and 16 digits.
std::string shownId(uint64_t id);

}  // namespace qvdbase::survey
