// Waiting for the device together.
#include "objects/transactions/awaited_commits.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "objects/open_database.h"
#include "objects/sharing/turns.h"
#include "objects/transactions/held_commits.h"
#include "platform/handles/file_changes.h"
#include "platform/handles/turns.h"
#include "platform/host/cancellation.h"
#include "platform/host/host_failure.h"
#include "platform/host/threads.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

using intents::CommitLog;
using intents::GroupSync;
using intents::Obstacle;
using intents::Outcome;

// Patches are written while another thread's transaction may be open, which finds by the number of
// writes whether others have changed the file.
void place(OpenDatabase& database) {
  Transactions& transactions = database.transactions;
  const size_t before = platform::writesHere(database.handle);
  static_cast<void>(transactions.log->placeSynced());
  if (transactions.open != nullptr) {
    transactions.open->writesBefore += platform::writesHere(database.handle) - before;
  }
  noteHeld(database);
}

// Where a reader in another process keeps the change from being made, or memory is short, the next
// commit puts it into place: it is on the device.
void placeUnlessInUse(const std::shared_ptr<OpenDatabase>& database, const char* name) noexcept {
  try {
    const Operation operation(database, name, Sees::fileAtOnce);
    const ChangeTurn turn(operation, OwnBatch::isJoined, ChangeTurn::For::commit);
    place(*database);
  } catch (const std::exception&) {
  }
}

// In the turn of the database, whose log is there: it decides all when it goes.
void noteWhatIsOver(const std::shared_ptr<OpenDatabase>& database, const char* name) noexcept {
  CommitLog& log = *database->transactions.log;
  if (log.groupSync() == nullptr || !log.groupSync()->isOver()) return;
  if (log.noteGroupSync()) placeUnlessInUse(database, name);
  decideAwaited(*database);
}

// So many commits after which a thread counts as alone, if no other has had the turn meanwhile.
constexpr uint32_t kAlone = 8;

bool isUsedByOthers(const Operation& operation) {
  Transactions& transactions = operation.database().transactions;
  const uint32_t handovers = platform::handoversOf(operation.db());
  if (std::exchange(transactions.handovers, handovers) != handovers) transactions.commitsAlone = 0;
  transactions.commitsAlone = std::min(transactions.commitsAlone + 1, kAlone + 1);
  return transactions.commitsAlone <= kAlone || transactions.awaited != nullptr;
}

}  // namespace

bool canAwait() noexcept {
  return !platform::isOnlyThread() && !platform::hasTurn();
}

bool isAwaited(const Operation& operation) noexcept {
  return operation.database().transactions.durability == intents::Durability::power &&
         platform::isOnlyWriterHere(operation.db()) && isUsedByOthers(operation);
}

void await(OpenDatabase& database, AwaitedCommit* awaited, uint64_t ticket) noexcept {
  awaited->ticket = ticket;
  awaited->next = database.transactions.awaited;
  database.transactions.awaited = awaited;
}

void waitForDevice(const std::shared_ptr<OpenDatabase>& database, const char* name,
                   AwaitedCommit* awaited) {
  const std::shared_ptr<OpenDatabase> kept = database;
  const platform::Uncancelled uncancelled;
  for (;;) {
    std::shared_ptr<GroupSync> sync;
    bool isOwn = false;
    {
      const DatabaseTurn turn(*kept);
      if (!awaited->isDecided) noteWhatIsOver(kept, name);
      if (awaited->isDecided) return;
      CommitLog& log = *kept->transactions.log;
      isOwn = log.groupSync() == nullptr;
      sync = log.beginGroupSync();
      if (sync == nullptr) {  // memory is short
        if (log.sync()) placeUnlessInUse(kept, name);
        decideAwaited(*kept);
        return;
      }
    }
    isOwn ? sync->run() : sync->wait();
  }
}

namespace {

void decide(Transactions& transactions, bool all) noexcept {
  CommitLog& log = *transactions.log;
  const bool hasLost = log.hasLost();
  for (AwaitedCommit** each = &transactions.awaited; *each != nullptr;) {
    AwaitedCommit& awaited = **each;
    const bool isOnDevice = log.lastSynced() >= awaited.ticket;
    if (!isOnDevice && !log.isBroken() && !all) {
      each = &awaited.next;
      continue;
    }
    awaited.commit.outcome = isOnDevice ? Outcome::committed : Outcome::undecided;
    awaited.commit.obstacle = log.brokenBy();
    if (log.isBroken()) {
      awaited.commit.host = log.groupFailure() ? log.groupFailure() : platform::lastHostFailure();
    } else if (!isOnDevice) {
      awaited.commit.obstacle = Obstacle::cannotSync;
    } else if (hasLost) {
      awaited.commit.obstacle = Obstacle::changedMeanwhile;
    }
    *each = awaited.next;
    awaited.isDecided = true;
  }
}

}  // namespace

void decideAwaited(OpenDatabase& database) noexcept {
  decide(database.transactions, false);
}

void endAwaiting(OpenDatabase& database) noexcept {
  Transactions& transactions = database.transactions;
  if (transactions.log == nullptr) return;
  if (database.opener.isStillOwn()) return decide(transactions, true);
  transactions.awaited = nullptr;
  if (transactions.log->groupSync() != nullptr) transactions.log->groupSync()->leave();
}

}  // namespace qvdb::detail
