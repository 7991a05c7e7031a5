// Record deletion: links the record's neighbours to each other, or moves an end of the chain, and
// rewrites the slot last. The record's own block is never written to.
//
// Whether a record is the first, the last or one between is decided by the slot. The neighbours are
// read to see that they are records of this table; whether they point back is not asked.
#include "QVDbase/record_delete.h"

#include <qvdbase/qvdbase.h>

#include "QVDbase/position.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

bool neighbourIsSound(int16_t db, int64_t recordPos, const tablePart1& slot) {
  recordPart1 neighbour;
  return readRecordHeaderAt(db, recordPos, slot.tableID, &neighbour);
}

bool unlinkOnly(tablePart1* slot) {
  if (slot->recordCount != 1) return false;
  slot->recordCount = 0;
  slot->firstRecordPos = 0;
  slot->lastWrittenRecordPos = 0;
  slot->lastRecordPos = 0;
  return true;
}

// A record at an end of the chain has no neighbour there, and every other has one.
bool unlinkFromChain(int16_t db, tablePart1* slot, const recordPart1& header, int64_t recordPos) {
  const int64_t previous = header.prevRecordPos;
  const int64_t next = header.nextRecordPos;
  const bool isFirst = slot->firstRecordPos == recordPos;
  const bool isLast = !isFirst && slot->lastRecordPos == recordPos;
  if (isFirst != (previous == 0)) return false;
  if (isFirst && next == 0) return unlinkOnly(slot);
  if (isLast != (next == 0)) return false;

  if (!isFirst && !neighbourIsSound(db, previous, *slot)) return false;
  if (!isLast && !neighbourIsSound(db, next, *slot)) return false;
  if (!isFirst && !writeLink(db, previous, record::kNextRecordPos, next)) return false;
  if (!isLast && !writeLink(db, next, record::kPrevRecordPos, previous)) return false;
  if (isFirst) slot->firstRecordPos = next;
  if (isLast) slot->lastRecordPos = previous;
  slot->lastWrittenRecordPos = isLast ? previous : next;
  slot->recordCount -= 1;
  return true;
}

}  // namespace

int DeleteOneRecord(int16_t db, uint64_t table, uint64_t record, int*) {
  SavedPosition position(db);
  FoundRecord found;
  if (!findRecord(db, table, record, &found)) return position.restore(0);
  return position.restore(unlinkRecord(db, &found) ? 1 : 0);
}

namespace qvdbase::engine {

bool unlinkRecord(int16_t db, FoundRecord* found) {
  FoundTable& table = found->table;
  return unlinkFromChain(db, &table.slot, found->header, found->recordPos) &&
         rewriteSlot(db, table.slotPos, table.slot);
}

}  // namespace qvdbase::engine
