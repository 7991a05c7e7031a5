#include "feed/newest_records.h"

namespace qvdb::tool {

NewestStart findStart(const Table& table, const Newest& wanted) {
  NewestStart start;
  uint64_t left = wanted.last.value_or(~uint64_t{0});
  if (left == 0) return start;
  try {
    for (const Record& record : table.records({.order = Order::newest_first})) {
      throwIfInterrupted();
      if (wanted.since && record.info().create_time < *wanted.since) break;
      start.record = record;
      if (--left == 0) break;
    }
  } catch (const Error& error) {
    if (error.reason() != Reason::chain_damaged) throw;
    start.damage = std::current_exception();
  }
  return start;
}

}  // namespace qvdb::tool
