// The transaction that is open on a database, and what became of earlier ones.
//
// While a transaction is open, operations of its thread use its stage (platform/transfer/stage.h):
// they are those of always, and what they write stays in memory. Operations of other threads on the
// database wait until it has ended; readers and other processes see the file, which is the state
// before. Committing gives what the stage holds to the log of intents (intents/commit.h).
//
// The log puts an intent before the new blocks, so that these move by its length: positions beyond
// the limit of a transaction change when it ends. What the layer itself remembers is corrected
// then; records that the program holds know in which transaction they were found, and are corrected
// when they are used.
#pragma once

#include <qvdbase/qvdb/database.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "format/layout.h"
#include "intents/commit.h"
#include "objects/published.h"
#include "platform/handles/turns.h"
#include "platform/host/process_mark.h"
#include "platform/transfer/stage.h"

namespace qvdb::detail {

struct AwaitedCommit;

struct OpenTransaction {
  uint32_t number = 0;
  std::array<unsigned char, qvdbase::format::kIdentifierSize> databaseID{};
  std::unique_ptr<qvdbase::platform::Stage> stage;
  const void* thread = qvdbase::platform::thisThread();
  qvdbase::platform::ProcessMark maker;
  size_t writesBefore = 0;             // of this process to the file, when it began
  uint64_t changesBefore = 0;          // of the database, likewise
  std::optional<uint64_t> deadBefore;  // bytes of the file, likewise
  bool hasNewTables = false;           // which the directory cache must not show to others

  bool isOfThisThread() const {
    return thread == qvdbase::platform::thisThread() && maker.isStillOwn();
  }
};

// A transaction that has ended: what it has added lies from `limit` on, or did.
struct EndedTransaction {
  uint32_t number = 0;
  int64_t limit = 0;
  int64_t shift = 0;
  bool isCommitted = false;
};

// The transactions of one database; read and changed in its turn.
struct Transactions {
  std::unique_ptr<OpenTransaction> open;
  std::unique_ptr<qvdbase::intents::CommitLog> log;  // from the first one on
  // Lays over the file what the log holds back; null without a log. See held_commits.h.
  std::unique_ptr<qvdbase::platform::Stage> heldView;
  // Whether it holds something back. Changed within changes of the file only, which views of the
  // database exclude while they look.
  Published<bool> holds = false;
  bool holdsTables = false;  // the number of tables among it
  // Commits whose threads wait for the device without the turn; see awaited_commits.h.
  AwaitedCommit* awaited = nullptr;
  // How often the turn had gone from thread to thread, and how many commits have come since.
  uint32_t handovers = 0;
  uint32_t commitsAlone = 0;
  qvdbase::intents::Durability durability = qvdbase::intents::Durability::process;
  uint64_t longestUnsynced = 0;  // with `interval`, in microseconds
  uint64_t unsyncedSince = 0;    // when the first commit was made that may not be on the device
  uint32_t latest = 0;           // the number of the one that began last
  std::atomic<uint32_t> endings = 0;  // for threads that wait for one to end

  // The number of the one that is open, or 0. Threads ask for it without the turn, too.
  Published<uint32_t> openNumber;

  // As a database is opened.
  void choose(Durability wanted);

  void noteEnded(const EndedTransaction& ended) { ended_[ended.number % kKept] = ended; }

  // Where a block is now that was at a position when it was found in a transaction (0: in none).
  // Nothing where it was taken back, and where that is no longer known.
  std::optional<int64_t> presentPosition(uint32_t foundIn, int64_t position) const {
    if (foundIn == 0 || foundIn == openNumber) return position;
    const EndedTransaction& ended = ended_[foundIn % kKept];
    if (ended.number != foundIn) return std::nullopt;
    if (position < ended.limit) return position;
    if (!ended.isCommitted) return std::nullopt;
    return position + ended.shift;
  }

 private:
  static constexpr size_t kKept = 256;
  std::array<EndedTransaction, kKept> ended_ = {};
};

}  // namespace qvdb::detail
