// Taking turns with the other openers of a database.
#include "objects/sharing/turns.h"

#include <algorithm>
#include <exception>
#include <string>

#include "QVDbase/directory_cache.h"
#include "objects/indexes/table_keys.h"
#include "objects/sharing/waiting.h"
#include "objects/transactions/transaction_steps.h"
#include "platform/handles/byte_holder.h"
#include "platform/handles/file_views.h"
#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/handles/turns.h"
#include "platform/host/clock.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/stage.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

using platform::LockByte;
using platform::LockOutcome;
using platform::Sharing;

bool isSharedWriter(int16_t db) {
  const auto* file = platform::findOpenFile(db);
  return file != nullptr && file->sharing == Sharing::shared;
}

std::string holderOf(const OpenDatabase& database, LockByte byte) {
  return platform::inParentheses(platform::holderOfByte(database.handle, byte));
}

// Ends the waiting for a turn, also where it was in vain.
class Waiter {
 public:
  explicit Waiter(const OpenDatabase& database) : database_(database), file_(database.handle) {}
  ~Waiter() { platform::stopWaitingForTurn(file_, &database_); }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

 private:
  const OpenDatabase& database_;
  const int16_t file_;
};

// Where locks do not work, opening for writing has failed; whatever refuses them later must not
// stop the writers.
//
// The writer whose turn it is may be a batch of another thread, which needs the turn of the file to
// come to its end. So that is given up meanwhile. A batch that was opened on this very database
// meanwhile has the turn, and an operation that may be done within it has it, too: false then.
bool takeTurn(const Operation& operation, OwnBatch batch) {
  OpenDatabase& database = operation.database();
  const Waiter waiter(database);
  const LockOutcome outcome = whileRefused(
      database.turnWait(),
      [&] {
        if (database.bulk == nullptr) {
          return platform::takeWritersTurn(database.handle, &database);
        }
        return batch == OwnBatch::isJoined ? LockOutcome::taken : LockOutcome::refused;
      },
      [&](uint64_t length) { operation.pauseWithoutTurn(length); });
  if (outcome == LockOutcome::refused) {
    const std::string who = holderOf(database, LockByte::turn);
    operation.fail(Reason::in_use,
                   "another writer that shares it" + who +
                       " is in the middle of an operation, or has an appender or a writer open");
  }
  engine::dropDirectoryEntry(database.handle);
  return database.bulk == nullptr;
}

LockOutcome takeChange(int16_t db) {
  return platform::takeLockByte(db, LockByte::change, Sharing::exclusive);
}

// A stream of readers, each of whom looks for a moment, must not keep a writer out for ever.
LockOutcome takeChangeThroughGate(const OpenDatabase& database) {
  const int16_t db = database.handle;
  const LockOutcome atGate = whileRefused(database.turnWait(), [db] {
    return platform::takeLockByte(db, LockByte::gate, Sharing::exclusive);
  });
  const LockOutcome outcome = whileRefused(database.turnWait(), [db] { return takeChange(db); });
  if (atGate == LockOutcome::taken) {
    platform::releaseLockByte(db, LockByte::gate, Sharing::exclusive);
  }
  return outcome;
}

// Who announces itself waits until what has begun before must be over, which is four times this
// (looks.cpp). So the answer that there is no reader holds for a while; it is remembered where the
// database has a cache, whose changes make no other calls.
constexpr uint64_t kAnswerHolds = 5'000;  // microseconds

bool isReaderAnnounced(OpenDatabase& database) {
  const int16_t db = database.handle;
  if (platform::writesKnown(db) == 0) return platform::isLockByteHeld(db, LockByte::reader);
  const uint64_t now = platform::microsecondCounter();
  if (database.noReaderAt != 0 && now - database.noReaderAt < kAnswerHolds) return false;
  const bool isAnnounced = platform::isLockByteHeld(db, LockByte::reader);
  database.noReaderAt = isAnnounced ? 0 : now;
  return isAnnounced;
}

// A reader who asks for a look finds the bytes locked nearly always where one change follows the
// other. It needs a moment; one that is stopped does not get that before each change.
constexpr uint64_t kReadersFirst = 20'000;  // microseconds

void letReadersLook(OpenDatabase& database) {
  const auto ask = [&database] {
    return platform::isReaderWaiting(database.handle) ? LockOutcome::refused : LockOutcome::taken;
  };
  const uint64_t longest = database.isReaderLate ? 0 : kReadersFirst;
  database.isReaderLate = whileRefused(longest, ask) == LockOutcome::refused;
}

LockOutcome lockReadersOut(OpenDatabase& database) {
  letReadersLook(database);
  const LockOutcome outcome = takeChange(database.handle);
  return outcome == LockOutcome::refused ? takeChangeThroughGate(database) : outcome;
}

}  // namespace

// One within another one adds nothing.
ChangeTurn::ChangeTurn(const Operation& operation, OwnBatch batch, For what)
    : database_(operation.database()) {
  if (database_.changing == 0) begin(operation, batch, what);
  ++database_.changing;
}

ChangeTurn::~ChangeTurn() {
  if (--database_.changing != 0) return;
  stage_ != nullptr ? endInStage() : end();
}

void ChangeTurn::begin(const Operation& operation, OwnBatch batch, For what) {
  stage_ = operation.stage();
  if (stage_ != nullptr) {
    stage_->save();
    exceptions_ = std::uncaught_exceptions();
    return;
  }
  const int16_t db = database_.handle;
  if (isSharedWriter(db) && database_.bulk == nullptr) hasTurn_ = takeTurn(operation, batch);
  platform::beginChange(db);
  if (!database_.keyIndexes.empty()) noticeWrites(database_);
  if (isReaderAnnounced(database_)) keepReadersOut(operation);
  if (what == For::commit) return;
  try {
    settle(operation);
  } catch (...) {
    end();
    throw;
  }
}

void ChangeTurn::keepReadersOut(const Operation& operation) {
  const LockOutcome outcome = lockReadersOut(database_);
  holdsOff_ = outcome == LockOutcome::taken;
  if (outcome != LockOutcome::refused) return;
  const std::string who = holderOf(database_, LockByte::change);
  end();
  operation.fail(Reason::in_use, "a reader in another process" + who + " does not finish");
}

// An operation that fails must not leave a part of itself to be committed.
void ChangeTurn::endInStage() {
  if (std::uncaught_exceptions() <= exceptions_) return stage_->keep();
  const auto* file = platform::findOpenFile(database_.handle);
  if (file != nullptr) static_cast<void>(stage_->restore(*file));
}

// The lock belongs to all of this process, so its own readers begin to look when it has been given
// up: they would make it theirs.
void ChangeTurn::end() {
  if (!database_.keyIndexes.empty()) noteOwnWrites(database_);
  if (holdsOff_) {
    platform::releaseLockByte(database_.handle, LockByte::change, Sharing::exclusive);
  }
  platform::endChange(database_.handle);
  if (hasTurn_) platform::releaseWritersTurn(database_.handle, &database_);
}

LastChange::LastChange(OpenDatabase& database) noexcept : database_(database) {
  platform::beginChange(database_.handle);
  if (!database_.keyIndexes.empty()) noticeWrites(database_);
  if (!isReaderAnnounced(database_)) return;
  const LockOutcome outcome = lockReadersOut(database_);
  holdsOff_ = outcome == LockOutcome::taken;
  isAlone_ = outcome != LockOutcome::refused;
}

LastChange::~LastChange() {
  if (!database_.keyIndexes.empty()) noteOwnWrites(database_);
  if (holdsOff_) {
    platform::releaseLockByte(database_.handle, LockByte::change, Sharing::exclusive);
  }
  platform::endChange(database_.handle);
}

void beginBatchTurn(const Operation& operation) {
  if (isSharedWriter(operation.db())) takeTurn(operation, OwnBatch::isWaitedFor);
}

void endBatchTurn(OpenDatabase& database) noexcept {
  platform::releaseWritersTurn(database.handle, &database);
}

}  // namespace qvdb::detail
