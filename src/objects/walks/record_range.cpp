// qvdb::RecordRange: the walk over a table's records.
//
// Records are read ahead in batches, each inside one transfer scope. Where they lie close together
// in the order of the file, a large piece of the file is read instead, and the walk goes from
// record to record in it. Damage that is reached while reading ahead is kept until the walk has
// delivered the records before it.
//
// A walk belongs to one thread at a time. As long as nothing has changed it goes on in what it has
// read ahead, without the turn of the database. Changes it applies itself when it goes on.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/record.hpp>

#include <algorithm>
#include <string>
#include <utility>

#include "QVDbase/record_append.h"
#include "objects/open_database.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "objects/walks/chain_walker.h"
#include "objects/walks/read_ahead.h"
#include "objects/walks/walked_chain.h"

using namespace qvdbase;

namespace qvdb {

namespace {

constexpr const char* kWalk = "list the records";

// What a look of a walk changes, apart from what it reads ahead.
struct WalkPlace {
  detail::WalkedChain at;
  bool inPiece;
  bool isDense;
};

}  // namespace

// Where it is in the chain, what it has read ahead, and which changes of the table leave that
// valid.
struct detail::Walk {
  Walk(std::shared_ptr<OpenDatabase> opened, Id walked, const WalkOptions& wanted)
      : database(std::move(opened)), table(walked), order(wanted.order), from(wanted.from) {
    loading.table = walked;
    loading.most = wanted.load.bytes();
    if (wanted.load.is_whole()) loading.largest = wanted.largest_loaded;
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  const std::shared_ptr<OpenDatabase> database;
  const Id table;
  const Order order;
  const WalkStart from;
  Loading loading;
  std::string tableName;

  WalkedChain at;

  ReadBatch batch;
  FilePiece piece;
  bool inPiece = false;  // records are taken from the piece; the batch is empty
  bool isDense = false;  // what follows is worth a piece

  uint64_t changesSeen = 0;   // OpenDatabase::changes when what follows was read, or is valid
  bool hasLostTrack = false;  // more has changed since than is noted
  uint32_t opening = 0;       // OpenDatabase::opening when it began
  uint32_t transaction = 0;   // in which the place of the walk is known, or 0

  // Begins before the first record, also when it has begun already.
  void start(const Operation& operation) {
    opening = database->opening;
    transaction = database->transactions.openNumber;
    at = {beginChain(operation), {}};
    tableName = operation.tableName();
    batch = ReadBatch(loading);
    inPiece = false;
    isDense = false;
  }

  ChainWalker beginChain(const Operation& operation) const {
    engine::FoundRecord found;
    if (from.kind_ == WalkStart::Kind::end) {
      return ChainWalker(operation.table(table).slot, order);
    }
    if (!findStart(operation, &found)) failNoStart(operation);
    if (found.table.slotSize == 0) found.table = operation.table(table);
    ChainWalker walker(found.table.slot, order);
    if (from.isAfter_) {
      walker.beginAt(walker.linkOf(found.header), found.recordPos);
    } else {
      walker.beginAt(found.recordPos, 0);
    }
    return walker;
  }

  // Where it is not where it was found, it is searched by its identifier.
  bool findStart(const Operation& operation, engine::FoundRecord* found) const {
    const bool isByPosition = from.kind_ == WalkStart::Kind::position;
    const bool hasPosition =
        isByPosition || (from.position_ != 0 && from.opening_ == database->opening);
    if (hasPosition && readReachable(operation, table, from.position_, found) &&
        (isByPosition || format::identifierNumber(found->header.recordID) == from.id_.value)) {
      return true;
    }
    return !isByPosition && locate(operation, table, from.id_, found) != Located::no;
  }

  [[noreturn]] void failNoStart(const Operation& operation) const {
    const std::string what = from.kind_ == WalkStart::Kind::position
                                 ? "record at position " + std::to_string(from.position_)
                                 : "record " + to_string(from.id_);
    operation.fail(Reason::record_missing, operation.quotedTable() + " has no " + what);
  }

  // Whether what was read ahead is valid. Without the turn it may be so no more at once: then the
  // change and the step of the walk are at the same time.
  bool isUndisturbed() const { return database->changes == changesSeen && database->handle != 0; }

  // The next record of what was read ahead.
  bool take(RecordInfo* info, std::span<const std::byte>* payload) {
    const bool isTaken = !inPiece           ? batch.take(info, payload)
                         : loading.isNone() ? piece.take(at.chain, info)
                                            : piece.take(at.chain, loading, info, payload);
    if (!isTaken) return false;
    ++at.current.number;
    at.current.position = at.current.block = info->position;
    return true;
  }

  // Reads what follows and takes the first record of it. False at the end of the chain; throws
  // when damage is next.
  bool refill(const Operation& operation, RecordInfo* info, std::span<const std::byte>* payload) {
    changesSeen = database->changes;
    at.current.isValid = false;
    batch.finish();
    if (database->readsBesideWriters()) at.chain.stepBack();  // it may have changed since
    if (at.chain.isDamaged()) failDamagedChain(operation, at.chain);
    if (inPiece) isDense = piece.wasWorthIt();
    inPiece = isDense && piece.read(operation.db(), at.chain);
    if (!inPiece) piece.release();
    at.current.isValid = take(info, payload);
    if (at.current.isValid) return true;
    // Not in a piece, or the next record is larger than one.
    inPiece = false;
    if (!at.chain.isDamaged()) batch.read(operation, at.chain);
    if (batch.isEmpty()) requireEnd(operation);
    isDense = batch.isDense();
    at.current.isValid = take(info, payload);
    return at.current.isValid;
  }

  // Throws unless the chain ends where it should. One that began in the middle may have had its end
  // changed by others since: then it ends where it ends.
  void requireEnd(const Operation& operation) {
    if (at.chain.endsElsewhere() &&
        engine::hasSameChain(operation.table(table).slot, at.chain.slot())) {
      at.chain.foundCutOff();
    }
    if (hasBecomeShorter(operation, at.chain)) at.chain.endHere();
    if (at.chain.isDamaged()) failDamagedChain(operation, at.chain);
  }

  // Where a look begins, to begin it again.
  WalkPlace place() const { return {at, inPiece, isDense}; }
  void goTo(const WalkPlace& place) {
    at = place.at;
    inPiece = place.inPiece;
    isDense = place.isDense;
  }

  // Applies the changes since the walk looked last. Returns whether what was read ahead is valid.
  bool applyChanges() {
    const uint64_t present = database->changes;
    hasLostTrack = present - changesSeen > NotedChanges::kKept;
    if (hasLostTrack) return false;
    bool isValid = true;
    for (uint64_t number = changesSeen; number < present;) {
      const RecordChange* change = database->noted.find(++number);
      isValid = change != nullptr && apply(*change) && isValid;
    }
    if (isValid) changesSeen = present;
    return isValid;
  }

  bool apply(const RecordChange& change) {
    return change.table != table || (at.current.isValid && at.outlives(change, inPiece));
  }

  // After the end of a transaction the blocks that it has made are elsewhere, or are no more.
  void followTransaction(const Operation& operation) {
    const uint32_t before = std::exchange(transaction, database->transactions.openNumber);
    if (before == transaction || !at.current.isValid) return;
    const Transactions& transactions = database->transactions;
    const auto block = transactions.presentPosition(before, at.current.block);
    const auto position = transactions.presentPosition(before, at.current.position);
    if (!block && !position) {
      operation.fail(Reason::changed_meanwhile,
                     "the record that it delivered last was added in a transaction that has ended "
                     "since; begin it again");
    }
    at.current.block = block ? *block : *position;
    at.current.position = position ? *position : *block;
  }

  // The chain has changed, and what was read ahead may be wrong: continues at the block of the
  // current record.
  void resume(const Operation& operation) {
    if (opening != database->opening) {
      operation.fail(Reason::changed_meanwhile,
                     "the database was opened again since the walk began; begin it again");
    }
    batch.forgetFailure();
    if (hasLostTrack) at.findAgain(operation, table, order);
    at.resume(operation);
  }
};

RecordRange::RecordRange(std::shared_ptr<detail::OpenDatabase> database, Id table,
                         const WalkOptions& options)
    : walk_(std::make_unique<detail::Walk>(std::move(database), table, options)) {}

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
  done_ = !detail::look(operation, [&] {
    walk.start(operation);
    current_ = Record(walk.database, walk.table, {});
    return walk.refill(operation, &current_.info_, &current_.loaded_);
  });
}

void RecordRange::advance() {
  detail::Walk& walk = *walk_;
  const bool isUndisturbed = walk.isUndisturbed();
  if (!isUndisturbed || !walk.take(&current_.info_, &current_.loaded_)) readOn(!isUndisturbed);
}

// Apart from the step that is taken for nearly every record, which so stays small.
//
// mayTake  whether what was read ahead may have a next record
void RecordRange::readOn(bool mayTake) {
  done_ = true;
  detail::Walk& walk = *walk_;
  const detail::Operation operation(walk.database, kWalk);
  operation.about(walk.tableName);
  walk.followTransaction(operation);
  current_.transaction_ = walk.transaction;
  const bool isValid = walk.applyChanges();
  if (isValid && mayTake && walk.take(&current_.info_, &current_.loaded_)) {
    done_ = false;
    return;
  }
  const WalkPlace place = walk.place();
  done_ = !detail::look(operation, [&] {
    walk.goTo(place);
    if (!isValid) walk.resume(operation);
    return walk.refill(operation, &current_.info_, &current_.loaded_);
  });
}

}  // namespace qvdb
