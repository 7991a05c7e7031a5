// What a walk reads ahead of the record that it delivers: a batch of records, or a piece of the
// file.
#pragma once

#include <qvdbase/qvdb/record.hpp>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <span>
#include <vector>

#include "objects/chain_walker.h"
#include "objects/open_database.h"
#include "objects/records.h"

namespace qvdb::detail {

// The next headers of a chain, and their payloads where these are wanted. Batches are small at
// first, for callers who want only the first records.
class ReadBatch {
 public:
  ReadBatch() = default;
  explicit ReadBatch(Load load) : load_(load) {}

  // Reads the next batch. It ends where the chain ends or is damaged, and before a payload that
  // cannot be read; throws that error when nothing precedes it.
  void read(const Operation& operation, ChainWalker& chain);

  // Empties the batch. Throws the error of the payload that ended it.
  void finish();

  // Forgets that error: the payload is no longer the next one.
  void forgetFailure() { failure_ = nullptr; }

  bool isEmpty() const { return records_.empty(); }

  // Whether there are many records in it, close together in the order of the file.
  bool isDense() const;

  // The next record. False at the end of the batch.
  bool take(RecordInfo* info, std::span<const std::byte>* payload) {
    if (at_ == records_.size()) return false;
    *info = records_[at_++];
    if (load_ == Load::headers) return true;
    *payload = std::span<const std::byte>(payloads_).subspan(payloadAt_, info->size);
    payloadAt_ += info->size;
    return true;
  }

 private:
  static constexpr size_t kFirst = 4;

  bool readOne(const Operation& operation, ChainWalker& chain);
  void readPayload(const Operation& operation, const recordPart1& header, int64_t position);
  template <typename Read>
  bool tryToRead(Read read);

  Load load_ = Load::headers;
  size_t size_ = kFirst;  // records in the next batch
  std::vector<RecordInfo> records_;
  std::vector<std::byte> payloads_;  // one after the other
  size_t at_ = 0;                    // of the next record
  size_t payloadAt_ = 0;             // of its payload
  std::exception_ptr failure_;       // of the payload after the batch
};

// A large piece of the file, out of which a walk takes records that lie close together in the order
// of the file: one read brings hundreds of them, and nothing is decoded ahead. It outlives the
// transfer scope in which it was read, unlike the windows of the platform.
class FilePiece {
 public:
  // Reads the piece that begins with the chain's next record. False when there is none.
  bool read(int16_t db, const ChainWalker& chain);

  // The next record. False when it is not in the piece as far as it is wanted, and when none
  // follows. The payload is returned where it lies.
  bool take(ChainWalker& chain, Load load, RecordInfo* info, std::span<const std::byte>* payload) {
    const int64_t position = chain.nextPosition();
    const unsigned char* head = at(position, qvdbase::format::record::kData);
    if (head == nullptr) return false;
    const auto size =
        qvdbase::format::loadBigEndian<uint32_t>(head + qvdbase::format::record::kDataLength);
    const unsigned char* bytes = nullptr;
    if (load == Load::payloads) {
      bytes = at(position + qvdbase::format::record::kData, size);
      if (bytes == nullptr) return false;
    }
    if (chain.pass(head) != ChainWalker::Step::record) return false;
    storeInfo(head, position, info);
    if (bytes != nullptr) *payload = std::as_bytes(std::span(bytes, size));
    ++taken_;
    return true;
  }

  // Whether so many records came of it that another piece is worth reading.
  bool wasWorthIt() const { return taken_ >= kLeastTaken; }

 private:
  static constexpr size_t kLeastTaken = 16;

  // The bytes at a position of the file; null when not all of them are in the piece.
  const unsigned char* at(int64_t position, uint32_t count) const {
    const auto offset = static_cast<uint64_t>(position) - static_cast<uint64_t>(start_);
    if (offset > length_ || count > length_ - offset) return nullptr;
    return bytes_.data() + offset;
  }

  std::vector<unsigned char> bytes_;
  int64_t start_ = 0;
  uint32_t length_ = 0;
  size_t taken_ = 0;  // records
};

}  // namespace qvdb::detail
