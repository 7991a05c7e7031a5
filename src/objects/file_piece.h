// A piece of the file in memory, for a walk whose records lie close together in the order of the
// file: one read brings hundreds of them, headers and payloads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qvdb::detail {

class FilePiece {
 public:
  // Reads what the file has from a position on, up to the piece's size. False when there is
  // nothing.
  bool read(int16_t db, int64_t position);

  // The bytes at a position of the file; null when not all of them are in the piece.
  const unsigned char* at(int64_t position, uint32_t count) const {
    const auto offset = static_cast<uint64_t>(position) - static_cast<uint64_t>(start_);
    if (offset > length_ || count > length_ - offset) return nullptr;
    return bytes_.data() + offset;
  }

 private:
  std::vector<unsigned char> bytes_;
  int64_t start_ = 0;
  uint32_t length_ = 0;
};

}  // namespace qvdb::detail
