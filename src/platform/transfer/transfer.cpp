// Transfers at a position, and the scopes in which they are made cheap.
#include "platform/transfer/transfer.h"

#include <qvdbase/qvdbase.h>

#include <cassert>
#include <limits>

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/gathered_writes.h"
#include "platform/transfer/plain_transfer.h"
#include "platform/transfer/read_windows.h"

namespace qvdbase::platform {
namespace {

#if defined(QVDBASE_PLAIN_TRANSFERS)
constexpr bool kGathers = false;
#else
constexpr bool kGathers = true;
#endif

// The innermost scope that is open, and the same again, null while a caller's function runs: the
// one in which a transfer is made.
constinit TransferScope* innermostScope = nullptr;
constinit TransferScope* currentScope = nullptr;

// The process's limit on the length of files; a write that passes it would raise a signal that ends
// the process. Asked once for each outermost scope.
constinit uint64_t scopeSizeLimit = 0;
constinit bool scopeSizeLimitKnown = false;

uint64_t sizeLimitInScope() {
  if (!scopeSizeLimitKnown) scopeSizeLimit = systemCalls().fileSizeLimit();
  scopeSizeLimitKnown = true;
  return scopeSizeLimit;
}

void serveFromNothing() {
  detail::servedWindow = {};
}

void serveFrom(const OpenFile& file, const ReadWindow& window) {
  constexpr uint64_t kAllButOne = detail::kSmallRead - 1;
  const uint64_t smallReads = window.length > kAllButOne ? window.length - kAllButOne : 0;
  detail::servedWindow = {&file, window.start, window.length, smallReads, window.bytes};
}

// Nothing that was read or asked may be believed any longer.
void forgetWhatWasRead() {
  serveFromNothing();
  dropAllWindows();
  scopeSizeLimitKnown = false;
}

}  // namespace

// Where a refused write is noted: in the scope in which it was made.
struct ScopeAccess {
  static bool failed() { return currentScope->failed_; }

  static bool flush() {
    RefusedWrite refused = {};
    if (flushGathered(&refused)) return true;
    serveFromNothing();
    dropAllWindows();  // they hold what the file does not
    if (currentScope != nullptr) {
      currentScope->failed_ = true;
      currentScope->bytesRead_ = refused.read;
      currentScope->bytesWritten_ = refused.written;
    }
    return false;
  }

  static bool isOpen(const TransferScope* scope) {
    const TransferScope* open = innermostScope;
    while (open != nullptr && open != scope) open = open->outer_;
    return open != nullptr;
  }
};

namespace {

// The window for a read, or null: when the read is too large for one, and, with *refused set, when
// writes that must go first are refused.
const ReadWindow* windowFor(const OpenFile& file, int64_t position, size_t count, bool* refused) {
  const FileEntry* entry = file.entry;
  // A window must not be filled with what gathered writes are about to change.
  const bool mustFlush = isPending(entry, position, count) ||
                         (isPending(entry) && !windowsHold(entry, position, count));
  serveFromNothing();
  *refused = mustFlush && !ScopeAccess::flush();
  if (*refused) return nullptr;
  const ReadWindow* window = windowWith(entry, position, count);
  if (window != nullptr && !isPending(entry)) {
    serveFrom(file, *window);
  }
  return window;
}

size_t readInScope(const OpenFile& file, void* buffer, size_t count) {
  bool refused = false;
  const ReadWindow* window = windowFor(file, file.position, count, &refused);
  if (refused) return 0;
  if (window != nullptr && window->holds(file.entry, file.position, count)) {
    return window->copy(file.position, buffer, count);
  }
  // Too much for a window, or not all in it: what was asked for may still be there.
  return readPlain(file.descriptor, file.position, buffer, count);
}

// Gathers the bytes between two fields of one header, so that the fields reach the host as one
// write. Only where no other process can have changed them since they were read: of files that
// other processes write to as well, each field is written by itself. And only where the second
// field joins them: a run that the host refuses ends with a field.
void gatherGap(const OpenFile& file, uint32_t gap, uint32_t count) {
  if (file.sharing != Sharing::exclusive || ScopeAccess::failed() || count == 0) return;
  if (!continuesPending(file) || !canGather(file, size_t{gap} + count)) return;
  if (!windowsHold(file.entry, file.position, gap)) return;
  // The process's limit may lie in the gap.
  const int64_t next = file.position + static_cast<int64_t>(gap);
  if (bytesBelow(sizeLimitInScope(), next, count) == 0) return;
  const ReadWindow* window = windowWith(file.entry, file.position, gap);
  gatherUnchanged(window->bytes + (file.position - window->start), gap);
}

// What the limit cuts off never reaches the host, whose answer is known.
size_t writableBytes(uint64_t limit, int64_t position, size_t count) {
  const size_t below = bytesBelow(limit, position, count);
  if (below < count) noteHostFailure(EFBIG);
  return below;
}

size_t writeInScope(OpenFile& file, const void* buffer, size_t count) {
  if (ScopeAccess::failed()) return 0;
  serveFromNothing();
  const size_t wanted = writableBytes(sizeLimitInScope(), file.position, count);
  if (wanted == 0) return 0;
  if (!canGather(file, wanted) && !ScopeAccess::flush()) return 0;
  size_t done = wanted;
  if (canGather(file, wanted)) {
    gatherWrite(file, buffer, wanted, gbl_realReaden);
  } else {
    done = writePlain(file.descriptor, file.position, buffer, wanted);
  }
  overwriteWindows(file.entry, file.position, buffer, done);
  return done;
}

size_t writeOutsideScope(const OpenFile& file, const void* buffer, size_t count) {
  const size_t wanted = writableBytes(systemCalls().fileSizeLimit(), file.position, count);
  return writePlain(file.descriptor, file.position, buffer, wanted);
}

}  // namespace

constinit detail::ServedWindow detail::servedWindow = {};

const uint8_t* detail::viewElsewhere(const OpenFile& file, int64_t position, uint32_t count) {
  if (currentScope == nullptr || count == 0 || position < 0) return nullptr;
  bool refused = false;
  const ReadWindow* window = windowFor(file, position, count, &refused);
  if (window == nullptr || !window->holds(file.entry, position, count)) return nullptr;
  return window->bytes + (position - window->start);
}

bool detail::readElsewhere(OpenFile& file, void* buffer, uint32_t count, uint32_t* moved) {
  *moved = 0;
  if (count == 0) return true;
  const size_t done = currentScope != nullptr
                          ? readInScope(file, buffer, count)
                          : readPlain(file.descriptor, file.position, buffer, count);
  file.position += static_cast<int64_t>(done);
  *moved = static_cast<uint32_t>(done);
  return done == count;
}

void readAhead(const OpenFile& file, int64_t position, uint32_t count) {
  if (currentScope == nullptr || isPending(file.entry)) return;
  serveFromNothing();
  const ReadWindow* window = fillWindow(file.entry, position, count);
  if (window != nullptr) serveFrom(file, *window);
}

bool writeAtPosition(OpenFile& file, const void* buffer, uint32_t count, uint32_t* moved) {
  *moved = 0;
  if (!file.isWritable()) return false;
  if (count == 0) return true;
  const size_t done = currentScope != nullptr ? writeInScope(file, buffer, count)
                                              : writeOutsideScope(file, buffer, count);
  file.position += static_cast<int64_t>(done);
  *moved = static_cast<uint32_t>(done);
  return done == count;
}

bool writeAfterGap(OpenFile& file, uint32_t gap, const void* buffer, uint32_t count,
                   uint32_t* moved) {
  constexpr int64_t kLargestPosition = std::numeric_limits<int64_t>::max();
  if (file.position > kLargestPosition - static_cast<int64_t>(gap)) return false;
  if (currentScope != nullptr && file.isWritable()) gatherGap(file, gap, count);
  file.position += static_cast<int64_t>(gap);
  return writeAtPosition(file, buffer, count, moved);
}

bool fileLength(const OpenFile& file, int64_t* length) {
  if (isPending(file.entry) && !ScopeAccess::flush()) return false;
  *length = systemCalls().lengthOf(file.descriptor);
  return *length >= 0;
}

// A scope within a scope starts afresh too: between the two, others may have written.
TransferScope::TransferScope() : outer_(innermostScope) {
  flushTransfers();
  if (!kGathers) return;
  resumed_ = currentScope;
  innermostScope = this;
  currentScope = this;
}

TransferScope::~TransferScope() {
  if (!ended_) static_cast<void>(end());
}

bool TransferScope::end() {
  if (ended_) return !failed_;
  if (kGathers) leaveChain();
  ended_ = true;
  if (currentScope == nullptr) forgetWhatWasRead();
  return !failed_;
}

// Scopes within this one end with it: nothing may point to a scope that is gone.
void TransferScope::leaveChain() {
  assert(innermostScope == this && "a scope ends before one within it");
  while (innermostScope != this) static_cast<void>(innermostScope->end());
  if (currentScope == this) ScopeAccess::flush();
  innermostScope = outer_;
  currentScope = resumed_;
  if (!failed_) return;
  // What came after the refused write would not have been done without gathering.
  gbl_realReaden = bytesRead_;
  gbl_realWriten = bytesWritten_;
}

// A write that was refused at a read, a view or a closing counts still.
bool TransferScope::completeWrites() {
  return ScopeAccess::flush() && (currentScope == nullptr || !ScopeAccess::failed());
}

TransferPause::TransferPause() : paused_(currentScope) {
  flushTransfers();
  currentScope = nullptr;
}

TransferPause::~TransferPause() {
  forgetWhatWasRead();
  assert((paused_ == nullptr || ScopeAccess::isOpen(paused_)) && "a scope ends while it is paused");
  currentScope = ScopeAccess::isOpen(paused_) ? paused_ : nullptr;
}

bool flushTransfers() {
  const bool complete = ScopeAccess::flush();
  forgetWhatWasRead();
  return complete;
}

bool gathersTransfers() {
  return kGathers;
}

void forgetTransfers(const FileEntry* file) {
  if (isPending(file)) ScopeAccess::flush();
  serveFromNothing();
  dropWindows(file);
}

}  // namespace qvdbase::platform
