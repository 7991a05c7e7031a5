// SHA-256, by a library.
#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace qvdb::tool {

// Whether the tool was built with the library. Without it sha256() throws Failure.
bool canHash();

// The hash of the bytes, as 64 hexadecimal digits in small letters.
std::string sha256(std::span<const std::byte> bytes);

// Whether the text is such a hash.
bool isHash(const std::string& text);

}  // namespace qvdb::tool
