// Reading beside writers.
#include "objects/sharing/looks.h"

#include <utility>

#include "QVDbase/directory_cache.h"
#include "format/layout.h"
#include "objects/indexes/table_index.h"
#include "objects/sharing/waiting.h"
#include "platform/handles/byte_holder.h"
#include "platform/handles/file_views.h"
#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/host/clock.h"
#include "platform/host/host_failure.h"
#include "platform/transfer/call_state.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

using platform::LockByte;
using platform::LockOutcome;
using platform::Sharing;

// An operation that had begun before the reader announced itself does not know of it. One call of a
// writer is much shorter than this; and so long a writer that takes no part is given to complete
// what looks like damage.
constexpr uint64_t kLongestChange = 20'000;  // microseconds

// Other threads have the turn of the file meanwhile, where the operation is at its beginning: not
// within a walk, whose thread is in the middle of something.
class Waiting {
 public:
  explicit Waiting(const Operation& operation) : operation_(operation) {}

  void pause(uint64_t microseconds) const {
    const bool isAtBeginning =
        operation_.database().looks == 0 && !platform::callState().isInScope();
    isAtBeginning ? operation_.pauseWithoutTurn(microseconds) : platform::pauseFor(microseconds);
  }

  // A pause that a signal ends is continued; not for ever, in case the clock does not go on.
  void letPass(uint64_t since, uint64_t microseconds) const {
    for (int i = 0; i < 100; ++i) {
      const uint64_t passed = platform::microsecondCounter() - since;
      if (passed >= microseconds) return;
      pause(microseconds - passed);
    }
  }

 private:
  const Operation& operation_;
};

void waitForEarlierChanges(const Operation& operation) {
  OpenDatabase& database = operation.database();
  if (!database.mayMissChanges) return;
  Waiting(operation).letPass(database.announcedAt, kLongestChange);
  database.mayMissChanges = false;
}

void beginViewLook(OpenDatabase& database) {
  if (database.viewed == nullptr) return;
  platform::beginViewLook(database.handle);
  database.holdsViewLook = true;
}

void endViewLook(OpenDatabase& database) {
  if (std::exchange(database.holdsViewLook, false)) platform::endViewLook(database.handle);
}

// The lock belongs to all of this process, whose writers it would not exclude: the look of a view
// does, from before the lock is taken until it has been given up. It ends while another process is
// waited for.
LockOutcome takeLook(OpenDatabase& database) {
  beginViewLook(database);
  const LockOutcome outcome = platform::takeLook(database.handle);
  if (outcome == LockOutcome::refused) endViewLook(database);
  return outcome;
}

void ask(OpenDatabase& database) {
  database.asksForLook = true;
  platform::askForLook(database.handle);
}

void stopAsking(OpenDatabase& database) {
  if (std::exchange(database.asksForLook, false)) platform::stopAskingForLook(database.handle);
}

// A writer that makes one change after the other leaves the bytes free for a moment only, but for
// longer while a reader asks for a look. What one thread asks another one may take back.
LockOutcome takeLookInTime(const Operation& operation) {
  OpenDatabase& database = operation.database();
  const Waiting waiting(operation);
  const LockOutcome outcome = whileRefused(
      database.turnWait(),
      [&] {
        const LockOutcome found = takeLook(database);
        if (found == LockOutcome::refused) ask(database);
        return found;
      },
      [&](uint64_t length) { waiting.pause(length); });
  stopAsking(database);
  return outcome;
}

void beginBesideProcesses(const Operation& operation) {
  OpenDatabase& database = operation.database();
  waitForEarlierChanges(operation);
  platform::renewAnnouncement(database.handle);
  const LockOutcome outcome = takeLookInTime(operation);
  if (outcome == LockOutcome::refused) {
    const std::string who =
        platform::inParentheses(platform::holderOfByte(database.handle, LockByte::change));
    operation.fail(Reason::in_use, "another process" + who + " is in the middle of a change of it");
  }
  database.holdsLook = outcome == LockOutcome::taken;
}

// A database that is open exclusively is changed in this process only. That it is so ends with a
// change, as which closing it counts, and for ever.
void begin(const Operation& operation) {
  OpenDatabase& database = operation.database();
  if (database.isViewOfExclusive()) {
    beginViewLook(database);
    if (database.isViewOfExclusive()) return;
    endViewLook(database);
  }
  beginBesideProcesses(operation);
}

void end(OpenDatabase& database) {
  database.committed.end();
  if (std::exchange(database.holdsLook, false)) platform::releaseLook(database.handle);
  endViewLook(database);
}

// What the threads of the parent were at has no end here, and their locks are the parent's.
void forgetParentsOperations(OpenDatabase& database) {
  database.committed.end();
  database.looks = database.changing = 0;
  database.holdsLook = database.holdsViewLook = database.asksForLook = false;
}

// What others have committed is in its place wherever nothing is laid over the file. An exclusive
// opener of this process sees to it for its views, but for commits that wait for the device.
void showCommitted(const Operation& operation) {
  OpenDatabase& database = operation.database();
  if (database.isViewOfExclusive() && !database.viewed->transactions.holds) return;
  try {
    database.committed.begin(operation);
  } catch (...) {
    end(database);
    throw;
  }
}

// What the error can come from, as it is now: the slot of its table, or header and directory where
// it is not about one.
std::string bytesInDoubt(const Operation& operation) {
  engine::SavedPosition scope(operation.db());
  const bool isOfTable = operation.slotPos() != 0;
  std::string bytes(isOfTable ? operation.slotSize() : format::kNewFileSize, '\0');
  uint32_t count = 0;
  if (!support::seekTo(operation.db(), operation.slotPos())) return {};
  static_cast<void>(
      support::readFile(operation.db(), bytes.data(), static_cast<uint32_t>(bytes.size()), &count));
  return bytes;
}

}  // namespace

void announce(OpenDatabase& database) {
  const auto* file = platform::findOpenFile(database.handle);
  if (file == nullptr || file->sharing == Sharing::exclusive) return;
  database.isBesideWriters = true;
  // In a child, the entry that it has joined can be one that it has got from its parent. Where that
  // cannot be separated, the first operation tries again.
  if (!platform::separateReaders(database.handle, database.place.native())) {
    database.forkDepth = platform::forkDepth() - 1;
    return;
  }
  database.isAnnounced = platform::announceReader(database.handle);
  database.announcedAt = platform::microsecondCounter();
  database.mayMissChanges = platform::isOpenForWritingElsewhere(database.handle);
}

// What the parent was changing when it forked began before the announcement.
void separateFromParent(const Operation& operation) {
  OpenDatabase& database = operation.database();
  if (!platform::separateReaders(operation.db(), database.place.native())) {
    operation.fail(Reason::opened_elsewhere,
                   "the process that opened it is another one, of which this is a child, and its "
                   "path no longer leads to it; open it again here");
  }
  database.forkDepth = platform::forkDepth();
  forgetParentsOperations(database);
  markIndexesStale(database);
  database.isBesideWriters = true;
  database.isAnnounced = platform::announceReader(operation.db());
  database.announcedAt = platform::microsecondCounter();
  database.mayMissChanges = true;
}

// What the parent has announced is not counted among what this process has.
void withdraw(OpenDatabase& database) noexcept {
  const bool isOfThisProcess = database.forkDepth == platform::forkDepth();
  if (!isOfThisProcess) forgetParentsOperations(database);
  stopAsking(database);
  if (database.isAnnounced && isOfThisProcess) platform::withdrawReader(database.handle);
  database.isAnnounced = false;
}

// The numbers in the directory cache may be of an earlier moment.
Look::Look(const Operation& operation) : database_(operation.database()) {
  if (database_.looks == 0) {
    begin(operation);
    engine::dropDirectoryEntry(database_.handle);
    showCommitted(operation);
  }
  ++database_.looks;
}

Look::~Look() {
  if (--database_.looks == 0) end(database_);
}

// Nothing that was read before the pause is used after it.
void Steps::pause() const {
  OpenDatabase& database = operation_.database();
  if (database.looks != 1) return;
  end(database);
  begin(operation_);
  platform::callState().forgetWhatWasRead();
  showCommitted(operation_);
}

void Doubt::weigh(const Error& error) {
  if (!saysWhatTheFileHolds(error.reason())) throw;
  const bool mayBeChanging = platform::isOpenForWritingElsewhere(operation_.db());
  // That something is missing is what the file says; that something is damaged may be what a change
  // makes of it, which shows in the directory.
  const bool isMissing =
      error.reason() == Reason::record_missing || error.reason() == Reason::table_missing;
  std::string found = error.what() + (isMissing ? std::string() : bytesInDoubt(operation_));
  if (found == seen_) throw;
  Place place = {error.table(), error.record_number()};
  if (!place.record || place != place_) looksAtPlace_ = 0;
  if (++looksAtPlace_ == kLooks) throw;
  if (++looks_ == kLooks) {
    operation_.fail(Reason::changed_meanwhile,
                    "another process changed it again and again while it was read; try again");
  }
  seen_ = std::move(found);
  place_ = std::move(place);
  platform::forgetHostFailure();
  if (mayBeChanging) {
    Waiting(operation_).letPass(platform::microsecondCounter(), kLongestChange);
  }
}

}  // namespace qvdb::detail
