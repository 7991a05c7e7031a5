// Reading a piece of the file.
#include "objects/file_piece.h"

#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr uint32_t kPieceSize = 128 * 1024;

}  // namespace

bool FilePiece::read(int16_t db, int64_t position) {
  bytes_.resize(kPieceSize);
  start_ = position;
  length_ = 0;
  if (!support::seekTo(db, position)) return false;
  // At the file's end it is less than was asked for.
  static_cast<void>(support::readFile(db, bytes_.data(), kPieceSize, &length_));
  return length_ > 0;
}

}  // namespace qvdb::detail
