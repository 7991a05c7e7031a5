// The identifiers of a table's records in the order of the chain, for an operation that goes
// through all of them.
#pragma once

#include <cstdint>

#include "QVDbase/tables.h"
#include "platform/host/memory.h"

namespace qvdbase::maintenance {

// As GetRecordUuIDList lists them, in memory that grows with the records found instead of the
// slot's count, which a damaged file may set as high as it likes. A chain that loops is listed once
// round.
class RecordList {
 public:
  enum class Outcome {
    failed,    // the chain is damaged or cannot be read
    noMemory,  // for the list
    complete,
  };

  // The position is not restored.
  Outcome read(int16_t db, uint64_t table);

  const uint64_t* begin() const { return reinterpret_cast<const uint64_t*>(list_.data()); }
  const uint64_t* end() const { return begin() + count_; }

 private:
  Outcome walk(int16_t db, const tablePart1& slot);
  bool add(uint64_t record);

  platform::Buffer list_;
  uint64_t count_ = 0;
};

}  // namespace qvdbase::maintenance
