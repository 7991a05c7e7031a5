// Transfers at a position, and the scopes in which they are made cheap.
#include "platform/transfer/transfer.h"

#include <algorithm>
#include <cassert>
#include <limits>

#include "platform/host/host_failure.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/call_buffers.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/plain_transfer.h"
#include "platform/transfer/stage.h"
#include "platform/transfer/transfer_counts.h"

namespace qvdbase::platform {
namespace {

#if defined(QVDBASE_PLAIN_TRANSFERS)
constexpr bool kGathers = false;
#else
constexpr bool kGathers = true;
#endif

}  // namespace

namespace {
#if !defined(QVDBASE_NO_THREADS)
thread_local
#endif
    constinit CallState ownCall = {};
}  // namespace

constinit QVDBASE_PER_THREAD CallState* detail::callOfThread = nullptr;

// Not inline, and apart from the pointer to it: the place of so large a variable of a thread has to
// be asked for.
CallState& detail::firstCallOfThread() {
  callOfThread = &ownCall;
  return ownCall;
}

namespace {

// What few calls need is not inline here, so that the others do not prepare for it.
__attribute__((noinline)) bool giveBuffers(CallState& call) {
  CallBuffers* buffers = buffersForThread();
  if (buffers == nullptr) return false;
  call.windows.useBuffers(&buffers->windows);
  call.gathered.useBuffers(&buffers->gathered);
  return true;
}

}  // namespace

bool CallState::obtainBuffers() {
  if (!hasBuffers_) hasBuffers_ = giveBuffers(*this);
  return hasBuffers_;
}

void CallState::serveFrom(const OpenFile& file, int64_t start, uint64_t length,
                          const uint8_t* bytes) {
  constexpr uint64_t kAllButOne = ServedWindow::kSmallRead - 1;
  const uint64_t smallReads = length > kAllButOne ? length - kAllButOne : 0;
  serveFromNothing();
  file.served = {start, length, smallReads, bytes};
  served = &file;
}

void CallState::forgetWhatWasRead() {
  serveFromNothing();
  windows.dropAll();
  isSizeLimitKnown_ = false;
}

uint64_t CallState::sizeLimit() {
  if (!isSizeLimitKnown_) sizeLimit_ = systemCalls().fileSizeLimit();
  isSizeLimitKnown_ = true;
  return sizeLimit_;
}

__attribute__((noinline)) bool CallState::send() {
  RefusedWrite refused = {};
  assert(windowsAgree() && "a window holds bytes that were overwritten");
  if (gathered.flush(&refused)) return true;
  serveFromNothing();
  windows.dropAll();
  if (current != nullptr) {
    current->failed_ = true;
    current->bytesRead_ = refused.read;
    current->bytesWritten_ = refused.written;
  }
  return false;
}

bool CallState::hasFailed() const {
  return current->failed_;
}

bool CallState::isOpen(const TransferScope* scope) const {
  const TransferScope* open = innermost;
  while (open != nullptr && open != scope) open = open->outer_;
  return open != nullptr;
}

bool CallState::windowsAgree() const {
  return gathered.length() == 0 ||
         windows.agree(gathered.entry(), gathered.position(), gathered.bytes(), gathered.length());
}

namespace {

// The bytes of a read in the mirror of its file, or null: when they cannot be there, and, with
// *refused set, when writes that must go first are refused.
const uint8_t* inMirror(const OpenFile& file, int64_t position, uint64_t count, bool* refused) {
  CallState& call = callState();
  if (call.gathered.hold(file.entry, position, static_cast<size_t>(count))) {
    *refused = !call.flush();
    if (*refused) return nullptr;
  }
  const uint8_t* bytes = file.mirror->obtain(file.descriptor, position, count);
  if (bytes == nullptr || call.gathered.hold(file.entry)) return bytes;
  const Mirror::Extent extent = file.mirror->around(position, count);
  call.serveFrom(file, extent.start, extent.length, extent.bytes);
  return bytes;
}

// The same, in a file that has a mirror, for bytes that need not all be in the file. Nothing is
// gathered for it.
__attribute__((noinline)) bool isMirrored(const OpenFile& file, int64_t position, uint64_t count) {
  if (position < 0 || position >= file.mirror->length()) return false;
  const auto rest = static_cast<uint64_t>(file.mirror->length() - position);
  bool refused = false;
  return inMirror(file, position, std::min(count, rest), &refused) != nullptr;
}

// The window for a read, or null: when the read is too large for one, and when writes that must go
// first are refused.
struct WindowFor {
  const ReadWindow* window;
  bool isRefused;
};

WindowFor windowFor(const OpenFile& file, int64_t position, size_t count) {
  CallState& call = callState();
  const FileEntry* entry = file.entry;
  // A window must not be filled with what gathered writes are about to change.
  const bool mustFlush = call.gathered.hold(entry, position, count) ||
                         (call.gathered.hold(entry) && !call.windows.find(entry, position, count));
  call.serveFromNothing();
  if (mustFlush && !call.flush()) return {nullptr, true};
  call.windows.useStage(file.stage, file.mirror);
  const ReadWindow* window = call.windows.obtain(entry, position, count);
  assert(call.windowsAgree() && "a window was filled with what gathered writes change");
  if (window != nullptr && !call.gathered.hold(entry)) call.serveFrom(file, *window);
  return {window, false};
}

__attribute__((noinline)) size_t readNow(const OpenFile& file, int64_t position, void* buffer,
                                         size_t count) {
  bool failed = false;
  const size_t done = readPlain(file.descriptor, position, buffer, count, &failed);
  if (failed) noteHostFailure();
  return done;
}

// A part of a read that is all in the file, or all in the memory of a stage. Returns its length.
size_t readStagedPart(const OpenFile& file, int64_t position, uint8_t* buffer, size_t count) {
  CallState& call = callState();
  const Stage& stage = *file.stage;
  const Stage::InMemory run = stage.runAt(position);
  if (run.bytes != nullptr) {
    const auto offset = static_cast<size_t>(position - run.start);
    const size_t part = std::min(count, run.length - offset);
    std::memcpy(buffer, run.bytes + offset, part);
    if (call.isInScope()) call.serveFrom(file, run.start, run.length, run.bytes);
    return part;
  }
  if (position >= stage.inFile()) return 0;
  const auto inFile = static_cast<uint64_t>(stage.inFile() - position);
  const auto part = static_cast<size_t>(std::min<uint64_t>(count, inFile));
  const auto [window, isRefused] =
      call.isInScope() ? windowFor(file, position, part) : WindowFor{nullptr, false};
  if (isRefused) return 0;
  if (window != nullptr && window->holds(file.entry, position, part)) {
    std::memcpy(buffer, window->at(position), part);
    return part;
  }
  const uint8_t* mirrored =
      file.mirror != nullptr ? file.mirror->obtain(file.descriptor, position, part) : nullptr;
  if (mirrored != nullptr) std::memcpy(buffer, mirrored, part);
  const size_t done = mirrored != nullptr ? part : readNow(file, position, buffer, part);
  stage.layOver(position, buffer, done);
  return done;
}

__attribute__((noinline)) size_t readStaged(const OpenFile& file, void* buffer, size_t count) {
  size_t done = 0;
  while (done < count) {
    const size_t part = readStagedPart(file, file.position + static_cast<int64_t>(done),
                                       static_cast<uint8_t*>(buffer) + done, count - done);
    if (part == 0) break;
    done += part;
  }
  return done;
}

const uint8_t* viewWindow(const OpenFile& file, int64_t position, uint32_t count) {
  const ReadWindow* window = windowFor(file, position, count).window;
  if (window == nullptr || !window->holds(file.entry, position, count)) return nullptr;
  return window->at(position);
}

__attribute__((noinline)) const uint8_t* viewBesideMirror(const OpenFile& file, int64_t position,
                                                          uint32_t count) {
  bool refused = false;
  const uint8_t* bytes = inMirror(file, position, count, &refused);
  return bytes != nullptr || refused ? bytes : viewWindow(file, position, count);
}

// A view needs all of its bytes in one place.
const uint8_t* viewStaged(const OpenFile& file, int64_t position, uint32_t count) {
  const Stage& stage = *file.stage;
  const Stage::InMemory run = stage.runAt(position);
  if (run.bytes != nullptr) {
    const auto offset = static_cast<size_t>(position - run.start);
    if (count > run.length - offset) return nullptr;
    callState().serveFrom(file, run.start, run.length, run.bytes);
    return run.bytes + offset;
  }
  if (position > stage.inFile() - static_cast<int64_t>(count)) return nullptr;
  return viewWindow(file, position, count);
}

__attribute__((noinline)) size_t writeStaged(const OpenFile& file, const void* buffer,
                                             size_t count) {
  CallState& call = callState();
  if (call.isInScope() && call.hasFailed()) return 0;
  call.serveFromNothing();
  const ReadWindow* known = call.windows.find(file.entry, file.position, count);
  const uint8_t* before = known != nullptr ? known->at(file.position) : nullptr;
  const size_t done =
      file.stage->write(file, file.position, static_cast<const uint8_t*>(buffer), count, before);
  call.windows.overwrite(file.entry, file.position, buffer, done);
  return done;
}

size_t readFromWindow(const OpenFile& file, void* buffer, size_t count) {
  const auto [window, isRefused] = windowFor(file, file.position, count);
  if (isRefused) return 0;
  // Too much for a window, or not all in it: what was asked for may still be there.
  if (window == nullptr || !window->holds(file.entry, file.position, count)) {
    return readNow(file, file.position, buffer, count);
  }
  std::memcpy(buffer, window->at(file.position), count);
  return count;
}

__attribute__((noinline)) size_t readBesideMirror(const OpenFile& file, void* buffer,
                                                  size_t count) {
  bool refused = false;
  const uint8_t* bytes = inMirror(file, file.position, count, &refused);
  if (refused) return 0;
  if (bytes == nullptr) return readFromWindow(file, buffer, count);
  std::memcpy(buffer, bytes, count);
  return count;
}

size_t readInScope(const OpenFile& file, void* buffer, size_t count) {
  return file.mirror != nullptr ? readBesideMirror(file, buffer, count)
                                : readFromWindow(file, buffer, count);
}

// The bytes from the position on, where they are in memory.
const uint8_t* bytesInGap(const OpenFile& file, uint32_t gap) {
  if (file.mirror != nullptr) {
    if (const uint8_t* bytes = file.mirror->find(file.position, gap)) return bytes;
  }
  ReadWindows& windows = callState().windows;
  if (windows.find(file.entry, file.position, gap) == nullptr) return nullptr;
  return windows.obtain(file.entry, file.position, gap)->at(file.position);
}

// Gathers the bytes between two fields of one header, so that the fields reach the host as one
// write. Only where no other process can have changed them since they were read: of files that
// other processes write to as well, each field is written by itself. And only where the second
// field joins them: a run that the host refuses ends with a field.
void gatherGap(const OpenFile& file, uint32_t gap, uint32_t count) {
  CallState& call = callState();
  if (file.sharing != Sharing::exclusive || call.hasFailed() || count == 0) return;
  if (!call.gathered.endAt(file) || !call.gathered.canTake(file, size_t{gap} + count)) return;
  const uint8_t* unchanged = bytesInGap(file, gap);
  if (unchanged == nullptr) return;
  // The process's limit may lie in the gap.
  const int64_t next = file.position + static_cast<int64_t>(gap);
  if (bytesBelow(call.sizeLimit(), next, count) == 0) return;
  call.gathered.addUnchanged(unchanged, gap);
}

// What the limit cuts off never reaches the host, whose answer is known.
size_t writableBytes(uint64_t limit, int64_t position, size_t count) {
  const size_t below = bytesBelow(limit, position, count);
  if (below < count) noteRefusedWrite(EFBIG);
  return below;
}

__attribute__((noinline)) size_t writeNow(const OpenFile& file, const void* buffer, size_t count) {
  const size_t done = writePlain(file.descriptor, file.position, buffer, count);
  noteWritten(file.entry, file.position, buffer, count, done);
  return done;
}

size_t writeInScope(OpenFile& file, const void* buffer, size_t count) {
  CallState& call = callState();
  if (call.hasFailed()) return 0;
  call.serveFromNothing();
  const size_t wanted = writableBytes(call.sizeLimit(), file.position, count);
  if (wanted == 0) return 0;
  bool joins = call.gathered.canTake(file, wanted);
  if (!joins) {
    if (!call.flush()) return 0;
    joins = call.gathered.canTake(file, wanted);
  }
  size_t done = wanted;
  if (joins) {
    call.gathered.add(file, buffer, wanted, transferCounts().read);
  } else {
    done = writeNow(file, buffer, wanted);
  }
  call.windows.overwrite(file.entry, file.position, buffer, done);
  return done;
}

__attribute__((noinline)) size_t writeOutsideScope(const OpenFile& file, const void* buffer,
                                                   size_t count) {
  const size_t wanted = writableBytes(systemCalls().fileSizeLimit(), file.position, count);
  return writeNow(file, buffer, wanted);
}

}  // namespace

const uint8_t* detail::viewElsewhere(const OpenFile& file, int64_t position, uint32_t count) {
  if (!callState().isInScope() || count == 0 || position < 0) return nullptr;
  if (file.stage != nullptr) return viewStaged(file, position, count);
  return file.mirror != nullptr ? viewBesideMirror(file, position, count)
                                : viewWindow(file, position, count);
}

bool detail::readElsewhere(OpenFile& file, void* buffer, uint32_t count, uint32_t* moved) {
  assert(!isTurnOfAnother(*file.turn) && "a file is read out of turn");
  *moved = 0;
  if (count == 0) return true;
  const size_t done = file.stage != nullptr     ? readStaged(file, buffer, count)
                      : callState().isInScope() ? readInScope(file, buffer, count)
                                                : readNow(file, file.position, buffer, count);
  file.position += static_cast<int64_t>(done);
  *moved = static_cast<uint32_t>(done);
  return done == count;
}

void readAhead(const OpenFile& file, int64_t position, uint32_t count) {
  CallState& call = callState();
  if (!call.isInScope() || call.gathered.hold(file.entry)) return;
  const bool hasMirror = file.stage == nullptr && file.mirror != nullptr;
  if (hasMirror && isMirrored(file, position, count)) return;
  call.serveFromNothing();
  call.windows.useStage(file.stage, file.mirror);
  const ReadWindow* window = call.windows.fill(file.entry, position, count);
  if (window != nullptr) call.serveFrom(file, *window);
}

bool writeAtPosition(OpenFile& file, const void* buffer, uint32_t count, uint32_t* moved) {
  assert(!isTurnOfAnother(*file.turn) && "a file is written out of turn");
  *moved = 0;
  if (!file.isWritable()) return false;
  if (count == 0) return true;
  const size_t done = file.stage != nullptr     ? writeStaged(file, buffer, count)
                      : callState().isInScope() ? writeInScope(file, buffer, count)
                                                : writeOutsideScope(file, buffer, count);
  file.position += static_cast<int64_t>(done);
  *moved = static_cast<uint32_t>(done);
  return done == count;
}

bool writeAfterGap(OpenFile& file, uint32_t gap, const void* buffer, uint32_t count,
                   uint32_t* moved) {
  constexpr int64_t kLargestPosition = std::numeric_limits<int64_t>::max();
  if (file.position > kLargestPosition - static_cast<int64_t>(gap)) return false;
  if (file.stage == nullptr && callState().isInScope() && file.isWritable())
    gatherGap(file, gap, count);
  file.position += static_cast<int64_t>(gap);
  return writeAtPosition(file, buffer, count, moved);
}

bool fileLength(const OpenFile& file, int64_t* length) {
  if (file.stage != nullptr && !file.stage->onlyReads()) {
    *length = file.stage->length();
    return true;
  }
  if (callState().gathered.hold(file.entry) && !callState().flush()) return false;
  *length = file.mirror != nullptr ? file.mirror->length() : -1;
  if (*length < 0) *length = systemCalls().lengthOf(file.descriptor);
  return *length >= 0;
}

// A scope within a scope starts afresh too: between the two, others may have written.
// Outside of all scopes nothing is gathered, and nothing that was read is kept.
TransferScope::TransferScope() : TransferScope(callState()) {}

TransferScope::TransferScope(CallState& call) : outer_(call.innermost) {
  if (call.isInScope()) flushTransfers();
  if (!kGathers || !call.obtainBuffers()) return;
  assert((!call.isInScope() || call.current == outer_) && "a scope begins in one that is not open");
  resumed_ = call.current;
  call.innermost = call.current = this;
  isEntered_ = true;
}

TransferScope::~TransferScope() {
  if (!ended_) static_cast<void>(end());
}

bool TransferScope::end() {
  if (ended_) return !failed_;
  CallState& call = callState();
  if (isEntered_) leaveChain(call);
  ended_ = true;
  if (!call.isInScope()) call.forgetWhatWasRead();
  return !failed_;
}

namespace {

// They end with it: nothing may point to a scope that is gone.
__attribute__((noinline)) void endScopesWithin(const TransferScope* scope) {
  assert(false && "a scope ends before one within it");
  CallState& call = callState();
  while (call.innermost != scope) static_cast<void>(call.innermost->end());
}

}  // namespace

void TransferScope::leaveChain(CallState& call) {
  if (call.innermost != this) endScopesWithin(this);
  if (call.current == this) call.flush();
  assert(call.gathered.length() == 0 && "a scope ends before its writes are sent");
  call.innermost = outer_;
  call.current = resumed_;
  if (!failed_) return;
  // What came after the refused write would not have been done without gathering.
  transferCounts() = {bytesRead_, bytesWritten_};
}

// A write that was refused at a read, a view or a closing counts still.
bool TransferScope::completeWrites() {
  CallState& call = callState();
  return call.flush() && (!call.isInScope() || !call.hasFailed());
}

TransferPause::TransferPause() : paused_(callState().current) {
  flushTransfers();
  callState().current = nullptr;
}

TransferPause::~TransferPause() {
  CallState& call = callState();
  call.forgetWhatWasRead();
  const bool isOpen = call.isOpen(paused_);
  assert((paused_ == nullptr || isOpen) && "a scope ends while it is paused");
  assert(!call.isInScope() && "a scope outlives the pause in which it began");
  call.current = isOpen ? paused_ : nullptr;
}

__attribute__((noinline)) bool flushTransfers() {
  const bool complete = callState().flush();
  callState().forgetWhatWasRead();
  return complete;
}

bool gathersTransfers() {
  return kGathers;
}

void forgetTransfers(const FileEntry* file) {
  CallState& call = callState();
  if (call.gathered.hold(file)) call.flush();
  call.serveFromNothing();
  call.windows.drop(file);
}

}  // namespace qvdbase::platform
