// Taking turns.
#include "platform/handles/turns.h"

#include <algorithm>
#include <cassert>
#include <functional>
#include <new>
#include <utility>

#include "platform/handles/open_files.h"
#include "platform/transfer/transfer_counts.h"

#if !defined(QVDBASE_NO_THREADS)
#include <pthread.h>
#endif

namespace qvdbase::platform {

constinit QVDBASE_PER_THREAD Turn* detail::innermostTurn = nullptr;

namespace {

using detail::innermostTurn;

constexpr size_t kTurns = 1024;

constinit FileTurn turns[kTurns] = {};
constinit FileTurn freeNumbers = {};
constinit size_t lastShared = 0;  // under Shared::handles

bool isMine(const FileTurn& turn) {
  return turn.owner.load(std::memory_order_relaxed) == thisThread();
}

void own(FileTurn& turn) {
  turn.owner.store(thisThread(), std::memory_order_relaxed);
}

void ownAmongOthers(FileTurn& turn) {
  own(turn);
  if (std::exchange(turn.latest, thisThread()) != thisThread()) ++turn.handovers;
}

bool tryEnter(FileTurn& turn) {
  if (!isMine(turn)) {
    if (!turn.lock.tryLock()) return false;
    ownAmongOthers(turn);
  }
  ++turn.depth;
  return true;
}

inline void leave(FileTurn& turn) {
  assert(isMine(turn) && turn.depth > 0 && "a turn is left by a thread that does not have it");
  if (--turn.depth > 0) return;
  turn.owner.store(nullptr, std::memory_order_relaxed);
  turn.lock.unlock();
}

#if !defined(QVDBASE_NO_THREADS)
// The threads that had these turns are not in the child.
void freeTurn(FileTurn& turn) {
  if (isMine(turn)) return;
  new (&turn.lock) Lock;
  turn.owner.store(nullptr, std::memory_order_relaxed);
  turn.depth = 0;
}

void freeTurnsInChild() {
  for (FileTurn& turn : turns) freeTurn(turn);
  freeTurn(freeNumbers);
}

[[maybe_unused]] const int areFreedInChild = ::pthread_atfork(nullptr, nullptr, freeTurnsInChild);
#endif

}  // namespace

FileTurn* Turn::wanted() const {
  if (fixed_ != nullptr) return fixed_;
  FileTurn* turn = std::atomic_ref(detail::openFiles[file_].turn).load(std::memory_order_acquire);
  return turn != nullptr ? turn : &freeNumbers;
}

// Each call pays for this: what most of them need comes first, and needs no other function.
void Turn::begin() {
  struct Begin {
    __attribute__((noinline)) static void another(Turn& turn, Turn* outer) {
      turn.outer_ = outer;
      innermostTurn = &turn;
      if (outer == nullptr) {
        holdCancellation();
        takeOverCounts();
      }
      turn.turn_ = turn.wanted();
      if (tryEnter(*turn.turn_)) {
        if (turn.wanted() == turn.turn_) return;
        leave(*turn.turn_);
      }
      leaveAll(turn.outer_);
      takeAll(&turn);
    }
  };
  Turn* const outer = innermostTurn;
  if (outer != nullptr && file_ > 0 && outer->file_ == file_ && outer->turn_ == wanted()) return;
  assert(mayTake(Held::directoryCache) && "a turn is waited for while a lock is held");
  assert((!isHeld(Held::change) || isMine(*wanted())) && "a turn is waited for within a look");
  if (!isOnlyThread() || outer != nullptr) return Begin::another(*this, outer);
  FileTurn* const turn = wanted();
  if (!turn->lock.tryLock()) return Begin::another(*this, outer);
  own(*turn);
  turn->depth = 1;
  innermostTurn = this;
  turn_ = turn;
  holdCancellation();
  takeOverCounts();
}

void Turn::end() {
  if (innermostTurn == this) {
    innermostTurn = outer_;
  } else {
    Turn* inner = innermostTurn;
    while (inner->outer_ != this) inner = inner->outer_;
    inner->outer_ = outer_;
  }
  leave(*turn_);
  if (innermostTurn != nullptr) return;
  publishCounts();
  letCancellation();
}

void Turn::exchangeFor(int16_t file) {
  if (turn_ != nullptr) end();
  file_ = file;
  turn_ = nullptr;
  outer_ = nullptr;
  if (file > 0) begin();
}

void Turn::leaveAll(Turn* innermost) {
  for (Turn* each = innermost; each != nullptr; each = each->outer_) leave(*each->turn_);
}

void Turn::takeAll(Turn* innermost) {
  while (!takeInOrder(innermost)) leaveAll(innermost);
}

// False when a number has become that of another file meanwhile.
bool Turn::takeInOrder(Turn* innermost) {
  const std::less<const FileTurn*> isBefore;
  for (Turn* each = innermost; each != nullptr; each = each->outer_) each->turn_ = each->wanted();
  FileTurn* taken = nullptr;
  for (;;) {
    FileTurn* next = nullptr;
    for (Turn* each = innermost; each != nullptr; each = each->outer_) {
      const bool isAfter = taken == nullptr || isBefore(taken, each->turn_);
      if (isAfter && (next == nullptr || isBefore(each->turn_, next))) next = each->turn_;
    }
    if (next == nullptr) break;
    next->lock.lock();
    ownAmongOthers(*next);
    taken = next;
  }
  bool isUnchanged = true;
  for (Turn* each = innermost; each != nullptr; each = each->outer_) {
    ++each->turn_->depth;
    isUnchanged = isUnchanged && each->wanted() == each->turn_;
  }
  return isUnchanged;
}

TurnPause::TurnPause() : paused_(innermostTurn) {
  if (paused_ == nullptr) return;
  assert(!isHeld(Held::change) && "a function of the caller's is called within a change or a look");
  publishCounts();
  Turn::leaveAll(paused_);
  innermostTurn = nullptr;
}

TurnPause::~TurnPause() {
  if (paused_ == nullptr) return;
  assert(innermostTurn == nullptr && "a turn outlives the pause in which it began");
  innermostTurn = paused_;
  Turn::takeAll(paused_);
  takeOverCounts();
}

FileTurn& turnOfFreeNumbers() {
  return freeNumbers;
}

FileTurn& reserveTurn() {
  const SharedLock lock(Shared::handles);
  // Not one that a call has kept that has closed its file.
  FileTurn* turn = std::find_if(turns, turns + kTurns, [](const FileTurn& each) {
    return each.users == 0 && each.owner.load(std::memory_order_relaxed) == nullptr;
  });
  if (turn == turns + kTurns) turn = &turns[lastShared++ % kTurns];
  ++turn->users;
  return *turn;
}

void releaseTurn(FileTurn& turn) {
  const SharedLock lock(Shared::handles);
  --turn.users;
}

uint32_t handoversOf(int16_t file) {
  const OpenFile* openFile = findOpenFile(file);
  return openFile != nullptr && openFile->turn != nullptr ? openFile->turn->handovers : 0;
}

bool isTurnOfAnother(const FileTurn& turn) {
  return !isMine(turn) && turn.owner.load(std::memory_order_relaxed) != nullptr;
}

}  // namespace qvdbase::platform
