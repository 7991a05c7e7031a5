// The index over one table's records.
#include "maintenance/record_index.h"

#include <exception>

#include "QVDbase/record_find.h"
#include "format/identifiers.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace qvdbase::maintenance {

bool RecordIndex::build(int16_t db, uint64_t table) {
  positions_.clear();
  if (!findTable(db, table, &table_)) return false;
  try {
    walk(db);
  } catch (const std::exception&) {
    return false;  // no memory
  }
  return true;
}

void RecordIndex::walk(int16_t db) {
  recordPart1 header;
  int64_t recordPos = 0;
  static_cast<void>(walkToRecord(db, table_.slot, &header, &recordPos, [&] {
    positions_.try_emplace(identifierNumber(header.recordID), recordPos);
    return false;
  }));
}

int64_t RecordIndex::find(uint64_t record) const {
  const auto found = positions_.find(record);
  return found == positions_.end() ? 0 : found->second;
}

}  // namespace qvdbase::maintenance
