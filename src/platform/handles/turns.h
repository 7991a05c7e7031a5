// Turns: calls on one file take turns, calls on different files run side by side.
//
// Each file entry has a turn, a lock that its thread can take again. An exported call takes the
// turn of its file first and keeps it to its end, so that everything below works on file, entry and
// position as if there were no other thread. A thread has several turns where it works on two
// files, and while it opens one. It waits for a turn only while it has none: where one that it
// wants in addition is taken, it gives up those that it has and takes them all in the order of
// their addresses, so that threads never wait for each other in a circle. Others may come in
// between, as they may while a function of the caller's runs; after both the numbers are looked up
// again.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/host/cancellation.h"
#include "platform/host/lock.h"
#include "platform/host/threads.h"

namespace qvdbase::platform {

class Turn;

// Never destroyed. It can become the turn of another file while threads wait for it:
// whoever has got a turn looks whether it still is the one that was wanted.
struct alignas(64) FileTurn {  // each in a cache line of its own
  Lock lock;
  std::atomic<const void*> owner = nullptr;  // the thread that has it
  uint32_t depth = 0;                        // by how many objects; the owner's
  uint32_t users = 0;                        // entries that have it, under Shared::handles
  uint32_t handovers = 0;                    // from one thread to another; the owner's
  const void* latest = nullptr;              // who had it last, where there were several threads
};

namespace detail {
extern constinit QVDBASE_PER_THREAD Turn* innermostTurn;
}

// Different for each thread.
inline const void* thisThread() {
  return &detail::innermostTurn;
}

// Whether this thread has one.
inline bool hasTurn() {
  return detail::innermostTurn != nullptr;
}

// Has the turn of a file from its beginning to its end. Its thread is not cancelled meanwhile.
class Turn {
 public:
  // The file that has this number. For a number that is not in use it keeps every number that is
  // free from being used meanwhile: the call fails, as it must. For 0 and below it does nothing.
  explicit Turn(int16_t file) : file_(file) {
    if (file > 0) begin();
  }
  explicit Turn(FileTurn& turn) : fixed_(&turn) { begin(); }
  ~Turn() {
    if (turn_ != nullptr) end();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  // Ends it, and begins that of another file.
  void exchangeFor(int16_t file);

 private:
  friend class TurnPause;
  void begin();
  void end();
  FileTurn* wanted() const;
  static void takeAll(Turn* innermost);
  static void leaveAll(Turn* innermost);
  static bool takeInOrder(Turn* innermost);

  int16_t file_ = 0;
  FileTurn* fixed_ = nullptr;
  FileTurn* turn_ = nullptr;  // null also where the object outside of this one has the same
  Turn* outer_ = nullptr;     // the turn that this thread took before
};

// Gives up all turns of this thread while a function of the caller's runs, and takes them again.
// Its thread may be cancelled meanwhile.
class TurnPause {
 public:
  TurnPause();
  ~TurnPause();
  TurnPause(const TurnPause&) = delete;
  TurnPause& operator=(const TurnPause&) = delete;

 private:
  Turn* paused_;
  [[no_unique_address]] CancellationPause cancellation_;
};

// The turn that stands for all numbers that are not in use. It is needed to use one.
FileTurn& turnOfFreeNumbers();

// A turn for one more entry. With very many files open some share one.
FileTurn& reserveTurn();
void releaseTurn(FileTurn& turn);

// How often the turn of a file, which this thread has, has gone from one thread to another.
uint32_t handoversOf(int16_t file);

// Whether it is the turn of another thread.
bool isTurnOfAnother(const FileTurn& turn);

}  // namespace qvdbase::platform
