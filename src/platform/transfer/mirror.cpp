// Filling a mirror, keeping it equal to the file, and giving memory back.
#include "platform/transfer/mirror.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>

#include "platform/handles/file_changes.h"
#include "platform/handles/open_files.h"
#include "platform/host/memory.h"
#include "platform/host/system_calls.h"
#include "platform/transfer/call_state.h"
#include "platform/transfer/plain_transfer.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::platform {
namespace {

// How much longer a file may become until it needs a new mirror, and how long one may be at all.
constexpr uint64_t kGrowth = uint64_t{4} << 30;
constexpr uint64_t kLongest = uint64_t{1} << 42;
// How far around() looks, in pieces.
constexpr size_t kLookAround = 4;

constexpr uint64_t roundUp(uint64_t value, uint64_t unit) {
  return (value + unit - 1) / unit * unit;
}

std::atomic_ref<uint32_t> pinsAt(uint32_t& pins) {
  return std::atomic_ref(pins);
}

}  // namespace

// The tables follow the bytes in the same reservation, so that they take memory only where there
// are pieces.
Mirror* Mirror::make(int64_t length, uint64_t budget) {
  const auto size = static_cast<uint64_t>(length);
  if (length < 0 || size > kLongest) return nullptr;
  const uint64_t capacity = roundUp(2 * size + kGrowth, kRun);
  const uint64_t pieces = capacity / kPiece;
  const uint64_t words = pieces / 64 + 1;
  const uint64_t tables = 2 * words * sizeof(uint64_t) + pieces * sizeof(uint32_t);
  const uint64_t whole = capacity + kRun + tables;  // a run more, to begin at the border of one
  if (whole > SIZE_MAX) return nullptr;
  const auto wholeSize = static_cast<size_t>(whole);
  void* memory = systemCalls().reserve(wholeSize, budget >= size);
  if (memory == nullptr) return nullptr;
  void* place = allocate(sizeof(Mirror));
  if (place == nullptr) {
    systemCalls().unreserve(memory, wholeSize);
    return nullptr;
  }
  auto* mirror = new (place) Mirror;
  mirror->memory_ = memory;
  mirror->memorySize_ = wholeSize;
  const auto address = reinterpret_cast<uintptr_t>(memory);
  const auto begin = static_cast<size_t>(roundUp(address, kRun) - address);
  mirror->bytes_ = static_cast<uint8_t*>(memory) + begin;
  auto* tablesAt = mirror->bytes_ + static_cast<size_t>(capacity);
  mirror->there_ = reinterpret_cast<uint64_t*>(tablesAt);
  mirror->held_ = mirror->there_ + words;
  mirror->pins_ = reinterpret_cast<uint32_t*>(mirror->held_ + words);
  mirror->capacity_ = capacity;
  mirror->setBudget(budget);
  mirror->adoptLength(length);
  return mirror;
}

void Mirror::end() {
  systemCalls().unreserve(memory_, memorySize_);
  this->~Mirror();
  platform::release(this);
}

void Mirror::setBudget(uint64_t bytes) {
  budgetPieces_ = bytes / kPiece;
  while (heldPieces_ > budgetPieces_ && makeSpace(SIZE_MAX)) {
  }
}

void Mirror::adoptLength(int64_t length) {
  length_ = length;
  filePieces_ = length < 0 ? 0 : pieces(static_cast<uint64_t>(length));
  isOutgrown_ = isOutgrown_ || filePieces_ > capacity_ / kPiece;
  if (isOutgrown_) length_ = -1;
  isWhole_ = length_ >= 0 && therePieces_ == filePieces_;
  if (length_ >= 0) lastLength_ = length_;
}

bool Mirror::isPinned(size_t piece) const {
  return pinsAt(pins_[piece]).load(std::memory_order_acquire) != 0;
}

void Mirror::drop(size_t piece) {
  if (!has(piece)) return;
  there_[piece / 64] &= ~(uint64_t{1} << (piece % 64));
  --therePieces_;
  isWhole_ = false;
}

// The piece has its bytes now.
void Mirror::take(size_t piece) {
  const uint64_t bit = uint64_t{1} << (piece % 64);
  if ((there_[piece / 64] & bit) == 0) ++therePieces_;
  there_[piece / 64] |= bit;
  if ((held_[piece / 64] & bit) == 0) ++heldPieces_;
  held_[piece / 64] |= bit;
  isWhole_ = length_ >= 0 && therePieces_ == filePieces_;
}

// Pieces from the one that has this byte on.
void Mirror::dropFrom(uint64_t offset) {
  const uint64_t end = std::min(pieces(static_cast<uint64_t>(lastLength_)), capacity_ / kPiece);
  for (uint64_t piece = offset / kPiece; piece < end; ++piece) drop(static_cast<size_t>(piece));
}

// Of a file that has become shorter, pieces after the end are not there any more; of one that has
// become longer by other means than noteWritten(), the one that held the end has not all of it.
void Mirror::setLength(int64_t length) {
  if (length < 0) {
    length_ = -1;
    isWhole_ = false;
    return;
  }
  const auto known = static_cast<uint64_t>(lastLength_);
  const auto now = static_cast<uint64_t>(length);
  if (now < known) dropFrom(now);
  if (now > known) dropFrom(known);
  adoptLength(length);
}

bool Mirror::isThere(uint64_t offset, uint64_t count) const {
  if (count == 0) return true;
  const auto first = static_cast<size_t>(offset / kPiece);
  const auto last = static_cast<size_t>((offset + count - 1) / kPiece);
  for (size_t piece = first; piece <= last; ++piece) {
    if (!has(piece)) return false;
  }
  return true;
}

const uint8_t* Mirror::obtain(int descriptor, int64_t position, uint64_t count) {
  if (const uint8_t* found = find(position, count)) return found;
  if (position < 0 || position > length_ || count == 0) return nullptr;
  const auto offset = static_cast<uint64_t>(position);
  if (count > static_cast<uint64_t>(length_) - offset) return nullptr;
  const auto first = static_cast<size_t>(offset / kPiece);
  const auto last = static_cast<size_t>((offset + count - 1) / kPiece);
  return fill(descriptor, first, last) ? bytes_ + offset : nullptr;
}

// Reads those of the pieces that are not there, neighbours in one call.
bool Mirror::fill(int descriptor, size_t first, size_t last) {
  for (size_t piece = first; piece <= last;) {
    if (has(piece)) {
      ++piece;
      continue;
    }
    size_t end = piece;
    uint64_t more = 0;
    for (; end <= last && !has(end); ++end) {
      if (isPinned(end)) return false;
      if ((held_[end / 64] >> (end % 64) & 1) == 0) ++more;
    }
    if (heldPieces_ + more > budgetPieces_) return false;
    const uint64_t start = uint64_t{piece} * kPiece;
    const uint64_t stop = std::min(uint64_t{end} * kPiece, static_cast<uint64_t>(length_));
    const auto wanted = static_cast<size_t>(stop - start);
    bool failed = false;
    if (readPlain(descriptor, static_cast<int64_t>(start), bytes_ + start, wanted, &failed) !=
        wanted) {
      setLength(-1);  // it may have been cut short: asked for again before the next use
      return false;
    }
    for (; piece < end; ++piece) take(piece);
  }
  return true;
}

Mirror::Extent Mirror::around(int64_t position, uint64_t count) const {
  const auto length = static_cast<uint64_t>(length_);
  if (isWhole_) return {0, length, bytes_};
  auto first = static_cast<size_t>(static_cast<uint64_t>(position) / kPiece);
  auto end = static_cast<size_t>(pieces(static_cast<uint64_t>(position) + count));
  for (size_t i = 0; i < kLookAround && first > 0 && has(first - 1); ++i) --first;
  for (size_t i = 0; i < kLookAround && end < filePieces_ && has(end); ++i) ++end;
  const uint64_t start = uint64_t{first} * kPiece;
  const uint64_t stop = std::min(uint64_t{end} * kPiece, length);
  return {static_cast<int64_t>(start), stop - start, bytes_ + start};
}

// Gives back a run that nothing pins and that does not have this piece. False when there is none.
bool Mirror::makeSpace(size_t forPiece) {
  constexpr size_t kInRun = kRun / kPiece;
  const auto runs =
      static_cast<size_t>((pieces(static_cast<uint64_t>(lastLength_)) + kInRun - 1) / kInRun);
  for (size_t i = 0; i < runs; ++i) {
    hand_ = hand_ + 1 < runs ? hand_ + 1 : 0;
    const size_t first = hand_ * kInRun;
    if (forPiece / kInRun == hand_) continue;
    uint64_t held = 0;
    bool pinned = false;
    for (size_t piece = first; piece < first + kInRun; ++piece) {
      held += held_[piece / 64] >> (piece % 64) & 1;
      pinned = pinned || isPinned(piece);
    }
    if (held == 0 || pinned) continue;
    for (size_t piece = first; piece < first + kInRun; ++piece) {
      drop(piece);
      held_[piece / 64] &= ~(uint64_t{1} << (piece % 64));
    }
    heldPieces_ -= held;
    systemCalls().discard(bytes_ + first * kPiece, kRun);
    return true;
  }
  return false;
}

void Mirror::noteWritten(int64_t position, const void* bytes, uint64_t count, uint64_t done) {
  if (count == 0) return;
  const auto offset = static_cast<uint64_t>(position);
  const int64_t known = length_;
  if (done < count || known < 0) {
    const uint64_t end = std::min(pieces(offset + count), capacity_ / kPiece);
    for (uint64_t piece = offset / kPiece; piece < end; ++piece) drop(static_cast<size_t>(piece));
    return setLength(-1);
  }
  const auto oldLength = static_cast<uint64_t>(known);
  if (offset > oldLength) dropFrom(oldLength);  // with zeros between
  if (offset + count > oldLength) adoptLength(static_cast<int64_t>(offset + count));
  if (length_ < 0) return;  // outgrown
  const auto* from = static_cast<const uint8_t*>(bytes);
  const uint64_t end = offset + count;
  for (uint64_t at = offset; at < end;) {
    const uint64_t part = std::min(end, (at / kPiece + 1) * kPiece) - at;
    writePiece(static_cast<size_t>(at / kPiece), at, from + (at - offset), part,
               count < kPiece ? oldLength : UINT64_MAX);
    at += part;
  }
}

// `oldLength` is where the file ended before, for a write that may bring pieces in: one that begins
// there, or before it, leaves nothing unknown in a piece that begins after it. Large writes do not:
// who adds many records at once as a rule does not want them at once.
void Mirror::writePiece(size_t piece, uint64_t from, const uint8_t* bytes, uint64_t count,
                        uint64_t oldLength) {
  const bool isNew = !has(piece);
  if (isNew) {
    const uint64_t start = uint64_t{piece} * kPiece;
    if (from != start || start < oldLength || isPinned(piece)) return;
    const bool isHeld = (held_[piece / 64] >> (piece % 64) & 1) != 0;
    if (!isHeld && heldPieces_ >= budgetPieces_ && (budgetPieces_ == 0 || !makeSpace(piece)))
      return;
  } else if (isPinned(piece)) {
    return drop(piece);
  }
  // The bytes may be those of the mirror itself.
  std::memmove(bytes_ + from, bytes, static_cast<size_t>(count));
  if (isNew) take(piece);
}

uint64_t Mirror::pin(int64_t position, uint64_t most) {
  if (position < 0 || position >= length_ || most == 0) return 0;
  const auto offset = static_cast<uint64_t>(position);
  const uint64_t stop = offset + std::min(most, static_cast<uint64_t>(length_) - offset);
  uint64_t end = offset;
  while (end < stop && has(static_cast<size_t>(end / kPiece))) {
    const auto piece = static_cast<size_t>(end / kPiece);
    pinsAt(pins_[piece]).fetch_add(1, std::memory_order_relaxed);
    end = std::min(stop, (uint64_t{piece} + 1) * kPiece);
  }
  if (end > offset) addUser();
  return end - offset;
}

void Mirror::unpin(int64_t position, uint64_t count) {
  if (count == 0) return;
  const auto offset = static_cast<uint64_t>(position);
  const auto last = static_cast<size_t>((offset + count - 1) / kPiece);
  for (auto piece = static_cast<size_t>(offset / kPiece); piece <= last; ++piece) {
    pinsAt(pins_[piece]).fetch_sub(1, std::memory_order_release);
  }
  removeUser();
}

PinnedBytes::PinnedBytes(Mirror& mirror, int64_t position, uint64_t most)
    : position_(position), size_(mirror.pin(position, most)) {
  if (size_ == 0) return;
  mirror_ = &mirror;
  bytes_ = mirror.find(position, size_);
}

void PinnedBytes::release() {
  if (mirror_ != nullptr) mirror_->unpin(position_, size_);
  mirror_ = nullptr;
  bytes_ = nullptr;
  size_ = 0;
}

// ---- the mirror of an open file ----

bool attachMirror(int16_t file, uint64_t budget) {
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || openFile->sharing != Sharing::exclusive || !gathersTransfers()) {
    return false;
  }
  FileEntry* entry = openFile->entry;
  if (entry->mirror != nullptr && entry->mirror->isOwn()) {
    callState().serveFromNothing();
    entry->mirror->setBudget(budget);
    return true;
  }
  detachMirror(file);
  const int64_t length = systemCalls().lengthOf(openFile->descriptor);
  entry->mirror = Mirror::make(length, budget);
  return entry->mirror != nullptr;
}

void detachMirror(int16_t file) {
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr) return;
  leaveMirror(file);
  dropMirror(openFile->entry);
}

uint64_t mirroredBytes(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || openFile->entry->mirror == nullptr) return 0;
  return openFile->entry->mirror->heldBytes();
}

namespace {

// A mirror that can be used: its length known, and addresses enough. Null where there is none.
Mirror* usableMirror(const OpenFile& file) {
  FileEntry* entry = file.entry;
  Mirror* mirror = entry->mirror;
  if (mirror == nullptr || !mirror->isOwn()) return nullptr;
  if (mirror->length() >= 0) return mirror;
  const int64_t length = systemCalls().lengthOf(file.descriptor);
  if (length < 0) return nullptr;
  if (!mirror->isOutgrown()) {
    mirror->setLength(length);
    if (!mirror->isOutgrown()) return mirror;
  }
  Mirror* larger = Mirror::make(length, mirror->budget());
  dropMirror(entry);
  return entry->mirror = larger;
}

}  // namespace

bool useMirror(int16_t file) {
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || openFile->mirror != nullptr) return false;
  openFile->mirror = usableMirror(*openFile);
  return openFile->mirror != nullptr;
}

void leaveMirror(int16_t file) {
  OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || openFile->mirror == nullptr) return;
  callState().serveFromNothing();
  openFile->mirror = nullptr;
}

uint64_t writesKnown(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  const bool isKnown =
      openFile != nullptr && openFile->mirror != nullptr && openFile->stage == nullptr;
  return isKnown ? openFile->entry->writes + 1 : 0;
}

// What is not there is read, unless the budget is used up: then it is as much as there is.
PinnedBytes pinBytes(int16_t file, int64_t position, uint64_t most) {
  const OpenFile* openFile = findOpenFile(file);
  if (openFile == nullptr || openFile->mirror == nullptr || position < 0) return {};
  if (openFile->stage != nullptr) return {};  // what is there may lie under what a stage has
  CallState& call = callState();
  if (call.gathered.hold(openFile->entry) && !call.flush()) return {};
  Mirror& mirror = *openFile->mirror;
  if (position >= mirror.length()) return {};
  const auto rest = static_cast<uint64_t>(mirror.length() - position);
  static_cast<void>(mirror.obtain(openFile->descriptor, position, std::min(most, rest)));
  return PinnedBytes(mirror, position, most);
}

void noteWritten(FileEntry* entry, int64_t position, const void* bytes, uint64_t count,
                 uint64_t done) {
  countWrite(*entry);
  if (entry->mirror != nullptr) entry->mirror->noteWritten(position, bytes, count, done);
}

void noteCut(FileEntry* entry, int64_t length) {
  countWrite(*entry);
  if (entry->mirror != nullptr) entry->mirror->setLength(length);
}

void dropMirror(FileEntry* entry) {
  if (entry->mirror != nullptr) entry->mirror->removeUser();
  entry->mirror = nullptr;
}

}  // namespace qvdbase::platform
