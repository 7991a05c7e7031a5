// The index over one table's records.
#include "maintenance/record_index.h"

#include "QVDbase/record_find.h"
#include "format/identifiers.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace qvdbase::maintenance {

bool RecordIndex::build(int16_t db, uint64_t table) {
  positions_.clear();
  if (!findTable(db, table, &table_)) return false;
  recordPart1 header;
  int64_t recordPos = 0;
  const auto note = [&] {
    positions_.try_emplace(identifierNumber(header.recordID), recordPos);
    return false;
  };
  static_cast<void>(walkToRecord(db, table_.slot, &header, &recordPos, note));
  return true;
}

int64_t RecordIndex::find(uint64_t record) const {
  const auto found = positions_.find(record);
  // unreached: those that are asked for are in the chain
  return found == positions_.end() ? 0 : found->second;
}

}  // namespace qvdbase::maintenance
