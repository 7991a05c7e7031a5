// Reads the contents of a file out of its payload, which may be compressed.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "compression/payload_encoder.h"
#include "streams/delivery.h"
#include "streams/failure.h"

namespace qvdb::tool {

// Thrown for a payload out of which the contents cannot be read.
class DamagedContents : public Failure {
  using Failure::Failure;
};

// Nothing in a payload is trusted: neither its length nor what it says of that of the contents.
class CodedPayload {
 public:
  // `raw` reads the payload, which has `size` bytes; `name` is for messages. Throws
  // DamagedContents, Failure for what this tool cannot decompress, and what `raw` throws.
  CodedPayload(const ListKey& key, uint64_t size, PieceReader raw, std::string name);
  // That of a record, which must outlive this.
  CodedPayload(const ListKey& key, const Record& record);
  ~CodedPayload();
  CodedPayload(CodedPayload&&) noexcept;
  CodedPayload& operator=(CodedPayload&&) noexcept;

  // How many bytes the contents have.
  uint64_t size() const { return length_; }

  // Reads the contents as Record::read does. Going on where the last call ended is fast; everything
  // before has to be read again where it is not.
  size_t read(uint64_t offset, std::span<std::byte> buffer);

 private:
  struct Stream;

  [[noreturn]] void failDamaged(const char* why) const;
  void restart();
  size_t decode(std::span<std::byte> buffer);
  void expectEnd();
  bool refill();

  [[maybe_unused]] uint64_t size_;  // read only where there is zstd
  PieceReader raw_;
  std::string name_;
  uint64_t length_;
  uint64_t start_ = 0;  // of the data in the payload
  bool isCompressed_ = false;
  uint64_t position_ = 0;  // in the contents
  std::unique_ptr<Stream> stream_;
};

}  // namespace qvdb::tool
