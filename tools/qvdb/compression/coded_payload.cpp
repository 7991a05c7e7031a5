// Reads the contents of a file out of its payload.
#include "compression/coded_payload.h"

#ifdef QVDB_HAS_ZSTD
#include <zstd.h>
#endif

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "format/big_endian.h"
#include "streams/failure.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = 128 * 1024;

bool readExactly(const PieceReader& read, uint64_t offset, std::span<std::byte> buffer) {
  while (!buffer.empty()) {
    const size_t got = read(offset, buffer);
    if (got == 0) return false;
    offset += got;
    buffer = buffer.subspan(got);
  }
  return true;
}

}  // namespace

#ifdef QVDB_HAS_ZSTD

// Level 3 needs 2 MiB. A damaged payload must not ask for more than this.
constexpr int kLargestWindow = 23;  // a power of two

struct CodedPayload::Stream {
  Stream() : context(ZSTD_createDCtx()), input(kPiece) {
    if (context == nullptr) throw std::bad_alloc();
    ZSTD_DCtx_setParameter(context, ZSTD_d_windowLogMax, kLargestWindow);
  }
  ~Stream() { ZSTD_freeDCtx(context); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  ZSTD_DCtx* context;
  std::vector<std::byte> input;
  ZSTD_inBuffer in = {nullptr, 0, 0};
  uint64_t taken = 0;  // bytes of data that were read
  size_t state = 0;    // what the last step returned: 0 at the end of a frame
};

void CodedPayload::restart() {
  if (!stream_) stream_ = std::make_unique<Stream>();
  ZSTD_DCtx_reset(stream_->context, ZSTD_reset_session_only);
  stream_->in = {stream_->input.data(), 0, 0};
  stream_->taken = 0;
  stream_->state = 0;
  position_ = 0;
}

// Whether there is more data.
bool CodedPayload::refill() {
  const uint64_t end = size_ - start_ - coded::kLengthSize;
  const auto wanted = static_cast<size_t>(std::min<uint64_t>(end - stream_->taken, kPiece));
  const size_t got =
      wanted == 0 ? 0 : raw_(start_ + stream_->taken, std::span(stream_->input).first(wanted));
  stream_->taken += got;
  stream_->in = {stream_->input.data(), got, 0};
  return got > 0;
}

size_t CodedPayload::decode(std::span<std::byte> buffer) {
  Stream& stream = *stream_;
  ZSTD_outBuffer out = {buffer.data(), buffer.size(), 0};
  while (out.pos == 0) {
    if (stream.in.pos == stream.in.size && !refill()) break;
    stream.state = ZSTD_decompressStream(stream.context, &out, &stream.in);
    if (ZSTD_isError(stream.state) != 0) failDamaged(ZSTD_getErrorName(stream.state));
  }
  return out.pos;
}

void CodedPayload::expectEnd() {
  std::byte more[1];
  if (decode(more) != 0) failDamaged("it has more contents than it says");
  if (stream_->state != 0) failDamaged("it is cut off");
}

#else

struct CodedPayload::Stream {};

void CodedPayload::restart() {
  throw Failure(name_ + " is compressed, and this qvdb was built without zstd");
}
bool CodedPayload::refill() {
  return false;
}
size_t CodedPayload::decode(std::span<std::byte>) {
  return 0;
}
void CodedPayload::expectEnd() {}

#endif

CodedPayload::CodedPayload(const ListKey& key, uint64_t size, PieceReader raw, std::string name)
    : size_(size), raw_(std::move(raw)), name_(std::move(name)), length_(size) {
  if (!isKey(key) || size < coded::kHeadSize + coded::kLengthSize) return;
  std::array<std::byte, coded::kHeadSize> head;
  std::array<std::byte, coded::kLengthSize> length;
  if (!readExactly(raw_, 0, head)) return;
  if (std::memcmp(head.data(), coded::kMark.data(), coded::kMark.size()) != 0 ||
      std::memcmp(head.data() + coded::kKey, key.data(), key.size()) != 0) {
    return;
  }
  if (!readExactly(raw_, size - coded::kLengthSize, length)) failDamaged("it is cut off");
  start_ = coded::kHeadSize;
  length_ = loadBigEndian<uint64_t>(reinterpret_cast<const unsigned char*>(length.data()));
  const uint64_t data = size - coded::kHeadSize - coded::kLengthSize;
  switch (static_cast<coded::Method>(head[coded::kMethod])) {
    case coded::Method::unchanged:
      if (length_ != data) failDamaged("its length is wrong");
      return;
    case coded::Method::zstd:
      isCompressed_ = true;
      if (length_ / coded::kLargestRatio > size) failDamaged("its length is impossible");
      return;
  }
  throw Failure(name_ + " is compressed in a way that this qvdb does not know; use a newer one");
}

CodedPayload::CodedPayload(const ListKey& key, const Record& record)
    : CodedPayload(
          key, record.size(),
          [&record](uint64_t offset, std::span<std::byte> buffer) {
            return record.read(offset, buffer);
          },
          "the payload of record " + to_string(record.id())) {}

CodedPayload::~CodedPayload() = default;
CodedPayload::CodedPayload(CodedPayload&&) noexcept = default;
CodedPayload& CodedPayload::operator=(CodedPayload&&) noexcept = default;

void CodedPayload::failDamaged(const char* why) const {
  throw DamagedContents(name_ + " is damaged: what is compressed in it cannot be read: " + why +
                        "; 'qvdb dump' and 'qvdb salvage' write it as it is stored");
}

size_t CodedPayload::read(uint64_t offset, std::span<std::byte> buffer) {
  if (start_ == 0) return raw_(offset, buffer);
  if (offset >= length_) return 0;
  const auto most = static_cast<size_t>(std::min<uint64_t>(buffer.size(), length_ - offset));
  if (!isCompressed_) return raw_(start_ + offset, buffer.first(most));
  if (!stream_ || offset < position_) restart();
  std::vector<std::byte> passed;
  while (position_ < offset) {
    passed.resize(static_cast<size_t>(std::min<uint64_t>(offset - position_, kPiece)));
    const size_t got = decode(passed);
    if (got == 0) failDamaged("it is cut off");
    position_ += got;
  }
  const size_t got = decode(buffer.first(most));
  if (got == 0 && most > 0) failDamaged("it is cut off");
  position_ += got;
  if (position_ == length_) expectEnd();
  return got;
}

}  // namespace qvdb::tool
