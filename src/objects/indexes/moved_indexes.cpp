// Moving the positions in indexes.
#include "objects/indexes/moved_indexes.h"

#include <qvdbase/qvdb/error.hpp>

#include <algorithm>
#include <exception>
#include <utility>

#include "QVDbase/position.h"
#include "upkeep/compact_open.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

constexpr const char* kMove = "move the indexes of the database";

// Where a record is now. Records have about one size mostly: the search begins at the share of the
// file at which the position is, and goes on from there in steps that double.
class NewPlaces {
 public:
  explicit NewPlaces(const std::vector<upkeep::Move>& moves) : moves_(moves) {}

  // 0 for a position at which there was no record that is still there.
  int64_t operator()(int64_t position) const {
    if (moves_.empty() || position < moves_.front().from || position > moves_.back().from) return 0;
    const auto [begin, end] = around(position);
    const auto found = std::lower_bound(
        moves_.begin() + begin, moves_.begin() + end, position,
        [](const upkeep::Move& move, int64_t wanted) { return move.from < wanted; });
    return found != moves_.end() && found->from == position ? found->to : 0;
  }

 private:
  std::pair<ptrdiff_t, ptrdiff_t> around(int64_t position) const {
    const auto count = static_cast<ptrdiff_t>(moves_.size());
    const double share = static_cast<double>(position - moves_.front().from) /
                         static_cast<double>(moves_.back().from - moves_.front().from + 1);
    ptrdiff_t begin =
        std::min(static_cast<ptrdiff_t>(share * static_cast<double>(count)), count - 1);
    ptrdiff_t end = begin + 1;
    for (ptrdiff_t step = 4; begin > 0 && fromAt(begin) > position; step *= 2) {
      begin = std::max<ptrdiff_t>(0, begin - step);
    }
    for (ptrdiff_t step = 4; end < count && fromAt(end) < position; step *= 2) {
      end = std::min(count, end + step);
    }
    return {begin, end};
  }

  int64_t fromAt(ptrdiff_t index) const { return moves_[static_cast<size_t>(index)].from; }

  const std::vector<upkeep::Move>& moves_;
};

void move(const Operation& operation, TableIndex& index, const NewPlaces& newPlace) {
  const tablePart1 slot = operation.table(index.table).slot;
  index.isStale = true;
  if (!index.map.movePositions(newPlace) || index.map.size() != slot.recordCount) return;
  index.slot = slot;
  index.lastPos = slot.lastRecordPos;
  index.usualBlock = usualBlockOf(slot);
  index.writesSeen = 0;
  index.isStale = false;
}

void move(const Operation& operation, TableKeys& keys, const NewPlaces& newPlace) {
  const OpenDatabase& database = operation.database();
  const tablePart1 slot = operation.table(keys.table.id()).slot;
  KeyMaps moved = keys.maps.moved(newPlace);
  if (keys.maps.isBroken()) return keys.forget();
  keys.useMoved(std::move(moved), slot);
  keys.opening = database.opening;
  keys.writesByOthers = database.writesByOthers;
}

template <typename Index>
bool has(const std::vector<std::shared_ptr<Index>>& list, const std::shared_ptr<Index>& index) {
  return std::find(list.begin(), list.end(), index) != list.end();
}

}  // namespace

MovedIndexes::MovedIndexes(const Operation& operation) {
  const OpenDatabase& database = operation.database();
  engine::SavedPosition scope(operation.db());
  for (const std::weak_ptr<TableIndex>& held : database.indexes) {
    const std::shared_ptr<TableIndex> index = held.lock();
    const bool isUsable = index != nullptr && !index->isStale && !index->map.isKept() &&
                          !index->hasDuplicates && bringUpToDate(operation, *index);
    if (isUsable && !index->hasDuplicates) indexes_.push_back(index);
  }
  for (const std::weak_ptr<TableKeys>& held : database.keyIndexes) {
    const std::shared_ptr<TableKeys> keys = held.lock();
    if (keys != nullptr && keys->isCompleteNow(operation)) keys_.push_back(keys);
  }
}

// What goes wrong here costs a walk later.
void MovedIndexes::apply(const std::shared_ptr<OpenDatabase>& database) const noexcept {
  for (const std::weak_ptr<TableIndex>& held : database->indexes) {
    const std::shared_ptr<TableIndex> index = held.lock();
    if (index != nullptr && !has(indexes_, index)) index->isStale = true;
  }
  for (const std::weak_ptr<TableKeys>& held : database->keyIndexes) {
    const std::shared_ptr<TableKeys> keys = held.lock();
    if (keys != nullptr && !has(keys_, keys)) keys->forget();
  }
  noteOwnWrites(*database);
  const NewPlaces newPlace(database->moves);
  const auto attempt = [&](auto& index, const auto& giveUp) {
    try {
      const Operation operation(database, kMove);
      engine::SavedPosition scope(operation.db());
      move(operation, index, newPlace);
    } catch (const std::exception&) {
      giveUp();
    }
  };
  for (const auto& index : indexes_) {
    attempt(*index, [&] { index->isStale = true; });
  }
  for (const auto& keys : keys_) {
    attempt(*keys, [&] { keys->forget(); });
  }
}

}  // namespace qvdb::detail
