// qvdb::RecordRange: the walk over a table's records.
//
// Records are read ahead in batches, each inside one transfer scope. Where they lie close together
// in the order of the file, a large piece of the file is read instead, and the walk goes from
// record to record in it. Damage that is reached while reading ahead is kept until the walk has
// delivered the records before it.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/record.hpp>

#include <algorithm>
#include <string>
#include <utility>

#include "objects/chain_walker.h"
#include "objects/open_database.h"
#include "objects/read_ahead.h"
#include "objects/records.h"

using namespace qvdbase;

namespace qvdb {

namespace {

constexpr const char* kWalk = "list the records";

// The record that a walk has delivered last.
struct CurrentRecord {
  bool isValid = false;  // one was delivered, and the walk has not ended
  uint32_t number = 0;   // counted from 1
  uint32_t gone = 0;     // the number of the last one that was deleted while it was the current one
  int64_t position = 0;  // of its block; of the record after it, or 0, when it is gone

  bool isGone() const { return number != 0 && gone == number; }
};

}  // namespace

// Where it is in the chain, what it has read ahead, and which changes of the table leave that
// valid.
struct detail::Walk {
  Walk(std::shared_ptr<OpenDatabase> opened, Id walked, Load loaded)
      : database(std::move(opened)), table(walked), load(loaded) {}
  ~Walk() {
    if (database != nullptr) std::erase(database->walks, this);
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  const std::shared_ptr<OpenDatabase> database;
  const Id table;
  const Load load;
  std::string tableName;

  ChainWalker chain;
  CurrentRecord current;

  ReadBatch batch;
  FilePiece piece;
  bool inPiece = false;  // records are taken from the piece; the batch is empty
  bool isDense = false;  // what follows is worth a piece

  uint64_t changesSeen = 0;  // OpenDatabase::changes when what follows was read

  // Begins before the first record, also when it has begun already.
  void start(const Operation& operation) {
    const engine::FoundTable found = operation.table(table);
    auto& walks = database->walks;
    if (std::find(walks.begin(), walks.end(), this) == walks.end()) walks.push_back(this);
    tableName = operation.tableName();
    chain = ChainWalker(found.slot);
    current = {};
    batch = ReadBatch(load);
    inPiece = false;
    isDense = false;
  }

  bool hasChanged() const { return database->changes != changesSeen; }

  // The next record of what was read ahead.
  bool take(RecordInfo* info, std::span<const std::byte>* payload) {
    const bool isTaken =
        inPiece ? piece.take(chain, load, info, payload) : batch.take(info, payload);
    if (!isTaken) return false;
    ++current.number;
    current.position = info->position;
    return true;
  }

  // Reads what follows and takes the first record of it. False at the end of the chain; throws when
  // damage is next.
  bool refill(const Operation& operation, RecordInfo* info, std::span<const std::byte>* payload) {
    changesSeen = database->changes;
    current.isValid = false;
    batch.finish();
    if (chain.isDamaged()) failDamagedChain(operation, chain);
    if (inPiece) isDense = piece.wasWorthIt();
    inPiece = isDense && piece.read(operation.db(), chain);
    current.isValid = take(info, payload);
    if (current.isValid) return true;
    // Not in a piece, or the next record is larger than one.
    inPiece = false;
    if (!chain.isDamaged()) batch.read(operation, chain);
    if (batch.isEmpty() && chain.isDamaged()) failDamagedChain(operation, chain);
    isDense = batch.isDense();
    current.isValid = take(info, payload);
    return current.isValid;
  }

  // Whether a change of this table leaves what was read ahead valid: it concerns the current
  // record, or is an addition beyond what was read.
  bool outlives(const RecordChange& change) {
    using Kind = RecordChange::Kind;
    if (change.kind == Kind::added) {
      const bool wasAtEnd = chain.nextPosition() == 0;
      if (wasAtEnd && current.isGone() && current.position == 0) current.position = change.position;
      return !wasAtEnd && !inPiece;
    }
    if (change.position != current.position) return false;
    const bool wasGone = current.isGone();  // then it is the record after it that has changed
    if (change.kind != Kind::inPlace) current.position = change.to;
    if (change.kind == Kind::removed) current.gone = current.number;
    return !wasGone;
  }

  void note(const RecordChange& change) {
    const bool isUpToDate = changesSeen + 1 == database->changes;
    const bool isValid = change.table != table || (current.isValid && outlives(change));
    if (isUpToDate && isValid) changesSeen = database->changes;
  }

  // The chain has changed, and what was read ahead may be wrong: continues at the block of the
  // current record.
  void resume(const Operation& operation) {
    batch.forgetFailure();
    if (current.isGone()) return chain.resumeAt(current.position, current.number);
    if (chain.resumeAfter(operation.db(), current.position, current.number)) return;
    operation.fail(Reason::chain_damaged,
                   "record " + std::to_string(current.number) + " of " + operation.quotedTable() +
                       " is no longer where it was",
                   current.number);
  }
};

void detail::OpenDatabase::noteChange(const RecordChange& change) {
  for (Walk* walk : walks) walk->note(change);
}

RecordRange::RecordRange(std::shared_ptr<detail::OpenDatabase> database, Id table, Load load)
    : walk_(std::make_unique<detail::Walk>(std::move(database), table, load)) {}

RecordRange::RecordRange(RecordRange&&) noexcept = default;
RecordRange& RecordRange::operator=(RecordRange&&) noexcept = default;
RecordRange::~RecordRange() = default;

RecordRange::iterator RecordRange::begin() & {
  start();
  return iterator(this);
}

void RecordRange::start() {
  done_ = true;  // unless a record follows; an error ends the walk
  detail::Walk& walk = *walk_;
  const detail::Operation operation(walk.database, kWalk);
  engine::SavedPosition scope(operation.db());
  walk.start(operation);
  current_ = Record(walk.database, walk.table, {});
  done_ = !walk.refill(operation, &current_.info_, &current_.loaded_);
}

void RecordRange::advance() {
  detail::Walk& walk = *walk_;
  const bool hasChanged = walk.hasChanged();
  const bool isOpen = walk.database->handle != 0;
  if (hasChanged || !isOpen || !walk.take(&current_.info_, &current_.loaded_)) readOn(hasChanged);
}

// Apart from the step that is taken for nearly every record, which so stays small.
void RecordRange::readOn(bool hasChanged) {
  done_ = true;
  detail::Walk& walk = *walk_;
  const detail::Operation operation(walk.database, kWalk);
  engine::SavedPosition scope(operation.db());
  operation.about(walk.tableName);
  if (hasChanged) walk.resume(operation);
  done_ = !walk.refill(operation, &current_.info_, &current_.loaded_);
}

}  // namespace qvdb
