// SHA-256, by a library.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace qvdb::tool {

using Sha256Digest = std::array<std::byte, 32>;

// Whether the tool was built with the library. Without it what computes a hash throws Failure.
bool canHash();

// 64 hexadecimal digits in small letters.
std::string hexOf(const Sha256Digest& digest);

// The same of the hash of these bytes.
std::string sha256(std::span<const std::byte> bytes);

// Whether the text is such a hash.
bool isHash(std::string_view text);

class Sha256 {
 public:
  // Throws Failure without the library.
  Sha256();
  ~Sha256();
  Sha256(Sha256&&) noexcept;
  Sha256& operator=(Sha256&&) noexcept;

  void add(std::span<const std::byte> bytes);

  // The digest of all that was added; the next one begins with nothing.
  Sha256Digest finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qvdb::tool
