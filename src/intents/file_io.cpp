// Reading and writing an open file at any position.
#include "intents/file_io.h"

#include <algorithm>
#include <cstring>

#include "platform/handles/open_files.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::intents {
namespace {

// Puts the position of a number back.
class KeptPosition {
 public:
  KeptPosition(platform::OpenFile* file, int64_t position) : file_(file), kept_(file->position) {
    file_->position = position;
  }
  ~KeptPosition() { file_->position = kept_; }
  KeptPosition(const KeptPosition&) = delete;
  KeptPosition& operator=(const KeptPosition&) = delete;

 private:
  platform::OpenFile* file_;
  int64_t kept_;
};

constexpr uint32_t kPiece = 1u << 30;

}  // namespace

OpenReader::OpenReader(int16_t file) : file_(file), size_(lengthOf(file)) {}

bool OpenReader::read(int64_t position, void* buffer, size_t count) const {
  return readAt(file_, position, buffer, count);
}

bool OpenReader::readFromMirror(int64_t position, void* buffer, size_t count) const {
  const platform::OpenFile* open = platform::findOpenFile(file_);
  if (open == nullptr || open->mirror == nullptr) return false;
  const uint8_t* bytes = open->mirror->obtain(open->descriptor, position, count);
  if (bytes != nullptr) std::memcpy(buffer, bytes, count);
  return bytes != nullptr;
}

int64_t lengthOf(int16_t file) {
  const platform::OpenFile* open = platform::findOpenFile(file);
  int64_t length = 0;
  return open != nullptr && platform::fileLength(*open, &length) ? length : -1;
}

bool readAt(int16_t file, int64_t position, void* buffer, size_t count) {
  platform::OpenFile* open = platform::findOpenFile(file);
  if (open == nullptr) return false;
  const KeptPosition kept(open, position);
  auto* to = static_cast<unsigned char*>(buffer);
  while (count > 0) {
    const auto piece = static_cast<uint32_t>(std::min<size_t>(count, kPiece));
    uint32_t moved = 0;
    if (!platform::readAtPosition(*open, to, piece, &moved)) return false;
    to += piece;
    count -= piece;
  }
  return true;
}

bool writeAt(int16_t file, int64_t position, const void* bytes, size_t count) {
  platform::OpenFile* open = platform::findOpenFile(file);
  if (open == nullptr) return false;
  const KeptPosition kept(open, position);
  const auto* from = static_cast<const unsigned char*>(bytes);
  while (count > 0) {
    const auto piece = static_cast<uint32_t>(std::min<size_t>(count, kPiece));
    uint32_t moved = 0;
    if (!platform::writeAtPosition(*open, from, piece, &moved)) return false;
    from += piece;
    count -= piece;
  }
  return platform::flushTransfers();
}

}  // namespace qvdbase::intents
