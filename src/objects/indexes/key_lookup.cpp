// The walk over the records that have certain keys.
//
// Each batch is read in one turn: the next places that the index knows, and the records that are
// there. Then, without a turn, their keys are made again, and compared. Since the index is asked
// for each batch anew, a change between two of them is noticed like any other.
#include "objects/indexes/key_lookup.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <utility>

#include "failure/failure.h"
#include "format/identifiers.h"
#include "objects/indexes/table_index.h"
#include "objects/kept/kept_indexes.h"
#include "objects/record_search.h"
#include "objects/records.h"
#include "objects/sharing/looks.h"
#include "objects/walks/chain_walker.h"
#include "objects/writing/bulk.h"
#include "platform/host/host_failure.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr const char* kFind = "find records by key";

constexpr size_t kMostAtOnce = 64;
constexpr size_t kMostBytesAtOnce = 256 * 1024;

}  // namespace

namespace {

void requireName(const Operation& operation, const std::string& name) {
  if (name.size() <= format::kept::kLongestName) return;
  operation.fail(Reason::bad_argument, "the name under which an index is kept has " +
                                           std::to_string(name.size()) +
                                           " bytes, and 255 are the most");
}

bool isLikeThis(const TableKeys& keys, const KeyIndexOptions& options, uint32_t keyType) {
  return keys.options.unique == options.unique && keys.options.ordered == options.ordered &&
         keys.keyType == keyType;
}

// Nothing where the file, or the database, has no such index that can be used.
bool useKeptFile(const std::shared_ptr<TableKeys>& keys) {
  const KeptFile file(KeptFile::placeFor(*keys->database));
  const Operation operation(keys->database, kFind);
  return look(operation, [&] { return useKept(operation, *keys, file); });
}

}  // namespace

std::shared_ptr<TableKeys> makeTableKeys(const Table& table, MakeKeys make,
                                         const KeyIndexOptions& options, uint32_t keyType) {
  auto keys = std::make_shared<TableKeys>(table, std::move(make), options, keyType);
  {
    const Operation operation(keys->database, "make an index of keys");
    OpenDatabase& database = operation.database();
    operation.requireNoBulkOf(table.id());
    requireName(operation, options.kept_as);
    if (options.unique && database.isBesideWriters && database.viewed == nullptr &&
        database.mode != Mode::read_only) {
      operation.fail(Reason::bad_argument,
                     "a unique index needs Mode::exclusive: other writers would not ask it");
    }
    if (keys->isKept()) {
      const auto kept = keptKeys(database, table.id(), options.kept_as);
      if (kept != nullptr && isLikeThis(*kept, options, keyType)) return kept;
    }
    std::erase_if(database.keyIndexes, [](const auto& held) { return held.expired(); });
    database.keyIndexes.push_back(keys);
  }
  if (!keys->isKept() || !useKeptFile(keys)) {
    if (const std::exception_ptr failure = keys->build(true)) std::rethrow_exception(failure);
  }
  if (keys->isKept()) {
    const DatabaseTurn turn(*keys->database);
    if (turn.handle() != 0) keep(*keys->database, keys);
  }
  return keys;
}

bool isFromFile(const TableKeys* keys) noexcept {
  if (keys == nullptr) return false;
  const DatabaseTurn turn(*keys->database);
  return turn.handle() != 0 && keys->maps.isKept();
}

size_t keysIn(const TableKeys* keys) noexcept {
  if (keys == nullptr) return 0;
  const DatabaseTurn turn(*keys->database);
  return turn.handle() == 0 ? 0 : keys->maps.size();
}

size_t bytesOfKeys(const TableKeys* keys) noexcept {
  if (keys == nullptr) return 0;
  const DatabaseTurn turn(*keys->database);
  return turn.handle() == 0 ? 0 : keys->maps.bytes();
}

KeyWalk::KeyWalk(std::shared_ptr<TableKeys> keys, KeyBounds bounds)
    : matches_(std::make_unique<KeyMatches>(std::move(keys), std::move(bounds))) {}
KeyWalk::KeyWalk(KeyWalk&&) noexcept = default;
KeyWalk& KeyWalk::operator=(KeyWalk&&) noexcept = default;
KeyWalk::~KeyWalk() = default;

bool KeyWalk::next() {
  return matches_->next();
}

std::string_view KeyWalk::key() const noexcept {
  return matches_->current().key;
}

Record KeyWalk::takeRecord() noexcept {
  return std::move(matches_->current().record);
}

KeyMatches::KeyMatches(std::shared_ptr<TableKeys> index, KeyBounds wanted)
    : keys(std::move(index)), bounds(std::move(wanted)), place{bounds.from, 0} {
  if (keys == nullptr) failure::throwError(kFind, Reason::not_open, "there is no index");
  if (!bounds.isExact && !keys->options.ordered) {
    failure::throwError(kFind, Reason::bad_argument, "the index is not an ordered one");
  }
}

bool KeyMatches::next() {
  if (!hasBegun) begin();
  while (at == found.size() && !isAtEnd) fill();
  if (at == found.size()) return false;
  ++at;
  return true;
}

void KeyMatches::begin() {
  hasBegun = true;
  changesAtBegin = keys->database->changes;
  if (!bounds.isFind) {
    atOnce = 4;
    assure();
  }
}

// What it has found of the file that was open before is of no use.
void KeyMatches::beginAgain() {
  if (hasDelivered) {
    Operation(keys->database, kFind)
        .fail(Reason::changed_meanwhile,
              "the database was opened again since the walk began; begin it again");
  }
  place = {bounds.from, 0};
  isAssured = hasCaughtUp = false;
  opening.reset();
  failure = nullptr;
  begin();
}

// Sees to it that the index knows everything.
void KeyMatches::assure() {
  bool isBehind = false;
  {
    const Operation operation(keys->database, kFind);
    const bool isComplete = look(operation, [&] {
      const tablePart1 slot = operation.table(keys->table.id()).slot;
      isBehind = bounds.isFind && !hasCaughtUp && operation.database().isBesideWriters &&
                 keys->lastPos != 0 && keys->lastPos != slot.lastRecordPos;
      return keys->isCompleteNow(operation);
    });
    if (!opening) opening = operation.database().opening;
    isAssured = isComplete;
    generation = keys->generation;
    if (isComplete) return;
  }
  if (isBehind) {
    hasCaughtUp = true;
    if (keys->catchUp()) return;
  }
  build();
}

// What cannot be reached is reported at the end.
void KeyMatches::build() {
  failure = keys->build();
  isAssured = true;
  const DatabaseTurn turn(*keys->database);
  generation = keys->builtGeneration;
}

void KeyMatches::fill() {
  found.clear();
  at = 0;
  Batch batch;
  {
    const Operation operation(keys->database, kFind);
    look(operation, [&] { readBatch(operation, &batch); });
  }
  if (batch.isOfAnotherFile) return beginAgain();
  if (!opening) opening = batch.opening;
  // What was delivered is right: the walk goes on after it with another index.
  if (batch.isBroken) return build();
  match(batch);
  place = batch.last;
  atOnce = std::min(atOnce * 2, kMostAtOnce);
  if (!found.empty() || !batch.isAtEnd) return;
  if (!isAssured) {
    assure();
    place = {bounds.from, 0};
    return;
  }
  isAtEnd = true;
  if (failure != nullptr) std::rethrow_exception(std::exchange(failure, nullptr));
}

std::vector<OrderedKeys::Place> KeyMatches::placesAfter(const Place& after) const {
  std::vector<Place> places;
  if (!bounds.isExact) {
    keys->maps.listKeys(after, bounds.to ? &*bounds.to : nullptr, atOnce, &places);
    return places;
  }
  std::vector<int64_t> positions;
  keys->maps.list(bounds.from, after.position, atOnce, &positions);
  for (const int64_t position : positions) places.push_back({bounds.from, position});
  return places;
}

// In a look, which may be repeated: `*batch` is written afresh.
void KeyMatches::readBatch(const Operation& operation, Batch* batch) const {
  OpenDatabase& database = operation.database();
  *batch = {};
  batch->last = place;
  batch->opening = database.opening;
  batch->isOfAnotherFile = opening && *opening != database.opening;
  if (batch->isOfAnotherFile) return;
  const std::vector<Place> places = placesAfter(place);
  batch->isBroken = keys->maps.isBroken() || isEmptied(operation);
  if (batch->isBroken) return;
  batch->isAtEnd = places.size() < atOnce;
  std::optional<bool> isComplete;
  size_t bytes = 0;
  for (const Place& next : places) {
    batch->last = next;
    if (database.bulk != nullptr && database.bulk->keys.isPositionOf(next.position)) continue;
    Candidate candidate;
    const bool isRead = readBefore(*batch, next, &candidate);
    if (isRead || readAt(operation, next, &candidate)) {
      if (!isRead) bytes += candidate.payload->size();
      batch->candidates.push_back(std::move(candidate));
      if (bytes < kMostBytesAtOnce) continue;
      batch->isAtEnd = batch->isAtEnd && &next == &places.back();
      break;
    }
    if (!isComplete) isComplete = keys->isCompleteNow(operation);
    if (!*isComplete && !isAssured) continue;  // it will be built again if need be
    if (!*isComplete) enterWhereItIs(operation, next);
    keys->drop(next);
  }
  batch->changes = database.changes;
  batch->generation = keys->generation;
  batch->transaction = database.transactions.openNumber;
  batch->mayHaveMoved =
      batch->changes != changesAtBegin || mayOthersWrite(database) || !isComplete.value_or(true);
}

// Whether the index had everything, and was emptied since: what was entered after that is not all.
bool KeyMatches::isEmptied(const Operation& operation) const {
  return isAssured && keys->generation != generation && !keys->isCompleteNow(operation);
}

// A record with several keys, in the same turn.
bool KeyMatches::readBefore(const Batch& batch, const Place& at, Candidate* candidate) {
  const auto same =
      std::find_if(batch.candidates.begin(), batch.candidates.end(),
                   [&at](const Candidate& each) { return each.place.position == at.position; });
  if (same == batch.candidates.end()) return false;
  *candidate = *same;
  candidate->place = at;
  return true;
}

bool KeyMatches::readAt(const Operation& operation, const Place& from, Candidate* candidate) const {
  engine::FoundRecord record;
  record.recordPos = from.position;
  const Id table = keys->table.id();
  const bool isThere =
      readLinked(operation, table, keys->slot.tableID, keys->usualBlock, &record) ||
      isReachedFromFront(operation, table, keys->slot.tableID, &record);
  if (!isThere && platform::lastHostFailure()) {
    operation.fail(Reason::cannot_read, "the system cannot read the file");
  }
  if (!isThere) return false;
  candidate->place = from;
  candidate->info = recordInfo(record.header, from.position);
  candidate->payload = std::make_shared<std::vector<std::byte>>();
  appendPayload(operation, table, candidate->info, candidate->info.size, candidate->payload.get());
  return true;
}

// The record at a place that others have changed since: its block keeps its identifier when the
// record has moved.
void KeyMatches::enterWhereItIs(const Operation& operation, const Place& from) const {
  engine::FoundRecord record;
  if (!readHead(operation.db(), from.position, keys->slot.tableID, &record.header)) return;
  const Id id{format::identifierNumber(record.header.recordID)};
  if (locate(operation, keys->table.id(), id, &record) == Located::no) return;
  keys->maps.insert(from.key, record.recordPos, keys->options.ordered);
}

void KeyMatches::match(const Batch& batch) {
  std::vector<Place> wrong;
  const std::vector<Made> earlier = std::exchange(made, {});
  // First, and into one piece of memory: where the function throws, nothing has been delivered.
  made.reserve(batch.candidates.size());
  std::vector<const KeyList*> keysOfEach;
  keysOfEach.reserve(batch.candidates.size());
  for (const Candidate& each : batch.candidates) keysOfEach.push_back(&keysOf(each, earlier));
  auto keysOfNext = keysOfEach.begin();
  for (const Candidate& candidate : batch.candidates) {
    if (!(*keysOfNext++)->contains(candidate.place.key)) {
      wrong.push_back(candidate.place);
      continue;
    }
    if (wasDelivered(candidate) && batch.mayHaveMoved) continue;
    hasDelivered = true;
    Record record(keys->database, keys->table.id(), candidate.info);
    record.opening_ = batch.opening;
    record.transaction_ = batch.transaction;
    record.loaded_ = *candidate.payload;
    record.kept_ = {candidate.payload, candidate.payload->data()};
    found.push_back({candidate.place.key, std::move(record)});
  }
  if (!wrong.empty()) drop(batch, wrong);
}

const KeyList& KeyMatches::keysOf(const Candidate& candidate, const std::vector<Made>& earlier) {
  const auto isSame = [&candidate](const Made& each) {
    return each.position == candidate.info.position &&
           (each.payload == candidate.payload || *each.payload == *candidate.payload);
  };
  const auto now = std::find_if(made.begin(), made.end(), isSame);
  if (now != made.end()) return now->keys;
  const auto before = std::find_if(earlier.begin(), earlier.end(), isSame);
  KeyList list = before != earlier.end() ? before->keys : keys->keysOf(*candidate.payload);
  return made.emplace_back(Made{candidate.info.position, candidate.payload, std::move(list)}).keys;
}

// A record that moves is entered anew, further back.
bool KeyMatches::wasDelivered(const Candidate& candidate) {
  if (bounds.isFind) return false;
  if (deliveredKey != candidate.place.key) {
    deliveredKey = candidate.place.key;
    delivered.clear();
  }
  return !delivered.insert(candidate.info.id.value).second;
}

// A change since the batch was read may have made them right.
void KeyMatches::drop(const Batch& batch, const std::vector<Place>& wrong) const {
  const DatabaseTurn turn(*keys->database);
  if (turn.handle() == 0) return;
  if (keys->database->changes != batch.changes || keys->generation != batch.generation) return;
  for (const Place& each : wrong) keys->drop(each);
}

}  // namespace qvdb::detail
