// The index over one table's records.
#include "maintenance/record_index.h"

#include <exception>

#include "QVDbase/loop_detector.h"
#include "QVDbase/position.h"
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

// The steps and the failures of internal_FindOneRecord, for all identifiers at once.
void RecordIndex::walk(int16_t db) {
  const tablePart1& slot = table_.slot;
  int64_t recordPos = slot.firstRecordPos;
  LoopDetector loop;
  for (uint32_t i = 0; i < slot.recordCount; ++i) {
    recordPart1 header;
    if (loop.visited(recordPos)) return;
    if (!readRecordHeaderAt(db, recordPos, slot.tableID, &header)) return;
    const bool lastCounted = slot.recordCount - i == 1;
    if (header.nextRecordPos == 0 && !lastCounted) return;
    positions_.try_emplace(identifierNumber(header.recordID), recordPos);
    recordPos = header.nextRecordPos;
  }
}

int64_t RecordIndex::find(uint64_t record) const {
  const auto found = positions_.find(record);
  return found == positions_.end() ? 0 : found->second;
}

}  // namespace qvdbase::maintenance
