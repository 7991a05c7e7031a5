// Mirrors: what the exclusive opener of a file has read, kept in memory from call to call.
//
// Who holds a file exclusively knows that no other process writes to it, and may remember what it
// has read. A mirror is a range of addresses as long as the file and what it may grow by, in which
// each byte that is there has the place that it has in the file. So records that cross the border
// of two pieces are side by side, and bytes go out without a copy. It is ordinary memory, filled by
// reads: unlike a mapping of the file, it cannot end the process by a signal.
//
//   1. It is filled in pieces of 64 KiB. A piece is there as a whole, as far as the file goes, or
//      not at all. What cannot be read whole is not there: the reads that follow find out why.
//   2. Every write of this process to the file passes noteWritten(), by whatever number it is made:
//      first the host has the bytes, then the mirror. What the host has not taken in full is no
//      longer there, and the file's length counts as unknown.
//   3. While bytes are handed out, their pieces are pinned. A pinned piece is never written to: a
//      write to the file makes it one that is not there, until nothing pins it. So who has the
//      bytes sees them as they were, in any thread.
//   4. It holds no more than its budget. When that is used up, reads bring nothing in, and are what
//      they are without a mirror; the end of the file, to which appends go, takes the place of
//      others. What is given back is given back in runs of 2 MiB, which are large pages.
//   5. It serves only transfers of layers that have asked for it (useMirror), while they have the
//      turn of the file. Views and other numbers read from the host.
//   6. Where a stage is used too, what is laid over is laid over copies of its bytes.
//   7. It ends with a fork: the other process may write to the file too.
//
// A program that writes to the file in spite of the lock is not seen, and what it makes of the file
// reaches nothing but results: no length that the mirror relies on is the host's.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/host/process_mark.h"

namespace qvdbase::platform {

struct FileEntry;
struct OpenFile;

class Mirror {
 public:
  static constexpr size_t kPiece = size_t{64} << 10;
  static constexpr size_t kRun = size_t{2} << 20;  // what is given back at once

  // A mirror of a file of this length, of which one user is the caller. Null where no addresses can
  // be reserved.
  static Mirror* make(int64_t length, uint64_t budget);

  // The memory is given back with the last user.
  void addUser() { users_.fetch_add(1, std::memory_order_relaxed); }
  void removeUser() {
    if (users_.fetch_sub(1, std::memory_order_acq_rel) == 1) end();
  }

  // The bytes at a place of the file, or null where not all of them are there.
  const uint8_t* find(int64_t position, uint64_t count) const {
    if (position < 0 || position > length_) return nullptr;
    const auto offset = static_cast<uint64_t>(position);
    if (count > static_cast<uint64_t>(length_) - offset) return nullptr;
    if (isWhole_) return bytes_ + offset;
    return isThere(offset, count) ? bytes_ + offset : nullptr;
  }

  // The same after reading what is missing, as far as the budget allows.
  const uint8_t* obtain(int descriptor, int64_t position, uint64_t count);

  // How far around a place the bytes are there, which has to be there itself: not looked for beyond
  // some hundred KiB unless all of the file is there.
  struct Extent {
    int64_t start;
    uint64_t length;
    const uint8_t* bytes;
  };
  Extent around(int64_t position, uint64_t count) const;

  // The file's length, or -1 while it is unknown.
  int64_t length() const { return length_; }

  // Takes over the length that the host reports.
  void setLength(int64_t length);

  // What a write of `count` bytes has changed, of which the host has taken `done`.
  void noteWritten(int64_t position, const void* bytes, uint64_t count, uint64_t done);

  // Keeps as many bytes from `position` on unchanged in memory as are there without a gap, at most
  // up to `most`. Returns their number. unpin() with the same arguments, and that number, ends it,
  // in any thread.
  uint64_t pin(int64_t position, uint64_t most);
  void unpin(int64_t position, uint64_t count);

  // Whether the file has outgrown the addresses.
  bool isOutgrown() const { return isOutgrown_; }
  // Whether no other process can have it by fork.
  bool isOwn() const { return mark_.isUnforked(); }

  uint64_t budget() const { return budgetPieces_ * kPiece; }
  void setBudget(uint64_t bytes);
  // The memory that it takes, without its tables.
  uint64_t heldBytes() const { return heldPieces_ * kPiece; }

 private:
  Mirror() = default;
  void end();

  bool isThere(uint64_t offset, uint64_t count) const;
  bool has(size_t piece) const { return (there_[piece / 64] >> (piece % 64) & 1) != 0; }
  bool isPinned(size_t piece) const;
  void drop(size_t piece);
  void dropFrom(uint64_t offset);
  void take(size_t piece);
  bool makeSpace(size_t forPiece);
  bool fill(int descriptor, size_t first, size_t last);
  void writePiece(size_t piece, uint64_t from, const uint8_t* bytes, uint64_t count,
                  uint64_t oldLength);
  uint64_t pieces(uint64_t bytes) const { return (bytes + kPiece - 1) / kPiece; }
  void adoptLength(int64_t length);

  uint8_t* bytes_ = nullptr;  // of position 0
  int64_t length_ = -1;
  uint64_t filePieces_ = 0;  // of that length
  uint64_t therePieces_ = 0;
  uint64_t heldPieces_ = 0;  // that take memory, whether they are there or not
  bool isWhole_ = false;     // all pieces of the file are there
  bool isOutgrown_ = false;
  uint64_t* there_ = nullptr;  // a bit for each piece
  uint64_t* held_ = nullptr;   // likewise
  uint32_t* pins_ = nullptr;   // of each piece; atomic
  uint64_t capacity_ = 0;      // bytes of the file that have an address
  uint64_t budgetPieces_ = 0;
  size_t hand_ = 0;  // the run that is looked at next when space is needed
  int64_t lastLength_ = 0;
  void* memory_ = nullptr;
  size_t memorySize_ = 0;
  std::atomic<uint32_t> users_ = 1;
  ProcessMark mark_;
};

// Bytes of a mirror that stay as they are for as long as this exists. It may be ended in any
// thread.
class PinnedBytes {
 public:
  PinnedBytes() = default;
  PinnedBytes(Mirror& mirror, int64_t position, uint64_t most);
  ~PinnedBytes() { release(); }
  PinnedBytes(PinnedBytes&& other) noexcept { swap(other); }
  PinnedBytes& operator=(PinnedBytes&& other) noexcept {
    swap(other);
    return *this;
  }

  const uint8_t* data() const { return bytes_; }
  uint64_t size() const { return size_; }
  void release();

 private:
  void swap(PinnedBytes& other) {
    std::swap(mirror_, other.mirror_);
    std::swap(position_, other.position_);
    std::swap(size_, other.size_);
    std::swap(bytes_, other.bytes_);
  }

  Mirror* mirror_ = nullptr;
  int64_t position_ = 0;
  uint64_t size_ = 0;
  const uint8_t* bytes_ = nullptr;
};

// ---- the mirror of an open file; the caller has the turn of the file ----

// Gives the file a mirror with this budget, or changes the budget of the one that it has. False
// where there can be none: the number is not that of a file opened exclusively, the library was
// built without cheap transfers, or no addresses can be reserved.
bool attachMirror(int16_t file, uint64_t budget);
void detachMirror(int16_t file);

// The memory that it takes.
uint64_t mirroredBytes(int16_t file);

// Transfers through this number are served from the mirror of its file, if it has one, until
// leaveMirror(). False where that is so already, and where there is nothing to use: then there is
// nothing to leave.
bool useMirror(int16_t file);
void leaveMirror(int16_t file);

// How often this process has written to the file, plus 1; 0 where no mirror is used at present, as
// others may have written to it then, and while a stage is: what is written to that is no write to
// the file.
uint64_t writesKnown(int16_t file);

// Keeps bytes of the file in memory, see Mirror::pin; none where no mirror is used at present, and
// while a stage is.
PinnedBytes pinBytes(int16_t file, int64_t position, uint64_t most);

// For the transfer layer: after each write to a file, before its entry goes, and when it is cut.
void noteWritten(FileEntry* entry, int64_t position, const void* bytes, uint64_t count,
                 uint64_t done);
void noteCut(FileEntry* entry, int64_t length);
void dropMirror(FileEntry* entry);

}  // namespace qvdbase::platform
