// Finding and reading records: the one reader of record headers, and the walk along a table's
// chain.
#pragma once

#include <qvdbase/qvdbase.h>

#include <cstdint>

#include "QVDbase/loop_detector.h"
#include "QVDbase/position.h"
#include "QVDbase/tables.h"
#include "format/layout.h"

// Reads the record header at the file's position, field by field. Returns 1 and leaves the file at
// the payload; returns 0 for a null output, a failed read, and a header whose mark, size or owning
// table does not match.
int internal_GetOneRecordDataInfo(int16_t db, const unsigned char* tableID, recordPart1* header);

// Walks the chain of the slot's table to the first record of that identifier, at most recordCount
// steps. Returns 1 with the header and its position stored, or 0. The position is not restored.
int internal_FindOneRecord(int16_t db, const tablePart1* slot, uint64_t recordID,
                           recordPart1* header, int64_t* recordPos, int* unused);

// Writes the present time as modifyTime of the record at recordPos. Returns 1, or 0 when the
// block's mark, header size or table does not match and when the file cannot be read or written.
int internal_ModifyOneRecordDataInfo_LMTime(int16_t db, const unsigned char* tableID,
                                            int64_t recordPos);

namespace qvdbase::engine {

// The walk of a lookup: reads header after header along the chain of the slot's table, recordCount
// of them at most, until isWanted() is true of the one in *header, which is at *recordPos. Returns
// false without such a record. The walk ends at a record that cannot be read, at one without
// successor before the last counted, and where the chain loops: every record of the loop has been
// looked at then.
template <typename IsWanted>
bool walkToRecord(int16_t db, const tablePart1& slot, recordPart1* header, int64_t* recordPos,
                  IsWanted isWanted) {
  if (slot.recordCount == 0) return false;
  if (myFileSeek(db, slot.firstRecordPos, kFromStart) != 0) return false;
  LoopDetector loop;
  for (uint32_t i = 0; i < slot.recordCount; ++i) {
    *recordPos = myGetFilePos(db);
    if (loop.visited(*recordPos)) return false;
    if (internal_GetOneRecordDataInfo(db, slot.tableID, header) != 1) return false;
    const bool lastCounted = slot.recordCount - i == 1;
    if (header->nextRecordPos == 0 && !lastCounted) return false;
    if (isWanted()) return true;
    if (myFileSeek(db, header->nextRecordPos, kFromStart) != 0) return false;
  }
  return false;
}

// A record that was found: its table, its header as read, and its position.
struct FoundRecord {
  FoundTable table;
  recordPart1 header;
  int64_t recordPos;
};

// Reads the directory, finds the table and in it the record.
[[nodiscard]] bool findRecord(int16_t db, uint64_t table, uint64_t record, FoundRecord* found);

// Seeks to recordPos and reads the header there.
[[nodiscard]] bool readRecordHeaderAt(int16_t db, int64_t recordPos, const unsigned char* tableID,
                                      recordPart1* header);

// Seeks to a field of the block at blockPos and writes a position there.
[[nodiscard]] bool writeLink(int16_t db, int64_t blockPos, int64_t fieldOffset, int64_t link);

// What GetOneRecordInfo reports of a header.
oneRecordInfoP1 recordInfo(const recordPart1& header, int64_t recordPos);

}  // namespace qvdbase::engine
