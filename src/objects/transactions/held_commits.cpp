// Commits that wait for the device.
#include "objects/transactions/held_commits.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <limits>
#include <new>

#include "QVDbase/directory_cache.h"
#include "format/layout.h"
#include "objects/sharing/turns.h"
#include "objects/transactions/awaited_commits.h"
#include "objects/transactions/transaction_steps.h"
#include "platform/host/clock.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

bool isTime(const Transactions& transactions) {
  const uint64_t passed = platform::microsecondCounter() - transactions.unsyncedSince;
  return passed >= transactions.longestUnsynced;
}

// Where memory is short the patches stay held: what is committed is not taken back.
bool putInPlaceIfMemoryAllows(intents::CommitLog& log) {
  try {
    return log.putInPlace();
  } catch (const std::bad_alloc&) {
    return true;
  }
}

bool isUnsynced(const intents::CommitLog& log) {
  return log.lastSynced() != log.lastAppended();
}

}  // namespace

void Transactions::choose(Durability wanted) {
  switch (wanted.kind_) {
    case Durability::Kind::process:
      durability = intents::Durability::process;
      break;
    case Durability::Kind::power:
      durability = intents::Durability::power;
      break;
    case Durability::Kind::interval:
      durability = intents::Durability::interval;
      break;
  }
  constexpr int64_t kLongest = std::numeric_limits<int64_t>::max() / 1'000;
  const int64_t milliseconds = std::clamp<int64_t>(wanted.time_.count(), 0, kLongest);
  longestUnsynced = static_cast<uint64_t>(milliseconds) * 1'000;
}

platform::Stage* heldViewOf(const OpenDatabase& database) {
  const Transactions& transactions = database.transactions;
  return transactions.holds && database.opener.isStillOwn() ? transactions.heldView.get() : nullptr;
}

bool waitsForDevice(const OpenDatabase& database) noexcept {
  const Transactions& transactions = database.transactions;
  return transactions.durability == intents::Durability::interval && transactions.log != nullptr &&
         isUnsynced(*transactions.log);
}

void forgetLog(OpenDatabase& database) noexcept {
  Transactions& transactions = database.transactions;
  endAwaiting(database);
  transactions.holds = transactions.holdsTables = false;
  transactions.heldView.reset();
  transactions.log.reset();
}

void noteHeld(OpenDatabase& database) noexcept {
  Transactions& transactions = database.transactions;
  const auto& held = transactions.log->held().byPosition();  // the header's fields are the first
  const bool heldTables = transactions.holdsTables;
  transactions.holds = !held.empty();
  transactions.holdsTables = !held.empty() && held.front().position == format::kTableCountPos;
  if (heldTables || transactions.holdsTables) engine::dropDirectoryEntry(database.handle);
  decideAwaited(database);
}

bool placeSynced(OpenDatabase& database) {
  Transactions& transactions = database.transactions;
  if (!transactions.holds) return true;
  const bool isDone = transactions.log->placeSynced();
  noteHeld(database);
  return isDone;
}

void syncAfterCommit(OpenDatabase& database, intents::Commit* commit) {
  Transactions& transactions = database.transactions;
  intents::CommitLog& log = *transactions.log;
  if (transactions.durability == intents::Durability::interval &&
      commit->outcome == intents::Outcome::committed) {
    const bool isFirst = log.lastAppended() == log.lastSynced() + 1;
    if (isFirst) transactions.unsyncedSince = platform::microsecondCounter();
    if (isTime(transactions) && !putInPlaceIfMemoryAllows(log)) {
      commit->obstacle = log.brokenBy();
      const bool isOnDevice = !isUnsynced(log);
      if (!isOnDevice) commit->outcome = intents::Outcome::undecided;
    }
  }
  noteHeld(database);
}

void syncBeforeReading(OpenDatabase& database) {
  const Transactions& transactions = database.transactions;
  if (waitsForDevice(database) && isTime(transactions)) {
    static_cast<void>(transactions.log->sync());
  }
}

bool putInPlace(const Operation& operation) {
  OpenDatabase& database = operation.database();
  if (!database.transactions.holds || !database.opener.isStillOwn()) return false;
  const ChangeTurn turn(operation, OwnBatch::isJoined, ChangeTurn::For::commit);
  operation.leaveHeldView();
  const bool isDone = database.transactions.log->putInPlace();
  noteHeld(database);
  if (!isDone) failBroken(operation);
  return true;
}

}  // namespace qvdb::detail
