// Where the records of a table are, for an operation that looks up many of them.
//
// A lookup in the engine walks the chain from its first record. This index walks it once and then
// answers as that walk would: the first record of an identifier is found, and none after the point
// at which the walk fails.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "QVDbase/tables.h"
#include "support/seeded_hash.h"

namespace qvdbase::maintenance {

class RecordIndex {
 public:
  // Walks the table's chain. False when there is no such table. Memory that runs out leaves as an
  // exception. The position is not restored.
  [[nodiscard]] bool build(int16_t db, uint64_t table);

  const engine::FoundTable& table() const { return table_; }

  // The record's position, or 0.
  int64_t find(uint64_t record) const;

  // Takes the new place of a record that was relocated, and the table since then.
  void moved(uint64_t record, int64_t newRecordPos, const engine::FoundTable& table) {
    positions_[record] = newRecordPos;
    table_ = table;
  }

 private:
  engine::FoundTable table_{};
  std::unordered_map<uint64_t, int64_t, support::SeededHash> positions_;
};

}  // namespace qvdbase::maintenance
