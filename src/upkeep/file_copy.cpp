// All bytes of a file in a new one: shared, copied by the host, or read and written.
#include "upkeep/file_copy.h"

#include <algorithm>

namespace qvdbase::upkeep {

namespace {

size_t pieceOf(int64_t begin, int64_t end) {
  return static_cast<size_t>(std::min<int64_t>(end - begin, FileCopy::kPiece));
}

}  // namespace

bool FileCopy::share() {
  return target_.file().shareContentsOf(source_.file());
}

bool FileCopy::copy(const std::function<void()>& step) {
  const int64_t size = source().size();
  setLength(size);
  for (int64_t position = 0; position < size;) {
    const auto hole = source().nextHole(position);
    const int64_t end = hole ? std::clamp(hole->begin, position, size) : size;
    if (!copyPart(position, end, step)) return false;
    position = hole ? std::max(end, hole->end) : size;
  }
  return true;
}

bool FileCopy::copyPart(int64_t begin, int64_t end, const std::function<void()>& step) {
  while (begin < end) {
    const size_t count = pieceOf(begin, end);
    if (!copyPiece(begin, count)) return false;
    begin += static_cast<int64_t>(count);
    step();
  }
  return true;
}

// Where the host has not copied all of it, reading and writing finds out why.
bool FileCopy::copyPiece(int64_t position, size_t count) {
  if (copiesInHost_ && target_.file().copyFrom(source_.file(), position, count) == count) {
    return true;
  }
  copiesInHost_ = false;
  if (!readSource(position, count)) return false;
  write(position, count);
  return true;
}

bool FileCopy::bringUpToDate() {
  const int64_t size = source().size();
  setLength(size);
  for (int64_t position = 0; position < size;) {
    const size_t count = pieceOf(position, size);
    if (!updatePiece(position, count)) return false;
    position += static_cast<int64_t>(count);
  }
  return true;
}

bool FileCopy::updatePiece(int64_t position, size_t count) {
  if (!readSource(position, count)) return false;
  platform::ReadOnlyFile copy;
  copy.share(target_.file().entry());
  copied_.resize(count);
  const bool isSame = copy.readAt(position, copied_.data(), count) == count && copied_ == bytes_;
  if (!isSame) write(position, count);
  return true;
}

bool FileCopy::readSource(int64_t position, size_t count) {
  bytes_.resize(count);
  return source().readAll(position, bytes_.data(), count);
}

void FileCopy::write(int64_t position, size_t count) {
  if (!target_.file().writeAt(position, bytes_.data(), count)) target_.failWriting();
}

void FileCopy::setLength(int64_t length) {
  if (!target_.file().setLength(length)) target_.failWriting();
}

}  // namespace qvdbase::upkeep
