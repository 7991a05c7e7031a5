// Reading and writing at a file's position: the one place where small transfers are made cheap.
//
// All bytes that go between a file and the library pass here. Outside a transfer scope each
// transfer is a system call. A scope spans one exported call of the library; inside it reads are
// served from windows and neighbouring writes are gathered, under these rules:
//
//   1. Writes reach the host in the order in which they were made, and nothing else does. The one
//      exception: where an operation writes two fields of one header and passes over those between
//      them (writeAfterGap), the bytes between may be written again as they were read, so that the
//      fields go out together; only through a number opened with 2 or 3, while no other process can
//      write to the file.
//   2. Gathered writes are sent before anything could observe them: before a read of their bytes,
//      before the file's length is asked, before a write on another file, before a caller's
//      function is called, before the file is closed, before a scope within the scope, and at its
//      end.
//   3. Nothing that was read outlives the scope, or a call of a caller's function within it; except
//      in the mirror of a file that is open exclusively, for those who use one (mirror.h).
//   4. A gathered write that the host refuses makes the transfer that sent it fail, or the
//      end of the scope; every later write of the scope fails too, so that nothing is written
//      after a hole. A write too large to be gathered is refused where it is made, as it is
//      outside. Either way bytes, position and the counts of the call are in the end what they are
//      when each transfer is a system call; identifiers may have been drawn for what
//      was then not written.
//   5. Reading ahead never makes a read fail: bytes that a window does not get are asked for alone.
#pragma once

#include <cstdint>
#include <cstring>

#include "platform/handles/open_files.h"
#include "platform/transfer/call_state.h"

namespace qvdbase::platform {

namespace detail {
bool readElsewhere(OpenFile& file, void* buffer, uint32_t count, uint32_t* moved);
const uint8_t* viewElsewhere(const OpenFile& file, int64_t position, uint32_t count);
}  // namespace detail

// Reads `count` bytes at the position and moves it to the end of what was read. Stores the number
// of bytes read. True when it is `count`; fewer come when the file ends or the host fails.
inline bool readAtPosition(OpenFile& file, void* buffer, uint32_t count, uint32_t* moved) {
  const ServedWindow& window = file.served;
  const uint64_t offset =
      static_cast<uint64_t>(file.position) - static_cast<uint64_t>(window.start);
  if (!window.holds(offset, count)) {
    return detail::readElsewhere(file, buffer, count, moved);
  }
  if (count != 0) std::memcpy(buffer, window.bytes + offset, count);  // null goes with 0 bytes
  file.position += count;
  *moved = count;
  return true;
}

// The bytes at a place of the file where they lie in memory, without moving the position; they hold
// until the next transfer. Null outside a scope, and where not all of them can be obtained: a read
// finds out why.
inline const uint8_t* viewBytes(const OpenFile& file, int64_t position, uint32_t count) {
  const ServedWindow& window = file.served;
  const uint64_t offset = static_cast<uint64_t>(position) - static_cast<uint64_t>(window.start);
  if (!window.holds(offset, count)) {
    return detail::viewElsewhere(file, position, count);
  }
  return window.bytes + offset;
}

// The same where the bytes lie in the window that was used last; null elsewhere.
inline const uint8_t* viewServed(const OpenFile& file, int64_t position, uint32_t count) {
  const ServedWindow& window = file.served;
  const uint64_t offset = static_cast<uint64_t>(position) - static_cast<uint64_t>(window.start);
  return window.holds(offset, count) ? window.bytes + offset : nullptr;
}

// Fills a window with these bytes, when a scope is open. Changes nothing else, and never fails: the
// reads that follow find out what cannot be read.
void readAhead(const OpenFile& file, int64_t position, uint32_t count);

// Writes `count` bytes at the position and moves it to the end of what was written. Stores the
// number of bytes written. True when it is `count`, and the file is open for writing.
bool writeAtPosition(OpenFile& file, const void* buffer, uint32_t count, uint32_t* moved);

// The same, `gap` bytes after the position; for fields of one header with others between them that
// stay as they are. False also, with nothing changed, for a position beyond the largest.
bool writeAfterGap(OpenFile& file, uint32_t gap, const void* buffer, uint32_t count,
                   uint32_t* moved);

// Stores the file's length in bytes.
bool fileLength(const OpenFile& file, int64_t* length);

// The length of one exported call. Scopes nest, the inner one ending first; it is a call of its
// own, whose writes and whose end know nothing of a failure outside it. A scope that ends before
// one within it is a mistake, which is asserted; the inner one then ends with it.
class TransferScope {
 public:
  TransferScope();
  ~TransferScope();
  TransferScope(const TransferScope&) = delete;
  TransferScope& operator=(const TransferScope&) = delete;

  // Ends the scope. True when everything that was written in it is with the operating system.
  [[nodiscard]] bool end();

  // Sends what was written so far, for what must not be done before it is with the operating
  // system. True when that has it all, whatever sent it.
  [[nodiscard]] static bool completeWrites();

 private:
  friend struct CallState;
  explicit TransferScope(CallState& call);
  void leaveChain(CallState& call);

  TransferScope* outer_;
  TransferScope* resumed_ = nullptr;  // outer_, or null when this one began in a caller's function
  bool isEntered_ = false;            // not where each transfer is a system call of its own
  bool failed_ = false;
  bool ended_ = false;
  uint32_t bytesRead_ = 0;  // once it has failed: the counts as they were then
  uint32_t bytesWritten_ = 0;
};

// Steps out of the scopes that are open while a function of the caller's runs: what was written is
// sent first, and what was read is forgotten before and after.
class TransferPause {
 public:
  TransferPause();
  ~TransferPause();
  TransferPause(const TransferPause&) = delete;
  TransferPause& operator=(const TransferPause&) = delete;

 private:
  TransferScope* paused_;
};

// Sends everything that was written to the operating system and forgets what was read. True when
// the operating system has it all.
bool flushTransfers();

// Whether the library was built to make transfers cheap: false with QVDBASE_PLAIN_TRANSFERS, where
// each is a system call of its own.
bool gathersTransfers();

// Sends the writes on a file and forgets what was read of it. To be called before its last
// descriptor goes.
void forgetTransfers(const FileEntry* file);

}  // namespace qvdbase::platform
