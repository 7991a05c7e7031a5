// SHA-256, by a library.
#include "backup/sha256.h"

#include <algorithm>

#include "streams/failure.h"
#include "streams/text.h"

#ifdef QVDB_HAS_NETTLE
#include <nettle/sha2.h>
#endif

namespace qvdb::tool {

#ifdef QVDB_HAS_NETTLE
bool canHash() {
  return true;
}

std::string sha256(std::span<const std::byte> bytes) {
  sha256_ctx context;
  sha256_init(&context);
  sha256_update(&context, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
  std::string digest(SHA256_DIGEST_SIZE, '\0');
  sha256_digest(&context, digest.size(), reinterpret_cast<uint8_t*>(digest.data()));
  return hexDigits(digest);
}
#else
bool canHash() {
  return false;
}

std::string sha256(std::span<const std::byte>) {
  throw Failure("cannot hash: this qvdb was built without the library nettle");
}
#endif

bool isHash(const std::string& text) {
  return text.size() == 64 && std::ranges::all_of(text, [](char each) {
           return (each >= '0' && each <= '9') || (each >= 'a' && each <= 'f');
         });
}

}  // namespace qvdb::tool
