#include "feed/record_feed.h"

#include <algorithm>
#include <limits>

namespace qvdb::tool {

void RecordFeed::begin(const Table& table) {
  seenInfo_ = table.info();
  std::vector<Record> latest;
  for (const Record& record : table.records({.order = Order::newest_first})) {
    latest.push_back(record);
    if (latest.size() == kRemembered) break;
  }
  std::for_each(latest.rbegin(), latest.rend(), [this](const Record& record) { note(record); });
}

void RecordFeed::note(const Record& record) {
  const RecordInfo& info = record.info();
  last_ = info;
  knowsPlace_ = true;
  if (!remembered_.insert_or_assign(info.id.value, info.create_time).second) return;
  order_.push_back(info.id);
  if (order_.size() <= kRemembered) return;
  remembered_.erase(order_.front().value);
  order_.pop_front();
}

void RecordFeed::fileWasReplaced() {
  seenInfo_.reset();
  knowsPlace_ = false;
}

bool RecordFeed::takeNew(const Table& table, const Take& take) {
  const TableInfo now = table.info();
  if (!hasChanged(now)) return true;
  bool isDone = false;
  const bool goesOn =
      takeAfterLast(table, take, &isDone) && (isDone || takeFromEnd(table, now, take));
  if (goesOn) seenInfo_ = now;
  return goesOn;
}

bool RecordFeed::hasChanged(const TableInfo& now) const {
  return !seenInfo_ || now.record_write_count != seenInfo_->record_write_count ||
         now.record_count != seenInfo_->record_count ||
         now.last_record_position != seenInfo_->last_record_position;
}

bool RecordFeed::takeAll(RecordRange walk, const Take& take) {
  for (const Record& record : walk) {
    note(record);
    if (!take(record)) return false;
  }
  return true;
}

// In constant time, where the record that was seen last is where it was.
bool RecordFeed::takeAfterLast(const Table& table, const Take& take, bool* isDone) {
  if (!last_ || !knowsPlace_) return true;
  try {
    RecordRange walk = table.records({.from = last_->position});
    RecordRange::iterator i = walk.begin();
    if (i->id() != last_->id) return true;
    *isDone = true;
    while (++i != walk.end()) {
      note(*i);
      if (!take(*i)) return false;
    }
  } catch (const Error& error) {
    const bool isGone = error.reason() == Reason::record_missing;
    if (!isGone && error.reason() != Reason::changed_meanwhile) throw;
  }
  return true;
}

bool RecordFeed::takeFromEnd(const Table& table, const TableInfo& now, const Take& take) {
  if (!last_) return takeAll(table.records(), take);
  const std::vector<Record> found = newFromEnd(table, now);
  return std::all_of(found.rbegin(), found.rend(), [&](const Record& record) {
    note(record);
    return take(record);
  });
}

// The walk begins at the end that the chain has by then: what was added since `now` was read counts
// too.
std::vector<Record> RecordFeed::newFromEnd(const Table& table, const TableInfo& now) const {
  Bounds bounds = boundsOf(now);
  std::vector<Record> found;
  for (const Record& record : table.records({.order = Order::newest_first})) {
    if (wasSeen(record)) break;
    if (found.size() >= bounds.most) bounds.most = boundsOf(table.info()).most;
    if (found.size() >= bounds.most) break;
    const bool isOlder = record.info().create_time < last_->create_time;
    if (found.size() >= bounds.certain && isOlder) break;
    found.push_back(record);
  }
  return found;
}

// The counts are 32 bits wide, and go on from 0 after the largest.
RecordFeed::Bounds RecordFeed::boundsOf(const TableInfo& now) const {
  if (!seenInfo_) return {0, std::numeric_limits<uint64_t>::max()};
  const uint32_t added = now.record_write_count - seenInfo_->record_write_count;
  const uint64_t inAll = uint64_t{seenInfo_->record_count} + added;
  const uint64_t deleted = inAll - std::min<uint64_t>(inAll, now.record_count);
  return {added - std::min<uint64_t>(added, deleted), added};
}

// One of the same identifier that was created at another time is another record.
bool RecordFeed::wasSeen(const Record& record) const {
  const auto found = remembered_.find(record.id().value);
  return found != remembered_.end() && found->second == record.info().create_time;
}

}  // namespace qvdb::tool
