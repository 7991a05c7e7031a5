// SHA-256 by nettle, which uses the processor's own instructions.
#include "streams/sha256.h"

#ifdef QVDB_HAS_NETTLE
#include <nettle/sha2.h>
#endif

#include <algorithm>

#include "streams/failure.h"
#include "streams/text.h"

namespace qvdb::tool {

std::string hexOf(const Sha256Digest& digest) {
  return hexDigits({reinterpret_cast<const char*>(digest.data()), digest.size()});
}

std::string sha256(std::span<const std::byte> bytes) {
  Sha256 all;
  all.add(bytes);
  return hexOf(all.finish());
}

bool isHash(std::string_view text) {
  return text.size() == 64 && std::ranges::all_of(text, [](char each) {
           return (each >= '0' && each <= '9') || (each >= 'a' && each <= 'f');
         });
}

#ifdef QVDB_HAS_NETTLE

struct Sha256::State {
  sha256_ctx context;
};

bool canHash() {
  return true;
}

Sha256::Sha256() : state_(std::make_unique<State>()) {
  sha256_init(&state_->context);
}

void Sha256::add(std::span<const std::byte> bytes) {
  sha256_update(&state_->context, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
}

// Nettle begins again by itself.
Sha256Digest Sha256::finish() {
  Sha256Digest digest{};
  sha256_digest(&state_->context, digest.size(), reinterpret_cast<uint8_t*>(digest.data()));
  return digest;
}

#else

struct Sha256::State {};

bool canHash() {
  return false;
}

Sha256::Sha256() {
  throw Failure("cannot hash: this qvdb was built without the library nettle");
}

void Sha256::add(std::span<const std::byte>) {}

Sha256Digest Sha256::finish() {
  return {};
}

#endif

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

}  // namespace qvdb::tool
