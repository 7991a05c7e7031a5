// Beginning and ending transactions.
#include "objects/transactions/transaction_steps.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <iterator>
#include <limits>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "QVDbase/directory_cache.h"
#include "failure/failure.h"
#include "format/intent.h"
#include "format/layout.h"
#include "intents/recovery.h"
#include "objects/indexes/index_journal.h"
#include "objects/indexes/table_keys.h"
#include "objects/sharing/turns.h"
#include "objects/transactions/awaited_commits.h"
#include "objects/transactions/held_commits.h"
#include "objects/transactions/own_commit.h"
#include "objects/writing/bulk.h"
#include "platform/handles/file_changes.h"
#include "platform/handles/open_files.h"
#include "platform/host/clock.h"
#include "support/file_transfers.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

using intents::Obstacle;
using intents::Outcome;
using platform::Stage;

constexpr auto kHead = static_cast<size_t>(format::kNewFileSize);

// The handle was opened for this, and the file has slots as a new one has.
void requireUsable(const Operation& operation) {
  operation.requireWritable();
  const auto* file = platform::findOpenFile(operation.db());
  if (file->sharing != platform::Sharing::exclusive) {
    operation.fail(Reason::bad_argument,
                   "transactions need Mode::exclusive: others may write to this one meanwhile");
  }
  const engine::DirectoryNumbers numbers = operation.directory();
  if (numbers.slotCount != format::kNewSlotCount || numbers.slotSize != format::kSlotImageSize) {
    operation.fail(Reason::bad_argument,
                   "transactions need the 32 entries of 144 bytes for tables that this library "
                   "gives to new databases, and it has others; compact it first");
  }
}

// The bytes of a part of the head.
format::PlaceBytes part(const std::vector<uint8_t>& head, int64_t from, int64_t size) {
  return {head.data() + from, static_cast<size_t>(size)};
}

void addHeadPatch(const Stage& stage, int64_t position, int64_t size,
                  intents::StagedChanges* changes) {
  intents::Patch patch{position, part(stage.headBefore(), position, size),
                       part(stage.head(), position, size)};
  if (patch.before != patch.after) changes->patches.push_back(std::move(patch));
}

// Links, then slots, then the number of tables: what is counted last is complete before.
intents::StagedChanges gather(Stage& stage) {
  intents::StagedChanges changes;
  changes.base = stage.base();
  changes.spilled = stage.inFile() - stage.base();
  for (const auto& [position, link] : stage.links()) {
    intents::Patch patch{position, {link.before.data(), link.size}, {link.after.data(), link.size}};
    if (patch.before != patch.after) changes.patches.push_back(std::move(patch));
  }
  for (int i = 0; i < format::kNewSlotCount; ++i) {
    addHeadPatch(stage, format::slotPosition(i), format::kSlotImageSize, &changes);
  }
  addHeadPatch(stage, format::kTableCountPos, 2, &changes);
  changes.gap = stage.gap();
  changes.blocks = stage.takeTail();
  return changes;
}

void makePrelude(const void* databaseID, int64_t position, int64_t length, uint8_t* bytes) {
  const format::Prelude prelude{position, length, platform::secondsSinceEpoch()};
  const auto block = format::encodePrelude(prelude, static_cast<const unsigned char*>(databaseID));
  std::copy(block.begin(), block.end(), bytes);
}

// What the transaction writes early is known for what it is.
std::unique_ptr<Stage> beginStage(const Operation& operation, OpenTransaction& open, int64_t from) {
  const engine::SavedPosition scope(operation.db());
  uint32_t read = 0;
  if (myFileSeek(operation.db(), format::kDatabaseIDPos, kFromStart) != 0 ||
      !support::readFile(operation.db(), open.databaseID.data(),
                         static_cast<uint32_t>(open.databaseID.size()), &read)) {
    return nullptr;
  }
  const intents::HeldPatches& held = operation.database().transactions.log->held();
  return Stage::begin(*platform::findOpenFile(operation.db()), kHead, Stage::kBudget,
                      intents::underlayOf(held), from,
                      {.size = static_cast<size_t>(format::prelude::kBlockSize),
                       .context = open.databaseID.data(),
                       .make = makePrelude});
}

// Whoever waits looks again.
void end(OpenDatabase& database, const EndedTransaction& ended) noexcept {
  Transactions& transactions = database.transactions;
  if (transactions.open->hasNewTables) engine::dropDirectoryEntry(database.handle);
  if (!ended.isCommitted) database.deadBytes = transactions.open->deadBefore;
  database.noted.endTransaction(transactions.open->changesBefore, ended.limit,
                                ended.isCommitted ? std::optional(ended.shift) : std::nullopt);
  transactions.noteEnded(ended);
  transactions.openNumber = 0;
  transactions.open.reset();
  ++database.changes;
  endIndexJournals(database, ended);
  transactions.endings.fetch_add(1);
  transactions.endings.notify_all();
}

// The one of this number, in its thread.
OpenTransaction& requireOpen(const Operation& operation, uint32_t number) {
  Transactions& transactions = operation.database().transactions;
  if (number == 0 || transactions.openNumber != number) {
    operation.fail(Reason::bad_argument, "it has ended: it was committed or rolled back");
  }
  if (!transactions.open->maker.isStillOwn()) operation.requireOwn();
  if (!transactions.open->isOfThisThread()) {
    operation.fail(Reason::bad_argument, "another thread has begun it");
  }
  return *transactions.open;
}

intents::Commit disturbed() {
  intents::Commit commit;
  commit.obstacle = Obstacle::changedMeanwhile;
  return commit;
}

// Nearly always there is none, and then no reader needs to be kept out.
bool hasPendingWord(const Operation& operation) {
  const engine::SavedPosition scope(operation.db());
  unsigned char word[format::pending::kSize] = {};
  if (myFileSeek(operation.db(), format::pending::kPosition, kFromStart) != 0) return false;
  uint32_t read = 0;
  static_cast<void>(support::readFile(operation.db(), word, sizeof word, &read));
  return std::any_of(std::begin(word), std::end(word),
                     [](unsigned char byte) { return byte != 0; });
}

constexpr const char* kBroken =
    "an earlier write or sync of it failed, and what the device holds is not known; nothing more "
    "can "
    "be written until it is opened again";

// Where nothing was applied the message says so.
std::string whyNotCommitted(const intents::Commit& commit) {
  const std::string nothing = "; nothing of it was applied";
  const std::string host = commit.host ? ": " + commit.host.message() : std::string();
  if (commit.outcome == Outcome::committed && commit.obstacle == Obstacle::changedMeanwhile) {
    return "it is committed, but the file was written to by other means before it was in its "
           "place: "
           "in tables that were changed by these it is missing, and a check names them";
  }
  if (commit.outcome == Outcome::committed) {
    return "it is committed, but the system refuses to complete it" + host +
           "; that is done when the database is opened again, and nothing more can be written "
           "until then";
  }
  if (commit.outcome == Outcome::undecided) {
    return "the system does not report what the device holds" + host +
           "; whether it is committed shows when the database is opened again, and nothing more "
           "can be written until then";
  }
  switch (commit.obstacle) {
    case Obstacle::changedMeanwhile:
      return "the file was written to by other means since it began" + nothing;
    case Obstacle::notTakable:
    case Obstacle::otherLayout:
      return "it would change what is damaged" + nothing;
    case Obstacle::tooLarge:
      return "it changes too much for one" + nothing;
    case Obstacle::cannotRead:
      return "the system cannot read the file" + host + nothing;
    case Obstacle::isBroken:
      return kBroken + nothing;
    default:
      return "the system refuses a write" + host + nothing;
  }
}

Reason reasonOf(const intents::Commit& commit) {
  if (commit.obstacle == Obstacle::changedMeanwhile) return Reason::changed_meanwhile;
  if (commit.outcome != Outcome::nothingApplied) return Reason::cannot_write;
  switch (commit.obstacle) {
    case Obstacle::notTakable:
    case Obstacle::otherLayout:
      return Reason::damaged;
    case Obstacle::tooLarge:
      return Reason::too_large;
    case Obstacle::cannotRead:
      return Reason::cannot_read;
    default:
      if (commit.host == std::errc::file_too_large) return Reason::size_limit;
      return commit.host == std::errc::no_space_on_device ? Reason::disk_full
                                                          : Reason::cannot_write;
  }
}

[[noreturn]] void failCommit(const OpenDatabase& database, const char* name,
                             const intents::Commit& commit) {
  ErrorDetails details;
  details.system_code = commit.host;
  failure::throwError(database.path, name, reasonOf(commit), whyNotCommitted(commit),
                      std::move(details));
}

// Commits, but for the sync where `awaited` is given.
intents::Commit commitStage(const Operation& operation, const intents::StagedChanges& changes,
                            AwaitedCommit* awaited) {
  OpenDatabase& database = operation.database();
  intents::CommitLog& log = *database.transactions.log;
  static_cast<void>(placeSynced(database));
  if (awaited == nullptr) return log.commit(changes);
  const intents::Commit commit = log.append(changes);
  const bool isAppended = commit.outcome == Outcome::committed && commit.ticket > log.lastSynced();
  if (isAppended) await(database, awaited, commit.ticket);
  return commit;
}

}  // namespace

StageInUse::StageInUse(const OpenDatabase& database) {
  const OpenTransaction* open = database.transactions.open.get();
  if (open == nullptr || !open->maker.isStillOwn()) return;
  if (platform::useStage(database.handle, open->stage.get())) used_ = database.handle;
}

StageInUse::~StageInUse() {
  if (used_ != 0) platform::leaveStage(used_);
}

bool commitsEach(const std::shared_ptr<OpenDatabase>& database) {
  if (database == nullptr || database->transactions.durability == intents::Durability::process) {
    return false;
  }
  const DatabaseTurn turn(*database);
  const OpenTransaction* open = database->transactions.open.get();
  return turn.handle() != 0 && (open == nullptr || !open->isOfThisThread());
}

uint32_t beginTransaction(const std::shared_ptr<OpenDatabase>& database, const char* name,
                          int64_t from) {
  const Operation operation(database, name, Sees::file);
  Transactions& transactions = operation.database().transactions;
  if (transactions.open != nullptr) {
    operation.requireOwn();
    operation.fail(Reason::bad_argument,
                   "this thread has one open on it already; commit it or roll it back first");
  }
  {
    const engine::SavedPosition scope(operation.db());
    requireUsable(operation);
  }
  if (from == 0) operation.requireNoBulk();
  if (transactions.log == nullptr) {
    recover(operation);
    transactions.log =
        std::make_unique<intents::CommitLog>(operation.db(), transactions.durability);
    transactions.log->holdBack(transactions.durability == intents::Durability::interval
                                   ? std::numeric_limits<uint32_t>::max()
                                   : 0);
    transactions.heldView = Stage::forReading(intents::underlayOf(transactions.log->held()));
  }
  if (transactions.log->isBroken()) {
    failBroken(operation);
  }
  auto open = std::make_unique<OpenTransaction>();
  open->stage = beginStage(operation, *open, from);
  if (open->stage == nullptr) {
    operation.fail(Reason::cannot_read, "the system cannot read the file, or memory is short");
  }
  open->writesBefore = platform::writesHere(operation.db());
  open->number = ++transactions.latest;
  if (open->number == 0) open->number = ++transactions.latest;
  beginIndexJournals(operation.database());
  open->changesBefore = operation.database().changes;
  open->deadBefore = operation.database().deadBytes;
  transactions.openNumber = open->number;
  transactions.open = std::move(open);
  return transactions.openNumber;
}

namespace {

// Where `awaited` gets a ticket, it is in the list of those who are still to wait for the device.
void commitInTurn(const std::shared_ptr<OpenDatabase>& database, uint32_t number, const char* name,
                  AwaitedCommit* awaited) {
  const Operation operation(database, name, Sees::fileAtOnce);
  OpenTransaction& transaction = requireOpen(operation, number);
  operation.requireNoBulk();
  Stage& stage = *transaction.stage;
  const bool isDisturbed =
      platform::writesHere(operation.db()) != transaction.writesBefore + stage.writesMade();
  // Where blocks went to the file early all of them do, so that none is split.
  const bool isLarge = stage.inFile() != stage.base();
  const bool isWhole = !stage.isBroken() && !isDisturbed &&
                       (!isLarge || stage.spill(*platform::findOpenFile(operation.db())));
  if (!isWhole) {
    rollBack(*database, number);
    if (isDisturbed) failCommit(*database, name, disturbed());
    operation.failIfWriteWasRefused(0);
    operation.fail(Reason::cannot_write,
                   "one of its operations could not be completed; nothing of it was applied");
  }
  const int64_t limit = stage.inFile();
  intents::Commit commit;
  bool isCommitted = true;
  if (!stage.isEmpty()) {
    const ChangeTurn turn(operation, OwnBatch::isJoined, ChangeTurn::For::commit);
    try {
      commit = commitStage(operation, gather(stage),
                           awaited != nullptr && isAwaited(operation) ? awaited : nullptr);
    } catch (const std::bad_alloc&) {  // nothing is in the file, and the stage may have lost blocks
      rollBack(*database, number);
      throw;
    }
    isCommitted = commit.outcome == Outcome::committed;
    syncAfterCommit(*database, &commit);
    if (commit.outcome == Outcome::nothingApplied) {
      static_cast<void>(stage.discard(*platform::findOpenFile(operation.db())));
    } else {
      // The intent and the announcement, which are dead once it is carried out.
      database->noteDead(static_cast<uint64_t>(commit.shift + stage.announced()));
    }
  } else {
    static_cast<void>(stage.discard(*platform::findOpenFile(operation.db())));
    commit.outcome = Outcome::committed;
  }
  end(*database, {number, limit, commit.shift, isCommitted});
  if (!isCommitted || commit.obstacle != Obstacle::none) failCommit(*database, name, commit);
}

}  // namespace

void commitTransaction(const std::shared_ptr<OpenDatabase>& database, uint32_t number,
                       const char* name) {
  AwaitedCommit awaited;
  commitInTurn(database, number, name, canAwait() ? &awaited : nullptr);
  if (awaited.ticket == 0) return;
  waitForDevice(database, name, &awaited);
  if (awaited.commit.obstacle != Obstacle::none) failCommit(*database, name, awaited.commit);
}

void rollBack(OpenDatabase& database, std::optional<uint32_t> number) noexcept {
  const DatabaseTurn turn(database);
  Transactions& transactions = database.transactions;
  if (transactions.open == nullptr ||
      transactions.open->number != number.value_or(transactions.open->number))
    return;
  if (!transactions.open->maker.isStillOwn()) return;
  Stage& stage = *transactions.open->stage;
  if (database.bulk != nullptr) database.bulk->forget();
  const int64_t limit = stage.base();
  if (const auto* file = platform::findOpenFile(database.handle)) {
    static_cast<void>(stage.discard(*file));
  }
  end(database, {transactions.open->number, limit, 0, false});
}

void recover(const Operation& operation) {
  if (!hasPendingWord(operation)) return;
  const ChangeTurn turn(operation, OwnBatch::isJoined, ChangeTurn::For::commit);
  const intents::Recovered recovered = intents::recover(operation.db());
  engine::dropDirectoryEntry(operation.db());  // there may be more tables now
  if (recovered.succeeded) return;
  ErrorDetails details;
  details.system_code = recovered.host;
  failure::throwError(operation.database().path, operation.name(), Reason::cannot_write,
                      "what was committed before it was closed last cannot be completed: " +
                          recovered.host.message(),
                      std::move(details));
}

void settle(const Operation& operation) {
  const Transactions& transactions = operation.database().transactions;
  if (transactions.log == nullptr) return;
  operation.leaveHeldView();
  const bool isSettled = !transactions.log->isBroken() && transactions.log->settle();
  noteHeld(operation.database());
  if (!isSettled) failBroken(operation);
}

void failBroken(const Operation& operation) {
  operation.fail(Reason::cannot_write, kBroken);
}

bool settleAtEnd(OpenDatabase& database) noexcept {
  const Transactions& transactions = database.transactions;
  if (transactions.log == nullptr || !transactions.log->hasOpenIntents()) return true;
  if (!transactions.holds) return transactions.log->settle();
  const LastChange change(database);
  const bool isSettled = change.isAlone() ? transactions.log->settle() : transactions.log->sync();
  noteHeld(database);
  return isSettled;
}

}  // namespace qvdb::detail
