// What a Database, its tables and its records share.
#include "objects/open_database.h"

#include <qvdbase/qvdbase.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "QVDbase/directory_cache.h"
#include "failure/failure.h"
#include "format/layout.h"
#include "handle/database_handle.h"
#include "objects/sharing/looks.h"
#include "objects/transactions/held_commits.h"
#include "objects/transactions/transaction_steps.h"
#include "objects/writing/bulk.h"
#include "platform/handles/file_views.h"
#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/host/cancellation.h"
#include "platform/host/clock.h"
#include "platform/host/host_failure.h"
#include "platform/transfer/mirror.h"
#include "platform/transfer/stage.h"
#include "platform/transfer/transfer.h"

using namespace qvdbase;

namespace qvdb::detail {

OpenDatabase::~OpenDatabase() {
  if (handle != 0) close();
}

void OpenDatabase::takeOver(OpenDatabase& other) noexcept {
  const DatabaseTurn turn(other);
  isBesideWriters = other.isBesideWriters;
  isAnnounced = std::exchange(other.isAnnounced, false);
  mayMissChanges = other.mayMissChanges;
  announcedAt = other.announcedAt;
  opener = other.opener;
  forkDepth = other.forkDepth;
  noReaderAt = 0;
  committed = CommittedView();
  handle = other.handle;
  other.handle = 0;
}

int64_t OpenDatabase::placeNow(int64_t position, uint32_t foundIn) const {
  if (foundIn == opening) return position;
  if (foundIn != compacted || compacted + 1 != opening) return 0;
  const auto found = std::ranges::lower_bound(moves, position, {}, &upkeep::Move::from);
  return found != moves.end() && found->from == position ? found->to : 0;
}

// Those who wait for the turn of the old handle find the new one then.
int OpenDatabase::continueWith(int16_t made, std::vector<upkeep::Move> moved) noexcept {
  const int16_t closed = handle;
  const platform::Turn turn(made);
  forgetLog(*this);  // it is of the file that is closed
  platform::stopWaitingForTurn(closed, this);
  platform::beginChange(closed);
  compacted = opening;
  moves = std::move(moved);
  ++opening;
  ++changes;
  handle = made;
  platform::endChange(closed);
  return CloseDBase(closed);
}

int OpenDatabase::close() noexcept {
  const bool isSafe = !opener.isStillOwn() || settleAtEnd(*this) || !waitsForDevice(*this);
  forgetLog(*this);
  transactions.openNumber = 0;  // only in a child, which has it from its parent
  transactions.open.reset();
  unplaced.reset();  // removes the file, while no other opener can have begun to use it
  withdraw(*this);
  isBesideWriters = false;
  const int16_t closed = handle;
  if (!opener.isStillOwn()) {
    handle = 0;
    return CloseDBase(closed);
  }
  platform::stopWaitingForTurn(closed, this);
  // From then on looks through readers exclude other processes by themselves. In a child they do so
  // from their first one on.
  platform::beginChange(closed);
  handle = 0;
  platform::endChange(closed);
  const int result = CloseDBase(closed);
  return isSafe ? result : 0;
}

void OpenDatabase::takeBackOpen() noexcept {
  if (bulk != nullptr) bulk->discard();
  rollBack(*this);
}

namespace {

// Not inline, as failClosed(): an operation that begins needs no memory for a message then.
[[noreturn]] __attribute__((noinline)) void failWithout(const char* operation) {
  failure::throwError(operation, Reason::not_open, "no database is open");
}

// Objects of the layer that were made without a database have none.
OpenDatabase& databaseOf(const std::shared_ptr<OpenDatabase>& database, const char* operation) {
  if (database == nullptr) failWithout(operation);
  return *database;
}

[[noreturn]] __attribute__((noinline)) void failClosed(const Operation& operation) {
  operation.fail(Reason::not_open, "it was closed");
}

}  // namespace

bool saysWhatTheFileHolds(Reason reason) {
  switch (reason) {
    case Reason::not_a_database:
    case Reason::directory_damaged:
    case Reason::chain_damaged:
    case Reason::data_damaged:
    case Reason::payload_damaged:
    case Reason::table_missing:
    case Reason::record_missing:
      return true;
    default:
      return false;
  }
}

bool OpenDatabase::wantsChecksum(Id table, Checksum wanted) const {
  if (wanted != Checksum::by_default) return wanted == Checksum::yes;
  for (const auto& [id, isWanted] : tableChecksums) {
    if (id == table) return isWanted;
  }
  return checksums;
}

void DatabaseTurn::takeAnew(const OpenDatabase& database) {
  while (database.handle != handle_) {
    handle_ = database.handle;
    turn_.exchangeFor(handle_);
  }
}

Operation::Operation(const std::shared_ptr<OpenDatabase>& database, const char* name, Sees sees)
    : database_(databaseOf(database, name)),
      name_(name),
      turn_(database_),
      db_(turn_.handle()),
      opening_(database_.opening) {
  platform::forgetHostFailure();
  if (db_ == 0) failClosed(*this);
  if (database_.transactions.open != nullptr || database_.transactions.holds) useStages(sees);
  if (database_.forkDepth != platform::forkDepth()) separateFromParent(*this);
  if (database_.cacheHolders != 0) usesMirror_ = platform::useMirror(db_);
}

// In a process made by fork there is none: its parent has it. Not inline, as enterTransaction():
// most operations find no transaction.
__attribute__((noinline)) void Operation::waitForTransaction() const {
  const Transactions& transactions = database_.transactions;
  while (transactions.open != nullptr && transactions.open->maker.isStillOwn() &&
         !transactions.open->isOfThisThread()) {
    const uint32_t endings = transactions.endings;
    {
      const platform::TurnPause pause;
      const platform::Uncancelled uncancelled;
      transactions.endings.wait(endings);
    }
    const bool isSame = database_.handle == db_ && database_.opening == opening_;
    if (!isSame) fail(Reason::not_open, "it was closed meanwhile");
  }
}

platform::Stage* Operation::stageFor(Sees sees) const {
  if (sees != Sees::transaction) return nullptr;
  const OpenTransaction* open = database_.transactions.open.get();
  if (open == nullptr) return heldViewOf(database_);
  return open->isOfThisThread() ? open->stage.get() : nullptr;
}

__attribute__((noinline)) void Operation::useStages(Sees sees) {
  if (sees != Sees::fileAtOnce) waitForTransaction();
  platform::Stage* const wanted = stageFor(sees);
  platform::Stage* const view = database_.transactions.heldView.get();
  const auto* file = platform::findOpenFile(db_);
  const platform::Stage* const used = file != nullptr ? file->stage : nullptr;
  if (used == nullptr && wanted == view && view != nullptr) syncBeforeReading(database_);
  if (used != nullptr && used == view && used != wanted) {
    platform::leaveStage(db_);
    setsViewAside_ = true;
  }
  if (wanted != nullptr) usesStage_ = platform::useStage(db_, wanted);
  if ((usesStage_ || setsViewAside_) && hidesTables()) engine::dropDirectoryEntry(db_);
}

// Whether the numbers in the directory cache are not those that others read.
bool Operation::hidesTables() const {
  const OpenTransaction* open = database_.transactions.open.get();
  return (open != nullptr && open->hasNewTables) || database_.transactions.holdsTables;
}

// The database may have been closed within the operation, and what was held back written.
void Operation::leaveStage() const {
  if (database_.handle != db_) return;
  if (usesStage_) platform::leaveStage(db_);
  platform::Stage* const view = setsViewAside_ ? heldViewOf(database_) : nullptr;
  if (view != nullptr) static_cast<void>(platform::useStage(db_, view));
  if (hidesTables()) engine::dropDirectoryEntry(db_);
}

void Operation::leaveHeldView() const {
  const platform::Stage* const view = database_.transactions.heldView.get();
  const auto* file = platform::findOpenFile(db_);
  if (view != nullptr && file != nullptr && file->stage == view) platform::leaveStage(db_);
}

platform::Stage* Operation::stage() const {
  const auto* file = platform::findOpenFile(db_);
  if (file == nullptr || file->stage == nullptr || file->stage->onlyReads()) return nullptr;
  return file->stage;
}

bool Operation::isKept(int64_t position) const {
  const platform::Stage* stage = this->stage();
  return stage != nullptr && position < stage->inFile();
}

// Likewise.
void Operation::leaveMirror() const {
  if (database_.handle == db_) platform::leaveMirror(db_);
}

void Operation::fail(Reason reason, const std::string& why,
                     std::optional<uint64_t> recordNumber) const {
  failAs(reason, why, details(recordNumber));
}

// A read that failed is no reason to call the file damaged.
void Operation::failAs(Reason reason, const std::string& why, ErrorDetails known) const {
  known.system_code = platform::lastHostFailure();
  if (!known.system_code || !saysWhatTheFileHolds(reason)) {
    failure::throwError(database_.path, name_, reason, why, std::move(known));
  }
  const std::string host = "the system cannot read the file: " + known.system_code.message();
  failure::throwError(database_.path, name_, Reason::cannot_read, host, std::move(known));
}

void Operation::failPayload(const RecordInfo& record) const {
  ErrorDetails known = details();
  known.position = record.position;
  known.remedy = Remedy::restore_payload;
  failAs(
      Reason::payload_damaged,
      "the payload of record " + to_string(record.id) + ", whose block is at " +
          std::to_string(record.position) +
          ", does not agree with its checksum: its bytes have changed although nothing wrote to "
          "them (or a program that does not know checksums wrote as many bytes within the second "
          "of the change before)",
      std::move(known));
}

void Operation::about(std::string_view table) const {
  tableName_.fill('\0');
  std::copy_n(table.begin(), std::min(table.size(), tableName_.size()), tableName_.begin());
}

std::string Operation::tableName() const {
  return {tableName_.begin(), std::find(tableName_.begin(), tableName_.end(), '\0')};
}

ErrorDetails Operation::details(std::optional<uint64_t> recordNumber) const {
  ErrorDetails known;
  known.table = tableName();
  known.record_number = recordNumber;
  return known;
}

void Operation::requireNoTransaction() const {
  if (stage() == nullptr) return;
  fail(Reason::bad_argument, "a transaction is open on it; commit it or roll it back first");
}

void Operation::requireWritable() const {
  const auto* file = platform::findOpenFile(db());
  if (file == nullptr) fail(Reason::not_open, "its handle was closed by other means");
  if (!file->isWritable()) {
    fail(Reason::read_only,
         database_.viewed != nullptr ? "a Reader only reads" : "it was opened for reading only");
  }
  requireOwn();
}

void Operation::pauseWithoutTurn(uint64_t microseconds) const {
  {
    const platform::TurnPause pause;
    const platform::Uncancelled uncancelled;
    platform::pauseFor(microseconds);
  }
  const bool isSame = database_.handle == db_ && database_.opening == opening_;
  if (!isSame) fail(Reason::not_open, "it was closed meanwhile");
}

void Operation::requireOwn() const {
  if (database_.opener.isStillOwn()) return;
  fail(Reason::opened_elsewhere,
       "the process that opened it is another one, of which this is a child; open it again here");
}

void Operation::requireIdentifier(Id record) const {
  if (record.value == 0) {
    fail(Reason::bad_argument, "identifier 0 means no record; use another, or none for a new one");
  }
}

uint32_t Operation::requireSize(uint64_t bytes, bool isProtected) const {
  constexpr uint64_t kMost = std::numeric_limits<uint32_t>::max();
  if (bytes <= (isProtected ? format::kMostWithChecksum : kMost)) {
    return static_cast<uint32_t>(bytes);
  }
  if (bytes <= kMost) {
    fail(Reason::too_large, "it would be " + std::to_string(bytes) +
                                " bytes, and 4,294,967,263 are the most with a checksum");
  }
  fail(Reason::too_large,
       "it would be " + std::to_string(bytes) + " bytes, and 4,294,967,295 are the most");
}

void Operation::requireNoBulk() const {
  if (database_.bulk == nullptr) return;
  fail(Reason::appender_open,
       "records are being added to it by an appender or a writer; finish or discard that first");
}

void Operation::requireNoBulkOf(Id table) const {
  if (database_.bulk != nullptr && database_.bulk->table == table) requireNoBulk();
}

engine::DirectoryNumbers Operation::directory() const {
  engine::DirectoryNumbers numbers;
  if (const auto fault = handle::readDirectory(db(), &numbers)) fail(fault->reason, fault->why);
  return numbers;
}

engine::FoundTable Operation::table(Id table) const {
  engine::FoundTable found;
  // The common case reads each slot once. Only after a failure they are read again, to say why.
  if (engine::findTable(db(), table.value, &found)) {
    about({found.slot.tableName, sizeof found.slot.tableName});
    aboutSlot(found.slotPos, found.slotSize);
    return found;
  }
  tablePart1 slot;
  static_cast<void>(findSlot(&slot, [](const tablePart1&) { return false; }));
  failMissingTable(to_string(table), "it has no table " + to_string(table));
}

void Operation::failMissingTable(const std::string& wanted, const std::string& why) const {
  ErrorDetails known;
  known.table = wanted;
  failAs(Reason::table_missing, why, std::move(known));
}

void Operation::readSlot(const engine::DirectoryNumbers& numbers, int index,
                         tablePart1* slot) const {
  const auto fault = handle::readSlot(db(), numbers, index, slot);
  if (!fault) return;
  aboutSlot(format::slotPosition(index, numbers.slotSize), numbers.slotSize);
  fail(fault->reason, fault->why);
}

uint64_t Operation::fileLength() const {
  const auto* file = platform::findOpenFile(db());
  int64_t length = 0;
  if (file == nullptr || !platform::fileLength(*file, &length)) {
    fail(Reason::cannot_read, "the system does not report the file's length");
  }
  return static_cast<uint64_t>(length);
}

void Operation::failedWrite(uint64_t bytes) const {
  requireWritable();
  int64_t length = 0;
  const auto* file = platform::findOpenFile(db());
  if (!platform::fileLength(*file, &length)) length = 0;
  failure::throwWriteFailure(database_.path, name_,
                             platform::findWriteFailure(static_cast<uint64_t>(length) + bytes),
                             details());
}

void Operation::failIfWriteWasRefused(uint64_t bytes) const {
  if (platform::lastRefusedWrite()) failedWrite(bytes);
}

}  // namespace qvdb::detail
