// What one exported call keeps between its transfers: the window from which it is served, the bytes
// that it has read ahead, the writes that are still to be sent, and the scopes that are open. Each
// thread has one such object, reached by callState() alone.
#pragma once

#include <cstdint>

#include "platform/handles/open_files.h"
#include "platform/host/threads.h"
#include "platform/transfer/gathered_writes.h"
#include "platform/transfer/read_windows.h"

namespace qvdbase::platform {

class TransferScope;

struct CallState {
  const OpenFile* served = nullptr;  // whose served window holds bytes

  // False when there is no memory for buffers: then no scope is entered.
  bool obtainBuffers();
  void loseBuffers() { hasBuffers_ = false; }

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

  void serveFromNothing() {
    if (served != nullptr) served->served = {};
    served = nullptr;
  }
  void serveFrom(const OpenFile& file, const ReadWindow& window) {
    serveFrom(file, window.start, window.length, window.bytes);
  }
  void serveFrom(const OpenFile& file, int64_t start, uint64_t length, const uint8_t* bytes);

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

  bool hasBuffers_ = false;
  uint64_t sizeLimit_ = 0;
  bool isSizeLimitKnown_ = false;
};

namespace detail {
extern constinit QVDBASE_PER_THREAD CallState* callOfThread;  // null before the thread's first call
CallState& firstCallOfThread();
}  // namespace detail

// The state of the call that this thread makes.
inline CallState& callState() {
  CallState* call = detail::callOfThread;
  return call != nullptr ? *call : detail::firstCallOfThread();
}

}  // namespace qvdbase::platform
