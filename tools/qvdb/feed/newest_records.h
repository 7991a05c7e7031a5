// The end of a table's list: its last records, or those since a time.
#pragma once

#include <qvdbase/qvdb.hpp>

#include <cstdint>
#include <exception>
#include <optional>

#include "streams/interrupt.h"

namespace qvdb::tool {

// Which records of a table are wanted; all of them when nothing is said.
struct Newest {
  std::optional<uint64_t> last;  // so many at the end
  std::optional<int64_t> since;  // those at the end that were created then or later, in seconds
  bool isAll() const { return !last && !since; }
};

// Where the list of them begins. Found back from the last record, so that it costs what they cost.
struct NewestStart {
  std::optional<Record> record;  // nothing when there are none
  std::exception_ptr damage;     // of the chain, before as many were found as are wanted
};
NewestStart findStart(const Table& table, const Newest& wanted);

// Calls take(record) for each of them, oldest first, until it returns false. Where the chain is
// damaged, those that can be reached are taken before the error is thrown.
template <typename Take>
void forEachOf(const Table& table, const Newest& wanted, Take take) {
  NewestStart start;
  if (!wanted.isAll()) {
    start = findStart(table, wanted);
    if (!start.record) {
      if (start.damage) std::rethrow_exception(start.damage);
      return;
    }
  }
  const WalkStart from = start.record ? WalkStart(*start.record) : WalkStart();
  for (const Record& record : table.records({.from = from})) {
    throwIfInterrupted();
    if (!take(record)) return;
  }
  if (start.damage) std::rethrow_exception(start.damage);
}

}  // namespace qvdb::tool
