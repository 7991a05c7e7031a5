// Commits of Durability::power that wait for the device together, where threads share a database.
//
// A commit is appended in the turn of its database, which ends then. One of the threads whose
// commits are appended waits for the device; what is appended meanwhile waits for the next sync,
// which is one for all of them. Whoever has the turn next notes what a sync has done, and puts into
// place what is on the device by it. Until then patches are held as with Durability::interval, and
// operations of the database read them from memory: other threads see a commit as soon as it is
// appended.
//
// A thread that has used the database alone for a while, or keeps its turn for more than the
// commit, waits within it: that needs no patches to be held, and no turn to be taken again.
#pragma once

#include <cstdint>
#include <memory>

#include "intents/commit.h"

namespace qvdb::detail {

class Operation;
struct OpenDatabase;

// In the list of its database from when it was appended until it is decided. Read and changed in
// the database's turn.
struct AwaitedCommit {
  uint64_t ticket = 0;
  bool isDecided = false;
  qvdbase::intents::Commit commit;
  AwaitedCommit* next = nullptr;
};

// Whether a commit that this thread is about to make can wait without the turn. To be asked before
// an operation is begun.
bool canAwait() noexcept;

// Whether it is to do so, now that the operation has begun: others use the database, and none but
// this one may write to the file, which could be changed between the commit and its patches.
bool isAwaited(const Operation& operation) noexcept;

// Adds a commit that was appended with that ticket. In the turn in which it was.
void await(OpenDatabase& database, AwaitedCommit* awaited, uint64_t ticket) noexcept;

// Waits until it is decided, without a turn. What it is then is in `awaited`.
void waitForDevice(const std::shared_ptr<OpenDatabase>& database, const char* name,
                   AwaitedCommit* awaited);

// Decides those of which it is known whether the device has them.
void decideAwaited(OpenDatabase& database) noexcept;

// Decides all, before the log goes: what is not known then stays undecided for the next opener. In
// a process made by fork nobody waits.
void endAwaiting(OpenDatabase& database) noexcept;

}  // namespace qvdb::detail
