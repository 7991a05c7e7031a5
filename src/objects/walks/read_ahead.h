// What a walk reads ahead of the record that it delivers: a batch of records, or a piece of the
// file.
#pragma once

#include <qvdbase/qvdb/record.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include "objects/open_database.h"
#include "objects/records.h"
#include "objects/walks/chain_walker.h"
#include "platform/transfer/mirror.h"

namespace qvdb::detail {

// How much of each payload is read ahead.
struct Loading {
  uint32_t most = 0;                                        // bytes of one payload
  uint32_t largest = std::numeric_limits<uint32_t>::max();  // payloads above it are left out
  Id table;

  bool isNone() const { return most == 0; }
  uint32_t of(uint32_t size) const { return size > largest ? 0 : std::min(size, most); }
};

// The next headers of a chain, and their payloads where these are wanted. Batches are small at
// first, for callers who want only the first records.
class ReadBatch {
 public:
  ReadBatch() = default;
  explicit ReadBatch(const Loading& loading) : loading_(loading) {}

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
  bool take(RecordInfo* info, std::span<const std::byte>* payload);

 private:
  static constexpr size_t kFirst = 4;

  bool readOne(const Operation& operation, ChainWalker& chain);
  void leaveFor(const ChainWalker& before, ChainWalker& chain);
  void readPayload(const Operation& operation, const recordPart1& header, int64_t position);
  template <typename Read>
  bool tryToRead(Read read);

  Loading loading_;
  size_t size_ = kFirst;  // records in the next batch
  bool isForward_ = true;
  std::vector<RecordInfo> records_;
  std::vector<std::byte> payloads_;  // one after the other
  size_t at_ = 0;                    // of the next record
  size_t payloadAt_ = 0;             // of its payload
  std::exception_ptr failure_;       // of the payload after the batch
};

// A large piece of the file, out of which a walk takes records that lie close together in the order
// of the file: one read brings hundreds of them, and nothing is decoded ahead. It outlives the
// transfer scope in which it was read, unlike the windows of the platform. Where the file has a
// mirror the piece is a part of that, and nothing is copied.
class FilePiece {
 public:
  // Reads the piece that begins with the chain's next record; on the way back, the one that ends
  // with it. False when there is none.
  bool read(int16_t db, const ChainWalker& chain);

  // The next record. False when its header is not in the piece, and when none follows.
  bool take(ChainWalker& chain, RecordInfo* info) {
    const int64_t position = chain.nextPosition();
    const uint64_t offset = offsetOf(position);
    return offset < heads_ && take(chain, data_ + offset, position, info);
  }

  // The same with what is wanted of its payload, all of which must be in the piece, too. It is
  // returned where it lies. One that does not agree with its checksum is left to the reader that
  // reports it.
  bool take(ChainWalker& chain, const Loading& loading, RecordInfo* info,
            std::span<const std::byte>* payload);

  // Gives up what is in memory.
  void release() { pinned_.release(); }

  // Whether so many records came of it that another piece is worth reading.
  bool wasWorthIt() const { return taken_ >= kLeastTaken; }

 private:
  static constexpr size_t kLeastTaken = 16;

  uint64_t offsetOf(int64_t position) const {
    return static_cast<uint64_t>(position) - static_cast<uint64_t>(start_);
  }

  bool take(ChainWalker& chain, const unsigned char* head, int64_t position, RecordInfo* info) {
    if (chain.pass(head) != ChainWalker::Step::record) return false;
    storeInfo(head, position, info);
    ++taken_;
    return true;
  }

  static bool show(const unsigned char* head, uint32_t loaded,
                   std::span<const std::byte>* payload) {
    *payload = std::as_bytes(std::span(head + qvdbase::format::record::kData, loaded));
    return true;
  }

  bool isSound(const RecordInfo& info, Id table) const;
  bool takeIfSound(ChainWalker& chain, Id table, RecordInfo* info,
                   std::span<const std::byte>* payload);
  void setLength(uint32_t length);
  bool pin(int16_t db, const ChainWalker& chain);

  const unsigned char* data_ = nullptr;  // of the bytes in one of these
  qvdbase::platform::PinnedBytes pinned_;
  std::unique_ptr<unsigned char[]> bytes_;
  int64_t start_ = 0;
  uint32_t length_ = 0;
  uint32_t heads_ = 0;  // the places in it at which a whole header can begin: the first so many
  size_t taken_ = 0;    // records
};

}  // namespace qvdb::detail
