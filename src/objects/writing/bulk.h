// An open batch: what a BulkAppender and the RecordWriters on it share.
#pragma once

#include <qvdbase/qvdb/bulk.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_set>
#include <vector>

#include "QVDbase/record_batch.h"
#include "format/identifiers.h"
#include "objects/indexes/key_changes.h"
#include "objects/open_database.h"
#include "platform/host/process_mark.h"

namespace qvdb::detail {

inline constexpr const char* kAppend = "add the records";
inline constexpr const char* kWrite = "write the record";

// Its database knows it until it is finished or discarded. At most one is open on a database: two
// would write to the same end of the file.
struct Bulk {
  enum class State { open, finished, discarded };

  // Throws appender_open, and chain_damaged when the end of the table's chain is damaged.
  static std::shared_ptr<Bulk> open(const std::shared_ptr<OpenDatabase>& database, Id table);

  Bulk(const std::shared_ptr<OpenDatabase>& opened, const qvdbase::engine::FoundTable& found)
      : database(opened), batch(opened->handle, found) {}
  ~Bulk() { discard(); }
  Bulk(const Bulk&) = delete;
  Bulk& operator=(const Bulk&) = delete;

  bool isOpen() const { return state == State::open; }

  // Whether what it has written can be taken back: the database is open, and this process made it.
  bool ownsFile() const { return database->handle != 0 && maker.isOwn(); }

  // Throws bad_argument when the batch is no longer open.
  void requireOpen(const Operation& operation) const;

  // The same, and throws appender_open while a record of the batch is written in pieces.
  void requireIdle(const Operation& operation) const;

  // A new record as the engine takes it, without the length of its payload. Throws bad_argument for
  // identifier 0, and record_exists; see GivenIds.
  qvdbase::engine::BatchRecord entryOf(const Operation& operation, const NewRecord& record);

  // Links the records into the table: all of them, or none, and then the batch is discarded. Throws
  // as failed().
  void finish(const Operation& operation);

  // The same as an operation of its own, and a transaction of its own where each operation is one.
  void finishCommitted(const char* name);

  // Forgets the records and takes them out of the file. No effect on a batch that is not open. A
  // child process that got the batch by fork leaves the file alone.
  void discard() noexcept;

  // The same for the record that a writer has open; the batch continues without it.
  void dropRecord() noexcept;

  // Forgets the records, with the transaction to which the batch belongs.
  void forget() noexcept;

  // Adds a whole record. False when its keys are not ready. Throws too_large, and as failed().
  bool add(const Operation& operation, const NewRecord& record, KeyChange& change);

  // Adds the record that a writer has open. False likewise.
  bool addPieces(const Operation& operation, Id record, KeyChange& change);

  // After a write that failed: discards the batch and throws the reason. `bytes` is by how much the
  // file would have become longer, at least.
  [[noreturn]] void failed(const Operation& operation, uint64_t bytes);

  std::shared_ptr<OpenDatabase> database;
  Id table;
  qvdbase::engine::RecordBatch batch;
  qvdbase::format::IdentifierSeries identifiers;
  Id latest;  // of the record that was added last, not counting one that a writer has open
  State state = State::discarded;
  bool inPieces = false;  // a RecordWriter has a record open
  // Its payload so far, where the table has indexes of keys.
  std::optional<std::vector<std::byte>> pieces;
  BatchKeys keys;
  qvdbase::platform::ProcessMark maker;

 private:
  void writeOut(const Operation& operation);
  void requireNew(const Operation& operation, Id record);
  void knowOwnRecords(const Operation& operation);

  uint64_t checked = 0;  // identifiers that had to be new
  // Once there is one: the identifiers of the batch, and, from the second one on, the table's
  // index.
  std::unordered_set<Id> own;
  std::shared_ptr<TableIndex> index;

  static std::shared_ptr<Bulk> begin(const Operation& operation,
                                     const std::shared_ptr<OpenDatabase>& database, Id table);
  void link(const Operation& operation);
};

}  // namespace qvdb::detail
