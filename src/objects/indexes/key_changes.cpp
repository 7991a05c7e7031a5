// What a change of a record means for the indexes of its table's keys.
#include "objects/indexes/key_changes.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <utility>

#include "objects/indexes/key_lookup.h"
#include "objects/writing/bulk.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

// How often a change is tried while others change the table.
constexpr int kTries = 100;

// Places at which a key of a unique index is thought to be: seldom more than one.
constexpr size_t kLookedAt = 3;

}  // namespace

bool KeyChange::concerns(const Operation& operation, Id table) {
  const OpenDatabase& database = operation.database();
  return !database.keyIndexes.empty() && !keyIndexesOf(database, table).empty();
}

bool KeyChange::isMadeOf(const PayloadAfter& after) const {
  const std::span<const std::byte> made = payload_.bytes;
  if (!isMade_ || made.size() != after.bytes.size()) return false;
  return made.data() == after.bytes.data() ||
         std::equal(made.begin(), made.end(), after.bytes.begin());
}

bool KeyChange::holdsAllIndexes(const std::vector<std::shared_ptr<TableKeys>>& indexes) const {
  return std::all_of(indexes.begin(), indexes.end(), [this](const auto& index) {
    return std::any_of(made_.begin(), made_.end(),
                       [&index](const Each& each) { return each.index == index; });
  });
}

bool KeyChange::isReady(const Operation& operation, PayloadAfter&& after, int64_t ownPosition) {
  OpenDatabase& database = operation.database();
  if (database.keyIndexes.empty()) return true;
  const std::vector<std::shared_ptr<TableKeys>> indexes = keyIndexesOf(database, table_);
  if (indexes.empty()) return true;
  ownPosition_ = ownPosition;
  changes_ = database.changes;
  if (!isMadeOf(after) || !holdsAllIndexes(indexes)) {
    made_.clear();
    for (const auto& index : indexes) made_.push_back({index, {}});
    payload_ = std::move(after);
    isMade_ = false;
    return false;
  }
  requireNotInBatch(operation);
  return std::all_of(made_.begin(), made_.end(),
                     [&](const Each& each) { return isFree(operation, each); });
}

void KeyChange::requireNotInBatch(const Operation& operation) const {
  const Bulk* bulk = operation.database().bulk;
  if (bulk == nullptr || bulk->table != table_) return;
  for (const Each& each : made_) {
    for (size_t i = 0; each.index->options.unique && i < each.keys.size(); ++i) {
      if (!bulk->keys.has(*each.index, each.keys[i])) continue;
      failKeyExists(operation, "a record of the batch that is open");
    }
  }
}

// Whether no other record can have one of the keys, as far as the index knows.
bool KeyChange::isFree(const Operation& operation, const Each& each) const {
  if (!each.index->options.unique || each.keys.size() == 0) return true;
  const Bulk* batch = operation.database().bulk;
  engine::SavedPosition scope(operation.db());
  if (!each.index->isCompleteNow(operation)) return false;
  for (size_t i = 0; i < each.keys.size(); ++i) {
    std::vector<int64_t> positions;
    each.index->maps.list(each.keys[i], 0, kLookedAt, &positions);
    if (each.index->maps.isBroken()) return false;
    std::erase_if(positions, [&](int64_t position) {
      return position == ownPosition_ ||
             (batch != nullptr && batch->keys.isPositionOf(position));  // looked at before
    });
    if (!positions.empty()) return false;
  }
  return true;
}

void KeyChange::prepare() {
  if (!isMade_) {
    for (Each& each : made_) each.keys = each.index->keysOf(payload_.bytes);
    isMade_ = true;
    return;
  }
  for (const Each& each : made_) {
    if (each.index->options.unique) requireFree(each);
  }
  if (++tries_ < kTries) return;
  Operation(database_, name_)
      .fail(Reason::changed_meanwhile, "the table was changed again and again; try again");
}

// The walk takes out entries that are wrong, and builds the index where it is not complete. What it
// finds is the record itself where that has moved meanwhile: then the table has changed.
void KeyChange::requireFree(const Each& each) const {
  for (size_t i = 0; i < each.keys.size(); ++i) {
    KeyMatches matches(each.index, {true, false, std::string(each.keys[i]), std::nullopt});
    while (matches.next()) {
      const RecordInfo& info = matches.current().record.info();
      if (info.position == ownPosition_) continue;
      const Operation operation(database_, name_);
      if (ownPosition_ != 0 && operation.database().changes != changes_) continue;
      operation.about(each.index->table.name());
      failKeyExists(operation, "record " + to_string(info.id));
    }
  }
}

void KeyChange::failKeyExists(const Operation& operation, const std::string& where) const {
  operation.fail(Reason::key_exists,
                 where +
                     " has one of its keys, which an index allows once; change that record, or "
                     "use another key");
}

void KeyChange::noteAdded(const tablePart1& slot, int64_t position) const noexcept {
  for (const Each& each : made_) {
    each.index->enter(each.keys, position);
    each.index->noteChain(slot, 1);
  }
}

void KeyChange::noteInPlace(int64_t position) const noexcept {
  for (const Each& each : made_) {
    const size_t before = each.index->maps.size();
    each.index->enter(each.keys, position);
    // What is new has taken the place of others, perhaps; without keys it has perhaps lost one.
    const size_t entered = each.index->maps.size() - before;
    if (entered != 0 || each.keys.size() == 0) each.index->noteLeft(std::max<size_t>(entered, 1));
  }
}

void KeyChange::noteMoved(const tablePart1& slot, int64_t from, int64_t to) const noexcept {
  for (const Each& each : made_) {
    each.index->enterMoved(each.keys, from, to);
    each.index->noteMovedChain(slot, from, to);
  }
}

bool BatchKeys::has(const TableKeys& index, std::string_view key) const {
  return std::any_of(indexes_.begin(), indexes_.end(), [&](const Each& each) {
    return each.index.lock().get() == &index && each.taken.contains(key);
  });
}

BatchKeys::Each& BatchKeys::of(const std::shared_ptr<TableKeys>& index) {
  for (Each& each : indexes_) {
    if (each.index.lock() == index) return each;
  }
  return indexes_.emplace_back(Each{index, index->generation, {}});
}

void BatchKeys::take(const KeyChange& change) {
  for (const KeyChange::Each& made : change.made_) {
    Each& each = of(made.index);
    for (size_t i = 0; made.index->options.unique && i < made.keys.size(); ++i) {
      each.taken.emplace(made.keys[i]);
    }
  }
}

void BatchKeys::add(const KeyChange& change, int64_t position) noexcept {
  if (first_ == 0) first_ = position;
  for (const KeyChange::Each& made : change.made_) {
    made.index->enter(made.keys, position);
  }
}

// An index that was emptied or built meanwhile does not have them all. None has been made: see
// makeTableKeys().
void BatchKeys::finish(const OpenDatabase& database, Id table, const tablePart1& slot,
                       uint32_t count) noexcept {
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    const std::shared_ptr<TableKeys> index = held.lock();
    if (index == nullptr || index->table.id() != table) continue;
    const bool hasAll = std::any_of(indexes_.begin(), indexes_.end(), [&](const Each& each) {
      return each.index.lock() == index && each.generation == index->generation;
    });
    if (!hasAll) index->spoil();
    index->noteChain(slot, count);
  }
  indexes_.clear();
  first_ = 0;
}

// Where the records could not be taken out of the file, they still lead to one another.
void BatchKeys::discard() noexcept {
  for (const Each& each : indexes_) {
    if (const auto index = each.index.lock()) index->forget();
  }
  indexes_.clear();
  first_ = 0;
}

void noteKeysRemoved(const OpenDatabase& database, Id table, const tablePart1& slot) noexcept {
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    const std::shared_ptr<TableKeys> index = held.lock();
    if (index != nullptr && index->table.id() == table) index->noteChain(slot, -1);
  }
}

}  // namespace qvdb::detail
