// What one exported call keeps between its transfers: the window from which it is served, the bytes
// that it has read ahead, the writes that are still to be sent, and the scopes that are open.
//
// It is all in one object, reached by callState() alone, so that each thread can be given one.
#pragma once

#include <cstdint>

#include "platform/handles/open_files.h"
#include "platform/transfer/gathered_writes.h"
#include "platform/transfer/read_windows.h"

namespace qvdbase::platform {

class TransferScope;

// The bytes from which the next read can be served without further questions: the window used last,
// for the number that used it, while its file has no gathered writes. Outside a scope, and after
// anything else that could make it wrong, it holds no bytes.
struct ServedWindow {
  static constexpr uint32_t kSmallRead = 16;

  const OpenFile* file = nullptr;
  int64_t start = 0;
  uint64_t length = 0;
  uint64_t smallReads = 0;  // from offsets below this one a read of kSmallRead bytes lies inside
  const uint8_t* bytes = nullptr;

  // Whether it holds `count` bytes from an offset, counted with wrapping from its start. For the
  // sizes of fields, which are known where this is inlined, that is one comparison.
  bool holds(uint64_t offset, uint32_t count) const {
    if (count <= kSmallRead && offset < smallReads) return true;
    return offset < length && count <= length - offset;
  }
};

struct CallState {
  ServedWindow served;

  // The innermost scope that is open, and the same again, null while a caller's function runs: the
  // one in which a transfer is made.
  TransferScope* innermost = nullptr;
  TransferScope* current = nullptr;

  ReadWindows windows;
  GatheredWrites gathered;

  // Sends what is gathered. A refusal is noted in the current scope, and nothing that was read is
  // believed any longer: it holds what the file does not.
  bool flush() { return gathered.length() == 0 || send(); }

  // Nothing that was read or asked may be believed any longer.
  void forgetWhatWasRead();

  void serveFromNothing() { served = {}; }
  void serveFrom(const OpenFile& file, const ReadWindow& window);

  // The process's limit on the length of files; a write that passes it would raise a signal that
  // ends the process. Asked once for each outermost scope.
  uint64_t sizeLimit();

  // Whether transfers are made in a scope, and whether a write of that scope was refused.
  bool isInScope() const { return current != nullptr; }
  bool hasFailed() const;

  bool isOpen(const TransferScope* scope) const;

  // Whether no window differs from the writes that are still to be sent.
  bool windowsAgree() const;

 private:
  bool send();

  uint64_t sizeLimit_ = 0;
  bool isSizeLimitKnown_ = false;
};

namespace detail {
extern CallState processCallState;
}

// The state of the call that this process makes: one, as one thread at a time uses the library.
inline CallState& callState() {
  return detail::processCallState;
}

}  // namespace qvdbase::platform
