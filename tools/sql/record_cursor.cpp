// The rows of qvdb_records.
#include "sql/record_cursor.h"

#include <algorithm>

namespace qvdb::sql {
namespace {

constexpr int kBitsOfAPlace = 32;  // a table has fewer than 2^32 records

// After so many rows the payloads of the next ones are read ahead, several at a time. Until then
// none is read that is not asked for.
constexpr uint64_t kRowsBeforeLoading = 64;

Order opposite(Order order) {
  return order == Order::oldest_first ? Order::newest_first : Order::oldest_first;
}

// The walk from the record at a place on, begun from the nearer end of the table. Places count from
// 1, oldest first. Null where the table has got shorter meanwhile.
template <typename Walk>
std::unique_ptr<Walk> walkFrom(const Table& table, Order order, int64_t place, int64_t count) {
  int64_t before = order == Order::oldest_first ? place - 1 : count - place;
  const int64_t beyond = count - 1 - before;
  const bool isNearer = before <= beyond;
  auto walk = std::make_unique<Walk>(
      table.records(WalkOptions{.order = isNearer ? order : opposite(order)}));
  for (int64_t steps = isNearer ? before : beyond; steps > 0 && !walk->isAtEnd(); --steps) {
    ++walk->place;
  }
  if (walk->isAtEnd()) return nullptr;
  if (isNearer) return walk;
  const Record record = *walk->place;
  return std::make_unique<Walk>(table.records(WalkOptions{.order = order, .from = record}));
}

}  // namespace

void RecordCursor::begin(const WantedRecords& wanted) {
  wanted_ = wanted;
  tables_.clear();
  at_ = 0;
  walk_.reset();
  found_.reset();
  chooseTables();
  goToRow();
}

void RecordCursor::chooseTables() {
  if (wanted_.table) {
    tables_.push_back({wanted_.file->table(*wanted_.table), 0});
    return;
  }
  int64_t slot = 0;
  for (const Table& table : wanted_.file->database().tables()) {
    const int64_t base = slot++ << kBitsOfAPlace;
    if (!wanted_.name || *wanted_.name == table.name()) tables_.push_back({table, base});
  }
  if (wanted_.isNewestFirst) std::reverse(tables_.begin(), tables_.end());
}

// From table to table until there is a row.
void RecordCursor::goToRow() {
  while (!isAtEnd() && !beginTable()) ++at_;
}

bool RecordCursor::beginTable() {
  const Source& source = tables_[at_];
  walk_.reset();
  found_.reset();
  askedInARow_ = 0;
  isAsked_ = isLoading_ = false;
  if (!wanted_.id) return beginWalk();
  found_ = wanted_.file->find(source.table, *wanted_.id);
  return found_.has_value();
}

// The number of records is read before the walk and after its beginning, so that places are right
// beside a process that adds records.
bool RecordCursor::beginWalk() {
  const Source& source = tables_[at_];
  for (int attempt = 0; attempt < 3; ++attempt) {
    const int64_t count = source.table.count();
    first_ = std::max<int64_t>(wanted_.lowest - source.base, 1);
    last_ = std::min<int64_t>(wanted_.highest - source.base, count);
    if (first_ > last_) return false;
    if (wanted_.isNewestFirst) std::swap(first_, last_);
    place_ = first_;
    walk_ = walkFrom<Walk>(source.table, order(), place_, count);
    if (source.table.count() == count) break;
  }
  return walk_ != nullptr && !walk_->isAtEnd();
}

bool RecordCursor::isInRange() const {
  return wanted_.isNewestFirst ? place_ >= last_ : place_ <= last_;
}

void RecordCursor::next() {
  if (walk_) {
    changeLoading();
    place_ += wanted_.isNewestFirst ? -1 : 1;
    if (isInRange()) ++walk_->place;
    if (isInRange() && !walk_->isAtEnd()) return;
  }
  ++at_;
  goToRow();
}

// Begins another walk after the present record, with or without payloads. Where that record is not
// in the table any more, the present walk goes on.
void RecordCursor::changeLoading() {
  askedInARow_ = isAsked_ ? askedInARow_ + 1 : 0;
  isAsked_ = false;
  const bool wantsLoading = askedInARow_ >= kRowsBeforeLoading;
  if (wantsLoading == isLoading_ || place_ == last_) return;
  try {
    const Record record = *walk_->place;
    WalkOptions options{.order = order(), .from = record};
    if (wantsLoading) options.load = Load::payloads;
    walk_ = std::make_unique<Walk>(table().records(options));
    isLoading_ = wantsLoading;
  } catch (const Error& error) {
    if (error.reason() != Reason::record_missing) throw;
  }
}

int64_t RecordCursor::rowid() const {
  const int64_t base = tables_[at_].base;
  if (!found_) return base + place_;
  int64_t place = table().count();
  for (RecordRange later = table().records_after(*found_); const Record& record : later) {
    static_cast<void>(record);
    --place;
  }
  return base + place;
}

std::span<const std::byte> RecordCursor::payload() {
  isAsked_ = true;
  if (record().is_loaded()) return record().loaded();
  record().payload(payload_);
  return payload_;
}

}  // namespace qvdb::sql
