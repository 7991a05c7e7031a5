// Building and maintaining an index of keys.
#include "objects/indexes/table_keys.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "QVDbase/record_append.h"
#include "format/identifiers.h"
#include "objects/indexes/key_lookup.h"
#include "objects/indexes/table_index.h"
#include "objects/sharing/looks.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr const char* kIndex = "index the keys of the table";

// So many records are entered in one turn.
constexpr size_t kAtOnce = 256;

// Wrong entries that are kept in any case.
constexpr size_t kMayBeLeft = 1024;

}  // namespace

void KeyList::complete() {
  if (keys_.size() < 2) return;
  const auto isBefore = [this](const Place& a, const Place& b) { return at(a) < at(b); };
  const auto isEqual = [this](const Place& a, const Place& b) { return at(a) == at(b); };
  std::sort(keys_.begin(), keys_.end(), isBefore);
  keys_.erase(std::unique(keys_.begin(), keys_.end(), isEqual), keys_.end());
}

bool KeyList::contains(std::string_view key) const noexcept {
  const auto place = std::lower_bound(
      keys_.begin(), keys_.end(), key,
      [this](const Place& each, std::string_view text) { return at(each) < text; });
  return place != keys_.end() && at(*place) == key;
}

TableKeys::TableKeys(const Table& indexed, MakeKeys makeOne, const KeyIndexOptions& wanted,
                     uint32_t type)
    : database(databaseOf(indexed)),
      table(indexed),
      make(std::move(makeOne)),
      options(wanted),
      keyType(type) {}

KeyList TableKeys::keysOf(std::span<const std::byte> payload) const {
  KeyList keys;
  make(payload, keys);
  keys.complete();
  return keys;
}

std::shared_ptr<KeyBuild> TableKeys::beginBuild() {
  const Operation operation(database, kIndex);
  // The hashes of a kept one will be in a file that others may read.
  auto build = std::make_shared<KeyBuild>(
      isKept() ? support::HashSeed{support::drawnNumber(), support::drawnNumber()}
               : support::hashSeed());
  look(operation, [&] {
    build->slot = operation.table(table.id()).slot;
    build->isSettled =
        platform::stampOf(operation.db(), &build->stamp) && !platform::isFresh(build->stamp);
  });
  noticeWrites(*database);
  build->writesByOthers = database->writesByOthers;
  build->opening = database->opening;
  const uint64_t most = operation.fileLength() / format::kRecordBlockOverhead;
  build->maps.reserve(static_cast<size_t>(std::min<uint64_t>(build->slot.recordCount, most)));
  isComplete = false;
  replaceMaps(KeyMaps());
  slot = build->slot;
  usualBlock = usualBlockOf(slot);
  std::erase_if(inWork, [](const auto& other) { return other.expired(); });
  inWork.push_back(build);
  return build;
}

void TableKeys::replaceMaps(KeyMaps&& others) noexcept {
  maps = std::move(others);
  left = 0;
  ++generation;
}

void TableKeys::enterSome(const std::vector<std::pair<KeyList, int64_t>>& some, KeyBuild* build) {
  const Operation operation(database, kIndex);
  KeyMaps& to = build != nullptr ? build->maps : maps;
  for (const auto& [keys, position] : some) {
    for (size_t i = 0; i < keys.size(); ++i) {
      const bool mayBeTwice = options.unique && build != nullptr && to.containsInMemory(keys[i]);
      const bool isNew = to.insert(keys[i], position, options.ordered);
      if (mayBeTwice && isNew) build->twice.emplace(keys[i]);
      if (build == nullptr) journal.note(&KeyJournal::entered, keys[i], position);
    }
    (build != nullptr ? build->lastPos : lastPos) = position;
  }
}

// The range ends with the error that is returned: those of the function pass, and so do others that
// say nothing about the file.
std::exception_ptr TableKeys::enterAll(RecordRange records, KeyBuild* build) {
  std::exception_ptr failure;
  std::vector<std::pair<KeyList, int64_t>> some;
  const auto next = [&](auto&& step) {
    try {
      step();
      return true;
    } catch (const Error& error) {
      if (!saysWhatTheFileHolds(error.reason())) throw;
      failure = std::current_exception();
      return false;
    }
  };
  RecordRange::iterator record;
  if (!next([&] { record = records.begin(); })) return failure;
  while (record != records.end()) {
    some.emplace_back(keysOf(record->loaded()), record->info().position);
    if (some.size() == kAtOnce) {
      enterSome(some, build);
      some.clear();
    }
    if (!next([&] { ++record; })) break;
  }
  enterSome(some, build);
  return failure;
}

std::exception_ptr TableKeys::build(bool isFirst) {
  const std::shared_ptr<KeyBuild> begun = beginBuild();
  const std::exception_ptr failure = enterAll(table.records(Load::payloads), begun.get());
  const bool isWhole = failure == nullptr;
  std::set<std::string> twice = std::move(begun->twice);
  endBuild(begun, isWhole);
  if (isFirst && isWhole) requireOnce(twice);
  return failure;
}

void TableKeys::endBuild(const std::shared_ptr<KeyBuild>& build, bool isWhole) {
  const Operation operation(database, kIndex);
  noticeWrites(*database);
  replaceMaps(std::move(build->maps));
  builtGeneration = generation;
  std::erase_if(inWork, [&](const auto& other) { return other.lock() == build; });
  opening = build->opening;
  writesByOthers = build->writesByOthers;
  stamp = build->stamp;
  isSettled = build->isSettled;
  slot = build->slot;
  lastPos = build->lastPos;
  isComplete = isWhole && !build->isSpoiled && opening == database->opening;
  // What this object has changed meanwhile has been entered.
  if (isComplete && !database->isBesideWriters) {
    engine::SavedPosition scope(operation.db());
    slot = operation.table(table.id()).slot;
  }
}

bool TableKeys::catchUp() {
  int64_t from = 0;
  {
    const Operation operation(database, kIndex);
    from = lastPos;
  }
  const WalkOptions tail = {.from = WalkStart(from),
                            .load = Load::payloads,
                            .largest_loaded = std::numeric_limits<uint32_t>::max()};
  return enterAll(table.records(tail), nullptr) == nullptr;
}

void TableKeys::requireOnce(const std::set<std::string>& keys) {
  for (const std::string& key : keys) {
    KeyWalk walk(shared_from_this(), {true, false, key, std::nullopt});
    if (!walk.next() || !walk.next()) continue;
    const Operation operation(database, kIndex);
    operation.about(table.name());
    operation.fail(Reason::key_exists,
                   "two records of " + operation.quotedTable() +
                       " have one key, which the index is to allow once; change or remove record " +
                       to_string(walk.takeRecord().id()));
  }
}

// The stamp of the file was taken when every later write would change it.
void TableKeys::useKept(std::shared_ptr<KeptPages> kept, const tablePart1& now, bool isSame) {
  const format::kept::Stamp& then = kept->head().stamp;
  saved = then;
  stamp = {then.size, then.modifyTime, then.statusTime};
  isSettled = true;
  lastPos = kept->head().chain.last;
  slot = now;
  usualBlock = usualBlockOf(now);
  opening = database->opening;
  writesByOthers = database->writesByOthers;
  KeyMaps begun;
  begun.use(std::move(kept));
  replaceMaps(std::move(begun));
  isComplete = isSame;
}

void TableKeys::useMoved(KeyMaps&& moved, const tablePart1& now) noexcept {
  const size_t wrong = left;
  replaceMaps(std::move(moved));
  left = wrong;
  slot = now;
  lastPos = now.lastRecordPos;
  usualBlock = usualBlockOf(now);
  isSettled = false;
}

bool TableKeys::isCompleteNow(const Operation& operation) const {
  OpenDatabase& asked = operation.database();
  if (!isComplete || maps.isBroken() || opening != asked.opening) return false;
  noticeWrites(asked);
  if (writesByOthers != asked.writesByOthers) return false;
  if (!engine::hasSameChain(operation.table(table.id()).slot, slot)) return false;
  if (!mayOthersWrite(asked)) return true;
  platform::FileStamp now;
  return isSettled && platform::stampOf(operation.db(), &now) && now == stamp;
}

void TableKeys::enter(const KeyList& keys, int64_t position) noexcept {
  try {
    for (size_t i = 0; i < keys.size(); ++i) {
      maps.insert(keys[i], position, options.ordered);
      journal.note(&KeyJournal::entered, keys[i], position);
      for (const auto& other : inWork) {
        if (const auto build = other.lock()) build->maps.insert(keys[i], position, options.ordered);
      }
    }
  } catch (const std::bad_alloc&) {
    spoil();
  }
}

// Keys that it had before are left.
void TableKeys::enterMoved(const KeyList& keys, int64_t from, int64_t to) noexcept {
  const size_t before = maps.size();
  for (size_t i = 0; i < keys.size(); ++i) {
    if (maps.erase(keys[i], from)) journal.note(&KeyJournal::erased, keys[i], from);
  }
  const size_t erased = before - maps.size();
  enter(keys, to);
  if (erased < keys.size()) noteLeft(keys.size() - erased);
}

void TableKeys::drop(const OrderedKeys::Place& place) noexcept {
  if (!maps.erase(place.key, place.position)) return;
  journal.note(&KeyJournal::erased, place.key, place.position);
  if (left != 0) --left;
}

// What others have changed since, beside writers, is not hidden by a newer slot.
void TableKeys::noteChain(const tablePart1& now, int64_t more) noexcept {
  const int64_t added = std::max<int64_t>(more, 0);
  const bool isNextState = int64_t{now.recordCount} == int64_t{slot.recordCount} + more &&
                           int64_t{now.recordWriteCount} == int64_t{slot.recordWriteCount} + added;
  if (!isNextState) {
    if (!database->isBesideWriters) spoil();
    return;
  }
  slot = now;
  if (more > 0) lastPos = now.lastRecordPos;
  if (more < 0) noteLeft(maps.size() / (now.recordCount + size_t{1}) + 1);
}

void TableKeys::noteMovedChain(const tablePart1& now, int64_t from, int64_t to) noexcept {
  slot.firstRecordPos = now.firstRecordPos;
  slot.lastRecordPos = now.lastRecordPos;
  if (lastPos == from) lastPos = to;
}

void TableKeys::noteLeft(size_t entries) noexcept {
  left += entries;
  if (left <= kMayBeLeft + maps.size() / 2) return;
  isComplete = false;
  replaceMaps(KeyMaps());
}

void TableKeys::spoil() noexcept {
  isComplete = false;
  for (const auto& other : inWork) {
    if (const auto build = other.lock()) build->isSpoiled = true;
  }
}

void TableKeys::forget() noexcept {
  spoil();
  replaceMaps(KeyMaps());
  lastPos = 0;
}

std::vector<std::shared_ptr<TableKeys>> keyIndexesOf(const OpenDatabase& database, Id table) {
  std::vector<std::shared_ptr<TableKeys>> indexes;
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    std::shared_ptr<TableKeys> index = held.lock();
    if (index != nullptr && index->table.id() == table) indexes.push_back(std::move(index));
  }
  return indexes;
}

void forgetKeysOf(const OpenDatabase& database, Id table) noexcept {
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    const std::shared_ptr<TableKeys> index = held.lock();
    if (index != nullptr && index->table.id() == table) index->forget();
  }
}

void forgetKeys(const OpenDatabase& database) noexcept {
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    const std::shared_ptr<TableKeys> index = held.lock();
    if (index != nullptr) index->forget();
  }
}

bool mayOthersWrite(const OpenDatabase& database) {
  return database.isBesideWriters && !database.isViewOfExclusive();
}

void noticeWrites(OpenDatabase& database) noexcept {
  const size_t writes = platform::writesHere(database.handle);
  if (writes != std::exchange(database.writesKnown, writes)) ++database.writesByOthers;
}

void noteOwnWrites(OpenDatabase& database) noexcept {
  database.writesKnown = platform::writesHere(database.handle);
}

OwnWrites::OwnWrites(OpenDatabase& database) : database_(database) {
  if (!database_.keyIndexes.empty()) noticeWrites(database_);
}

OwnWrites::~OwnWrites() {
  if (!database_.keyIndexes.empty()) noteOwnWrites(database_);
}

}  // namespace qvdb::detail
