// Gathered writes: neighbouring small writes of one call, sent to the host as one.
//
// There is one run of pending bytes. A write that does not follow it, through the same file number
// and right after its end, sends it off first: so the order in which writes reach a file is the
// order in which they were made, across files too. The run remembers where each of its writes
// begins, so that a run which the host takes only in part ends as the writes would have, one by
// one.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/handles/open_files.h"

namespace qvdbase::platform {

// The counts of bytes moved, as they were when a write was refused.
struct RefusedWrite {
  uint32_t written;  // by that write
  uint32_t read;     // by the last read before it
};

class GatheredWrites {
 public:
  static constexpr size_t kMostBytes = size_t{64} << 10;
  static constexpr size_t kMostWrites = 64;  // a new database is 38 writes, a record 12

  struct PendingWrite {
    size_t begin;  // within the pending bytes
    size_t end;
    uint32_t readBefore;
  };

  // Where they are gathered.
  struct Buffers {
    PendingWrite writes[kMostWrites];
    uint8_t bytes[kMostBytes];
  };
  void useBuffers(Buffers* buffers) { buffers_ = buffers; }

  // Whether there are pending bytes of this file, in all or in a part of it.
  bool hold(const FileEntry* entry) const { return length_ != 0 && entry_ == entry; }
  bool hold(const FileEntry* entry, int64_t position, size_t count) const {
    if (!hold(entry)) return false;
    return position < end() &&
           (position >= position_ || static_cast<uint64_t>(position_ - position) < count);
  }

  // Whether the pending bytes were written through this number and end at its position.
  bool endAt(const OpenFile& file) const {
    return length_ != 0 && file_ == &file && file.position == end();
  }

  // Whether a write at the file's position can join the pending bytes: it continues them, or there
  // are none, and it is small.
  bool canTake(const OpenFile& file, size_t count) const {
    assert(buffers_ != nullptr && "a scope without buffers");
    if (count > kMostBytes / 2) return false;
    return length_ == 0 ||
           (endAt(file) && count <= kMostBytes - length_ && writeCount_ < kMostWrites);
  }

  // Adds a write at the file's position for which canTake holds. `readBefore` is what the last read
  // before it has moved.
  void add(OpenFile& file, const void* buffer, size_t count, uint32_t readBefore) {
    assert(canTake(file, count) && "a write joins a run that it does not continue");
    assert(file.position >= 0 && "a write begins before the file");
    if (length_ == 0) {
      file_ = &file;
      entry_ = file.entry;
      position_ = file.position;
      writeCount_ = 0;
    }
    const size_t begin = length_;
    std::memcpy(buffers_->bytes + begin, buffer, count);
    length_ += count;
    buffers_->writes[writeCount_++] = {begin, length_, readBefore};
  }

  // Adds bytes that no call writes, between two writes. There are pending bytes before them, and
  // canTake holds for them and the write after them together, which must follow.
  void addUnchanged(const void* bytes, size_t count) {
    assert(length_ != 0 && length_ == buffers_->writes[writeCount_ - 1].end &&
           "no field is before a gap");
    std::memcpy(buffers_->bytes + length_, bytes, count);
    length_ += count;
  }

  // Sends the pending bytes, of which there are some, to the host. False when it did not take them
  // all: the rest is gone, the file's position is where the write that was refused has stopped, and
  // *refused is stored.
  bool flush(RefusedWrite* refused);

  // What is pending, and where it belongs.
  const FileEntry* entry() const { return length_ != 0 ? entry_ : nullptr; }
  int64_t position() const { return position_; }
  size_t length() const { return length_; }
  const uint8_t* bytes() const { return buffers_->bytes; }

 private:
  int64_t end() const { return position_ + static_cast<int64_t>(length_); }
  RefusedWrite stopAt(size_t taken);

  OpenFile* file_ = nullptr;
  FileEntry* entry_ = nullptr;
  int64_t position_ = 0;
  size_t length_ = 0;  // 0 while nothing is pending
  size_t writeCount_ = 0;
  Buffers* buffers_ = nullptr;
};

}  // namespace qvdbase::platform
