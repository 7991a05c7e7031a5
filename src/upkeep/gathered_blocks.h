// Blocks of a database on their way into another one, in the order that they are to have there.
//
// After changes that order leads to and fro in the source. So as many blocks as fit into 64 MiB are
// laid out in memory, each at its place, and read in the order of the source: neighbours together,
// also over gaps that cost less to read than another call. Then the links are set, and all is
// written in large pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/host/large_array.h"
#include "products/buffered_output.h"
#include "recovery/survey/byte_source.h"
#include "support/keyed_numbers.h"
#include "upkeep/live_database.h"

namespace qvdbase::upkeep {

// Which records of a copy get a new checksum of their payload.
struct Protection {
  bool unprotected = false;       // those that have none
  bool changedElsewhere = false;  // those whose checksum is of another time or length
};

// The size of the block that a block becomes.
int64_t sizeInProtectedCopy(const LiveBlock& block);
inline int64_t sizeInCopy(const LiveBlock& block, const Protection& protection) {
  return protection.unprotected ? sizeInProtectedCopy(block) : block.claimedEnd() - block.position;
}

class GatheredBlocks {
 public:
  // Both must outlive the object. The blocks go to where the output is. Checksums of payloads go
  // along as they are.
  GatheredBlocks(const survey::ByteSource& source, const Protection& protection,
                 products::BufferedOutput* output)
      : source_(source), protection_(protection), output_(*output) {}

  // Adds a block of the source: the next one of its table, if it is a record. It must have been
  // found sound, and stay where it is until finish(). False when the source cannot be read, or has
  // other bytes than it had.
  bool add(const LiveBlock& block);

  // Writes what is left.
  bool finish();

  // The checksums that were made.
  uint64_t checksumsMade() const { return made_; }

 private:
  // Blocks in the memory; the key is the position in the source, the note the place in `image_`.
  using Blocks = std::vector<support::KeyedNumber>;

  const LiveBlock& blockOf(const support::KeyedNumber& each) const { return *blocks_[each.number]; }
  bool write();
  bool readAll();
  bool readPiece(const support::KeyedNumber* begin, const support::KeyedNumber* end);
  void copyRuns(const support::KeyedNumber* begin, const support::KeyedNumber* end);
  bool isOneRun(const support::KeyedNumber* begin, const support::KeyedNumber* end) const;
  size_t sizeOf(const LiveBlock& block) const {
    return static_cast<size_t>(sizeInCopy(block, protection_));
  }
  bool finishBlock(const LiveBlock& block, unsigned char* bytes);
  bool makesChecksum(const LiveBlock& block, const unsigned char* head,
                     const unsigned char* present) const;
  bool readChecksum(const LiveBlock& block, unsigned char* sum) const;
  bool setHead(const LiveBlock& block, unsigned char* bytes);
  bool copyLarge(const LiveBlock& block);

  const survey::ByteSource& source_;
  const Protection protection_;
  products::BufferedOutput& output_;
  std::vector<const LiveBlock*> blocks_;  // in the new order
  size_t size_ = 0;                       // of all of them
  Blocks order_;                          // in that of the source
  platform::LargeArray<unsigned char> image_;
  std::vector<unsigned char> piece_;  // of the source
  uint64_t made_ = 0;                 // checksums
  int64_t here_ = 0;                  // where the block goes whose head is set next
  int64_t previous_ = 0;              // where the record before went
};

}  // namespace qvdbase::upkeep
