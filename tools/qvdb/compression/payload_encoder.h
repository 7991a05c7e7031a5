// Makes payloads of the contents of files: compressed, or as they are.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "format/coded_payload.h"

namespace qvdb::tool {

using ListKey = std::array<uint8_t, qvdbase::format::imported::kKeySize>;

// Whether a list has a key: only then can payloads of its table be coded.
inline bool isKey(const ListKey& key) {
  return key != ListKey();
}

class PayloadEncoder {
 public:
  // Throws Failure where this tool was built without zstd.
  static void requireCompression();

  // `key` is that of the list, or none. Throws Failure as requireCompression() does where
  // `compress` is set.
  PayloadEncoder(const ListKey& key, bool compress);
  ~PayloadEncoder();
  PayloadEncoder(PayloadEncoder&&) noexcept;
  PayloadEncoder& operator=(PayloadEncoder&&) noexcept;

  // The payload for these contents, which are it where that is shorter. Valid until the next call,
  // and as long as they are.
  std::span<const std::byte> encode(std::span<const std::byte> contents);

  // The same in pieces: begin(), piece() for each, end(). What takes them gets those of the
  // payload.
  using Take = std::function<void(std::span<const std::byte>)>;
  void begin(Take take);
  void piece(std::span<const std::byte> contents);
  void end();

 private:
  enum class State : uint8_t { atStart, coded, unchanged };
  struct Stream;

  bool looksCoded(std::span<const std::byte> contents) const;
  void start(bool isCompressed);
  void pass(std::span<const std::byte> bytes);
  void compressOn(std::span<const std::byte> contents, bool isEnd);

  ListKey key_;
  bool compress_;
  std::vector<std::byte> whole_;
  Take take_;
  State state_ = State::atStart;
  bool isCompressed_ = false;
  uint64_t read_ = 0;     // bytes of contents
  uint64_t written_ = 0;  // bytes of payload
  std::unique_ptr<Stream> stream_;
};

}  // namespace qvdb::tool
