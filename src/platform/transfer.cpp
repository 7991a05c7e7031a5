// Transfers at a position, and the scopes in which they are made cheap.
#include "platform/transfer.h"

#include "platform/gathered_writes.h"
#include "platform/plain_transfer.h"
#include "platform/read_windows.h"
#include "platform/system_calls.h"

namespace qvdbase::platform {
namespace {

#if defined(QVDBASE_PLAIN_TRANSFERS)
constexpr bool kGathers = false;
#else
constexpr bool kGathers = true;
#endif

// The innermost scope that is open; null outside, and while a caller's function runs.
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
    if (flushGathered()) return true;
    serveFromNothing();
    dropAllWindows();  // they hold what the file does not
    if (currentScope != nullptr) currentScope->failed_ = true;
    return false;
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
  if (window == nullptr) return readPlain(file.descriptor, file.position, buffer, count);
  return window->copy(file.position, buffer, count);
}

// Fields of one header lie a few bytes apart. Where the bytes between have been read in this call
// they are gathered too, so that the fields reach the host as one write, in their order. Not more
// than that: a gap between two records may hold a block that nobody is to write to.
constexpr int64_t kLargestGap = 64;

void gatherGap(const FileEntry* entry, int64_t position) {
  const int64_t end = pendingEnd(entry);
  if (end < 0 || position <= end || position - end > kLargestGap) return;
  const auto count = static_cast<size_t>(position - end);
  if (!windowsHold(entry, end, count) || !canGather(entry, end, count)) return;
  const ReadWindow* window = windowWith(entry, end, count);
  gatherWrite(entry, end, window->bytes + (end - window->start), count);
}

size_t writeInScope(const OpenFile& file, const void* buffer, size_t count) {
  if (ScopeAccess::failed()) return 0;
  serveFromNothing();
  const size_t wanted = bytesBelow(sizeLimitInScope(), file.position, count);
  gatherGap(file.entry, file.position);
  if (!canGather(file.entry, file.position, wanted) && !ScopeAccess::flush()) return 0;
  size_t done = wanted;
  if (canGather(file.entry, file.position, wanted)) {
    gatherWrite(file.entry, file.position, buffer, wanted);
  } else {
    done = writePlain(file.descriptor, file.position, buffer, wanted);
  }
  overwriteWindows(file.entry, file.position, buffer, done);
  return done;
}

size_t writeOutsideScope(const OpenFile& file, const void* buffer, size_t count) {
  const size_t wanted = bytesBelow(systemCalls().fileSizeLimit(), file.position, count);
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

bool fileLength(const OpenFile& file, int64_t* length) {
  if (isPending(file.entry) && !ScopeAccess::flush()) return false;
  *length = systemCalls().lengthOf(file.descriptor);
  return *length >= 0;
}

// A scope within a scope starts afresh too: between the two, others may have written.
TransferScope::TransferScope() : outer_(currentScope) {
  flushTransfers();
  if (kGathers) currentScope = this;
}

TransferScope::~TransferScope() {
  if (!ended_) static_cast<void>(end());
}

bool TransferScope::end() {
  if (ended_) return !failed_;
  ended_ = true;
  ScopeAccess::flush();
  if (kGathers) currentScope = outer_;
  if (currentScope == nullptr) forgetWhatWasRead();
  return !failed_;
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
  currentScope = paused_;
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
