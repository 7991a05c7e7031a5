// The old and new identifiers of the renewed records, and the replacing of one by the other.
//
// Writing and counting are two things on purpose. Pairs are written at a cursor that returns to
// the start with every table; the count returns to 0 only when a new array begins. It is raised
// with every step from one record to the next, in tables that write nothing too. So the pair of a
// table's last record is written but not counted, and a table that is renewed after the remembered
// one overwrites its pairs from the first on. Callers rely on the effects.
#pragma once

#include <qvdbase/qvrzdb_sub.h>

#include <cstdint>
#include <unordered_map>

#include "platform/host/memory.h"
#include "support/seeded_hash.h"

namespace qvdbase::maintenance {

class IdPairs {
 public:
  // Begins a new array for that many expected pairs. Memory for at most `likely` of them is
  // allocated at once, and more when they are written, because the expectation is a number from a
  // file. False without memory.
  [[nodiscard]] bool begin(uint32_t expected, uint64_t likely);
  bool exist() const { return exist_; }

  // The cursor.
  void rewind() { cursor_ = 0; }
  [[nodiscard]] bool write(UUIDMapping pair);  // false without memory
  void advance() {
    ++cursor_;
    ++count_;
  }

  // Replaces each entry of secondIDs, as InternalConvertOldCategoryID2New does with the counted
  // pairs. Fails at the first entry that is not among them. No more pairs may be written then.
  // Memory that runs out leaves as an exception.
  [[nodiscard]] bool convert(qvrzOneCategoryRecord* record);

 private:
  bool grow(uint64_t needed);
  void buildIndex();

  platform::Buffer array_;
  bool exist_ = false;
  uint64_t cursor_ = 0;
  uint64_t count_ = 0;
  uint64_t written_ = 0;
  std::unordered_map<uint64_t, uint64_t, support::SeededHash>
      newOfOld_;  // the first pair of each oldID
  bool indexed_ = false;
};

}  // namespace qvdbase::maintenance
