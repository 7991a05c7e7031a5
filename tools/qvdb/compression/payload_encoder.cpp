// Makes payloads of the contents of files.
#include "compression/payload_encoder.h"

#ifdef QVDB_HAS_ZSTD
#include <zstd.h>
#endif

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "format/big_endian.h"
#include "streams/failure.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

constexpr size_t kPiece = 128 * 1024;

void storeLittleEndian(std::byte* to, uint32_t value) {
  for (int i = 0; i < 4; ++i) to[i] = static_cast<std::byte>(value >> (8 * i));
}

}  // namespace

#ifdef QVDB_HAS_ZSTD

struct PayloadEncoder::Stream {
  Stream() : context(ZSTD_createCCtx()), out(kPiece) {
    if (context == nullptr) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, 3);
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
  }
  ~Stream() { ZSTD_freeCCtx(context); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  ZSTD_CCtx* context;
  std::vector<std::byte> out;
};

void PayloadEncoder::compressOn(std::span<const std::byte> contents, bool isEnd) {
  ZSTD_inBuffer in = {contents.data(), contents.size(), 0};
  for (;;) {
    ZSTD_outBuffer out = {stream_->out.data(), stream_->out.size(), 0};
    const size_t left =
        ZSTD_compressStream2(stream_->context, &out, &in, isEnd ? ZSTD_e_end : ZSTD_e_continue);
    if (ZSTD_isError(left) != 0) {
      throw Failure(std::string("cannot compress: ") + ZSTD_getErrorName(left));
    }
    pass(std::span(stream_->out).first(out.pos));
    if (isEnd ? left == 0 : in.pos == in.size) return;
  }
}

#else

struct PayloadEncoder::Stream {};

void PayloadEncoder::compressOn(std::span<const std::byte>, bool) {}

#endif

void PayloadEncoder::requireCompression() {
#ifndef QVDB_HAS_ZSTD
  throw Failure("this qvdb was built without zstd; import without --compress");
#endif
}

PayloadEncoder::PayloadEncoder(const ListKey& key, bool compress) : key_(key), compress_(compress) {
  if (compress) requireCompression();
}

PayloadEncoder::~PayloadEncoder() = default;
PayloadEncoder::PayloadEncoder(PayloadEncoder&&) noexcept = default;
PayloadEncoder& PayloadEncoder::operator=(PayloadEncoder&&) noexcept = default;

// A file with such contents would be taken for one that is coded, and so it has to be.
bool PayloadEncoder::looksCoded(std::span<const std::byte> contents) const {
  return isKey(key_) && contents.size() >= coded::kHeadSize &&
         std::memcmp(contents.data(), coded::kMark.data(), coded::kMark.size()) == 0 &&
         std::memcmp(contents.data() + coded::kKey, key_.data(), key_.size()) == 0;
}

void PayloadEncoder::pass(std::span<const std::byte> bytes) {
  if (bytes.empty()) return;
  written_ += bytes.size();
  take_(bytes);
}

void PayloadEncoder::start(bool isCompressed) {
  state_ = State::coded;
  isCompressed_ = isCompressed;
  std::array<std::byte, coded::kHeadSize> head;
  std::memcpy(head.data(), coded::kMark.data(), coded::kMark.size());
  head[coded::kMethod] =
      static_cast<std::byte>(isCompressed ? coded::Method::zstd : coded::Method::unchanged);
  std::memcpy(head.data() + coded::kKey, key_.data(), key_.size());
  pass(head);
  if (isCompressed && !stream_) stream_ = std::make_unique<Stream>();
}

void PayloadEncoder::begin(Take take) {
#ifdef QVDB_HAS_ZSTD
  if (stream_) ZSTD_CCtx_reset(stream_->context, ZSTD_reset_session_only);
#endif
  take_ = std::move(take);
  state_ = State::atStart;
  read_ = written_ = 0;
}

void PayloadEncoder::piece(std::span<const std::byte> contents) {
  if (contents.empty()) return;
  if (state_ == State::atStart) {
    state_ = State::unchanged;
    if (compress_ || looksCoded(contents)) start(compress_);
  }
  read_ += contents.size();
  if (state_ == State::coded && isCompressed_) return compressOn(contents, false);
  pass(contents);
}

// What compresses too well gets a frame that decoders skip, so that it stays within the ratio that
// readers allow.
void PayloadEncoder::end() {
  if (state_ != State::coded) return;
  if (isCompressed_) {
    compressOn({}, true);
    const uint64_t least = read_ / coded::kLargestRatio + 1;
    const uint64_t most = written_ + coded::kLengthSize;
    if (most < least) {
      std::array<std::byte, coded::kSkippedHeadSize> frame;
      uint64_t fill = least - most;
      storeLittleEndian(frame.data(), coded::kSkippedFrame);
      storeLittleEndian(frame.data() + sizeof(uint32_t), static_cast<uint32_t>(fill));
      pass(frame);
      const std::vector<std::byte> zeros(static_cast<size_t>(std::min<uint64_t>(fill, kPiece)));
      for (; fill > 0; fill -= std::min<uint64_t>(fill, zeros.size())) {
        pass(std::span(zeros).first(static_cast<size_t>(std::min<uint64_t>(fill, zeros.size()))));
      }
    }
  }
  std::array<std::byte, coded::kLengthSize> length;
  storeBigEndian(reinterpret_cast<unsigned char*>(length.data()), read_);
  pass(length);
}

std::span<const std::byte> PayloadEncoder::encode(std::span<const std::byte> contents) {
  const bool mustBeCoded = looksCoded(contents);
  if (!compress_ && !mustBeCoded) return contents;
  whole_.clear();
  begin([this](std::span<const std::byte> more) {
    whole_.insert(whole_.end(), more.begin(), more.end());
  });
  piece(contents);
  end();
  return mustBeCoded || whole_.size() < contents.size() ? std::span<const std::byte>(whole_)
                                                        : contents;
}

}  // namespace qvdb::tool
