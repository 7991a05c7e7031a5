// What a Database, its tables and its records share: the handle, and how they report failures.
//
// Threads: each operation has the turn of its database, which is that of the file in the platform
// layer, from its beginning to its end. Only it touches what the database holds, apart from a few
// published numbers and what never changes. Where several locks are held they were taken in this
// order: the turn of the database, what keeps other openers out (looks.h, turns.h), and the locks
// of the layers below.
#pragma once

#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QVDbase/position.h"
#include "QVDbase/tables.h"
#include "format/layout.h"
#include "objects/indexes/noted_changes.h"
#include "objects/published.h"
#include "objects/transactions/committed_view.h"
#include "objects/transactions/open_transaction.h"
#include "platform/handles/turns.h"
#include "platform/host/process_mark.h"
#include "products/target_file.h"
#include "upkeep/compact_open.h"

namespace qvdb::detail {

struct TableIndex;
struct TableKeys;
struct Bulk;

// An index that others hold: its address as well, for as long as it is there.
struct HeldIndex : std::weak_ptr<TableIndex> {
  HeldIndex(const std::shared_ptr<TableIndex>& held) : weak_ptr(held), index(held.get()) {}

  TableIndex* index;
};

struct OpenDatabase {
  Published<int16_t> handle;  // 0 once it is closed
  std::filesystem::path path;
  std::filesystem::path place;  // the same, absolute
  Mode mode = Mode::read_only;
  // For a file that is in use, and for a turn among its openers, there 0 is five seconds.
  std::chrono::milliseconds wait{0};
  // Counts how often it was opened again: positions that were found before are of another file.
  Published<uint32_t> opening;
  qvdbase::platform::ProcessMark opener;
  uint32_t forkDepth = qvdbase::platform::forkDepth();  // of the process that works with it
  // Whether others may write to the file while it is read, whether this opener has announced itself
  // to them, and since when; see looks.h and turns.h.
  bool isBesideWriters = false;
  bool isAnnounced = false;
  bool mayMissChanges = false;  // a change that began before is not over, perhaps
  uint64_t announcedAt = 0;     // in microseconds
  uint32_t looks = 0;           // that have begun, one inside the other
  bool holdsLook = false;       // their lock
  bool asksForLook = false;     // so that writers wait for it
  uint32_t changing = 0;        // turns to change the file that have begun, likewise
  CommittedView committed;      // what looks lay over the file
  // Of a reader: the database that it is a view of, and which opening of it, by which process.
  std::shared_ptr<const OpenDatabase> viewed;
  uint32_t viewedOpening = 0;
  uint32_t viewedForkDepth = 0;
  bool holdsViewLook = false;
  // The latest compaction of the open file: of which opening, where its records went, by where they
  // were, and the first opening from which only compactions have followed.
  uint32_t compacted = 0;
  std::vector<qvdbase::upkeep::Move> moves;
  uint32_t opened = 0;
  // Counts the operations of this layer that can have changed the chains. A walk that finds it
  // raised forgets what it has read ahead.
  Published<uint64_t> changes;
  // The latest of them.
  NotedChanges noted;
  // The indexes of its tables that are held; see table_index.h.
  std::vector<HeldIndex> indexes;
  // The indexes of keys, likewise; see table_keys.h. While there is one: how many writes of this
  // process to the file are known to be of this layer, and how often others were noticed.
  std::vector<std::weak_ptr<TableKeys>> keyIndexes;
  // The indexes of both kinds that are kept in a file beside it, until it is closed: see
  // kept/kept_indexes.h.
  std::vector<std::shared_ptr<TableIndex>> keptIndexes;
  std::vector<std::shared_ptr<TableKeys>> keptKeys;
  size_t writesKnown = 0;
  uint64_t writesByOthers = 0;
  // How many objects hold a cache of it, itself included where it was opened with one.
  uint32_t cacheHolders = 0;
  uint64_t cacheBudget = 0;
  // When it was known last that no reader has announced itself, and whether one that asked for a
  // look did not take it; see turns.cpp.
  uint64_t noReaderAt = 0;
  bool isReaderLate = false;
  // Whether records that are added get a checksum: of all tables, and of those that say otherwise.
  bool checksums = false;
  std::vector<std::pair<Id, bool>> tableChecksums;
  // How many bytes of the file are dead, as far as that is known; see space/dead_bytes.h. And how
  // many may be before it is compacted.
  std::optional<uint64_t> deadBytes;
  CompactWhen compactWhen;
  // See transactions/open_transaction.h.
  Transactions transactions;
  // The batch that is open, of an appender or a writer, or null; see bulk.h.
  Bulk* bulk = nullptr;
  // Of a database that has not got its name yet; see Database::place().
  std::unique_ptr<qvdbase::products::TargetFile> unplaced;

  ~OpenDatabase();

  // Notes a change for the walks: those that it does not concern keep what they have read ahead.
  // To be called once after each raise of `changes`.
  void noteChange(const RecordChange& change) { noted.add(changes, change); }

  // Notes that so many bytes of the file have become dead.
  void noteDead(uint64_t bytes) {
    if (deadBytes) *deadBytes += bytes;
  }

  // Whether reading takes looks. Not within a change of its own, which excludes other writers.
  bool readsBesideWriters() const { return isBesideWriters && changing == 0; }

  // Whether it is a view of a database that no other process may write to meanwhile.
  bool isViewOfExclusive() const {
    return viewed != nullptr && forkDepth == viewedForkDepth && viewed->mode == Mode::exclusive &&
           viewed->handle != 0 && viewed->opening == viewedOpening;
  }

  // Takes over the handle of another one, which is closed then, with what it has announced.
  void takeOver(OpenDatabase& other) noexcept;

  // Where a record is that was found at a position in that opening; 0 where that is not known.
  int64_t placeNow(int64_t position, uint32_t foundIn) const;

  // Continues with the file of another handle, which has a compaction of this one's, and closes
  // this one's. Returns what CloseDBase does.
  int continueWith(int16_t made, std::vector<qvdbase::upkeep::Move> moved) noexcept;

  // Closes the handle, and ends what was announced for it. Returns what CloseDBase does.
  int close() noexcept;

  // Whether a record that is added to a table gets a checksum.
  bool wantsChecksum(Id table, Checksum wanted) const;

  // How long an operation waits for its turn, in microseconds.
  uint64_t turnWait() const {
    const int64_t milliseconds = wait.count() > 0 ? wait.count() : 5'000;
    return static_cast<uint64_t>(std::min(milliseconds, INT64_MAX / 1'000)) * 1'000;
  }

  // To be called before the handle is closed: takes back the batch and the transaction that are
  // open.
  void takeBackOpen() noexcept;
};

// Whether it says that something in the file is wrong or missing, as far as it could be read.
bool saysWhatTheFileHolds(Reason reason);

// The turn of a database, of one thread at a time; that thread can take it again. Nothing is kept
// from a database that is closed.
class DatabaseTurn {
 public:
  // The number may have become that of another file before its turn was taken.
  explicit DatabaseTurn(const OpenDatabase& database) : handle_(database.handle), turn_(handle_) {
    if (database.handle != handle_) takeAnew(database);
  }

  // The handle whose turn it is; 0 where the database is closed, and there is no turn.
  int16_t handle() const { return handle_; }

  DatabaseTurn(const DatabaseTurn&) = delete;
  DatabaseTurn& operator=(const DatabaseTurn&) = delete;

 private:
  void takeAnew(const OpenDatabase& database);

  int16_t handle_;
  qvdbase::platform::Turn turn_;
};

// What an operation sees in a transaction of its thread: what that has made of the file, or the
// file; and the latter also without waiting for the transaction of another thread.
enum class Sees : uint8_t { transaction, file, fileAtOnce };

// One operation on an open database, in its turn: what its errors name. `name` is a literal that
// follows "cannot ". Its transfers are made within a SavedPosition.
class Operation {
 public:
  // Throws not_open when there is no database, or a closed one; opened_elsewhere in a child process
  // that got it by fork and cannot read it by itself. What the host answered to earlier operations
  // is forgotten. Waits while another thread has a transaction open.
  Operation(const std::shared_ptr<OpenDatabase>& database, const char* name,
            Sees sees = Sees::transaction);
  ~Operation() {
    if (usesMirror_) leaveMirror();
    if (usesStage_ || setsViewAside_) leaveStage();
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  int16_t db() const { return db_; }
  OpenDatabase& database() const { return database_; }
  const char* name() const { return name_; }

  // Where the host has failed meanwhile, what seems to be damage is cannot_read instead.
  [[noreturn]] void fail(Reason reason, const std::string& why,
                         std::optional<uint64_t> recordNumber = std::nullopt) const;

  // The same about a payload whose checksum does not agree with it.
  [[noreturn]] void failPayload(const RecordInfo& record) const;

  // What takes its writes: the stage of the transaction that it belongs to, or null.
  qvdbase::platform::Stage* stage() const;

  // Whether a block at that position is one of the file, which its transaction must not change in
  // place.
  bool isKept(int64_t position) const;

  // To be called before the file is written to by other means than a transaction, once nothing is
  // held back any more that would have to be laid over it.
  void leaveHeldView() const;

  // Throws bad_argument in a transaction, for operations on the whole file.
  void requireNoTransaction() const;

  // Throws read_only unless the handle may write, and as requireOwn().
  void requireWritable() const;

  // Pauses for a part of the time that it waits for another opener. Other threads have the turn of
  // the file meanwhile. To be called before anything is read; throws not_open when one of them has
  // closed the database, or opened it again.
  void pauseWithoutTurn(uint64_t microseconds) const;

  // Throws opened_elsewhere in a child process that got the database by fork.
  void requireOwn() const;

  // Throws too_large for more bytes than a length in the file can count; returns their number.
  // With a checksum of its own a record can hold a little less.
  uint32_t requireSize(uint64_t bytes, bool isProtected = false) const;

  // Throws bad_argument for the identifier of a new record that is 0, which means no record.
  void requireIdentifier(Id record) const;

  // Throws appender_open when there is an open batch, for operations that append to the file.
  void requireNoBulk() const;

  // The same when it is one of this table, for operations that change a table's chain.
  void requireNoBulkOf(Id table) const;

  // Reads the directory numbers. Throws not_a_database, version_out_of_range, directory_damaged or
  // cannot_read.
  qvdbase::engine::DirectoryNumbers directory() const;

  // Throws table_missing; `wanted` is what was looked for.
  [[noreturn]] void failMissingTable(const std::string& wanted, const std::string& why) const;

  // Finds a table that must be there. Throws as directory() and directory_damaged, table_missing.
  qvdbase::engine::FoundTable table(Id table) const;

  // Walks the slots up to the first for which wanted(slot) holds. False when there is none; throws
  // directory_damaged when a slot before it is.
  template <typename Wanted>
  bool findSlot(tablePart1* slot, Wanted wanted) const {
    const qvdbase::engine::DirectoryNumbers numbers = directory();
    for (int i = 0; i < numbers.tableCount; ++i) {
      readSlot(numbers, i, slot);
      if (wanted(*slot)) return true;
    }
    return false;
  }

  uint64_t fileLength() const;

  // Notes the slot of the table that the errors which follow are about, for looks.h. table() and
  // findSlot() do that for theirs.
  void aboutSlot(int64_t position, uint16_t size) const {
    slotPos_ = position;
    slotSize_ = size;
  }
  int64_t slotPos() const { return slotPos_; }  // 0 where it is not known
  uint16_t slotSize() const { return slotSize_; }

  // Names the table in the errors that follow. table() does that for the one it finds.
  void about(std::string_view table) const;
  std::string tableName() const;
  // As messages have it: table 'NAME'.
  std::string quotedTable() const { return "table '" + tableName() + "'"; }

  // After a write that failed although nothing in the file prevents it: throws what the host
  // answered (disk_full, size_limit, ...), or cannot_write. `bytes` is by how much the file would
  // have become longer.
  [[noreturn]] void failedWrite(uint64_t bytes) const;

  // To be called first after a change that failed: throws the same when the host has refused a
  // write of it. What the file holds then is a part of the change, not a reason for its failure.
  void failIfWriteWasRefused(uint64_t bytes) const;

 private:
  void useStages(Sees sees);
  void waitForTransaction() const;
  qvdbase::platform::Stage* stageFor(Sees sees) const;
  bool hidesTables() const;
  void leaveStage() const;
  void leaveMirror() const;
  void readSlot(const qvdbase::engine::DirectoryNumbers& numbers, int index,
                tablePart1* slot) const;

  ErrorDetails details(std::optional<uint64_t> recordNumber = std::nullopt) const;
  [[noreturn]] void failAs(Reason reason, const std::string& why, ErrorDetails known) const;

  OpenDatabase& database_;
  const char* name_;
  DatabaseTurn turn_;
  int16_t db_;
  uint32_t opening_;
  bool usesMirror_ = false;     // of the file, and ends it
  bool usesStage_ = false;      // likewise
  bool setsViewAside_ = false;  // of what is held back, which an outer operation uses
  mutable std::array<char, qvdbase::format::kTableNameSize>
      tableName_{};  // zeros where it is not known
  mutable int64_t slotPos_ = 0;
  mutable uint16_t slotSize_ = 0;
};

}  // namespace qvdb::detail
