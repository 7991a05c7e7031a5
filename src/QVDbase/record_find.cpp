// Finding, listing and counting records, and touching their time of last modification.
//
// There is no index in the file: a lookup walks the chain from the table's first record. The slot's
// recordCount bounds every walk, and a chain that loops ends the same way without being walked out.
#include "QVDbase/record_find.h"

#include "QVDbase/loop_detector.h"
#include "QVDbase/position.h"
#include "format/block_parts.h"
#include "format/identifiers.h"
#include "platform/host/clock.h"

using namespace qvdbase;
using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

// One step of the listing: stores the record at the present position and goes to the next one.
// A record without successor leaves the file after its header, so that the next step, if the count
// still asks for one, fails there.
bool listOneRecord(int16_t db, const tablePart1& slot, uint64_t* entry) {
  recordPart1 header;
  if (internal_GetOneRecordDataInfo(db, slot.tableID, &header) != 1) return false;
  *entry = identifierNumber(header.recordID);
  return header.nextRecordPos == 0 || myFileSeek(db, header.nextRecordPos, kFromStart) == 0;
}

// The walk is in a loop: what it would list next is what it listed one round before.
void repeatLastRound(uint64_t* list, uint32_t* count, uint32_t recordCount, uint64_t period) {
  for (; *count < recordCount; ++*count) list[*count] = list[*count - period];
}

int listRecords(int16_t db, uint64_t table, uint64_t* list, uint32_t* count) {
  FoundTable found;
  if (!findTable(db, table, &found)) return 0;
  const tablePart1& slot = found.slot;
  if (slot.recordCount == 0) return 1;
  if (myFileSeek(db, slot.firstRecordPos, kFromStart) != 0) return 0;

  LoopDetector walk;
  while (*count < slot.recordCount) {
    if (walk.visited(myGetFilePos(db))) {
      repeatLastRound(list, count, slot.recordCount, walk.period());
      return 1;
    }
    if (!listOneRecord(db, slot, &list[*count])) return 0;
    ++*count;
  }
  return 1;
}

}  // namespace

int internal_GetOneRecordDataInfo(int16_t db, const unsigned char* tableID, recordPart1* header) {
  if (header == nullptr) return 0;
  if (!readBlockStart(db, kRecordBlock, tableID, header)) return 0;
  if (!readBytes(db, header->recordID, sizeof header->recordID) ||
      !readUint32(db, &header->createTime) || !readUint32(db, &header->modifyTime) ||
      !readInt64(db, &header->prevRecordPos) || !readInt64(db, &header->nextRecordPos) ||
      !readUint32(db, &header->dataLength) || !readUint32(db, &header->dataCapacity)) {
    return 0;
  }
  header->endMarkValue = kHeaderInMemoryEndMark;
  return 1;
}

int internal_FindOneRecord(int16_t db, const tablePart1* slot, uint64_t recordID,
                           recordPart1* header, int64_t* recordPos, int*) {
  const bool found = walkToRecord(db, *slot, header, recordPos, [header, recordID] {
    return identifierNumber(header->recordID) == recordID;
  });
  return found ? 1 : 0;
}

int internal_ModifyOneRecordDataInfo_LMTime(int16_t db, const unsigned char* tableID,
                                            int64_t recordPos) {
  recordPart1 header;
  if (myFileSeek(db, recordPos, kFromStart) != 0) return 0;
  if (!readBlockStart(db, kRecordBlock, tableID, &header)) return 0;
  if (!readBytes(db, header.recordID, sizeof header.recordID)) return 0;
  if (!readUint32(db, &header.createTime)) return 0;
  return writeUint32(db, platform::secondsSinceEpoch()) ? 1 : 0;
}

int GetOneRecordInfo(int16_t db, uint64_t table, uint64_t record, oneRecordInfoP1* info, int*) {
  if (info == nullptr) return 0;
  SavedPosition position(db);
  FoundRecord found;
  if (!findRecord(db, table, record, &found)) return position.restore(0);
  *info = recordInfo(found.header, found.recordPos);
  return position.restore(1);
}

int ModifyOneRecordInfo_LMTime(int16_t db, uint64_t table, uint64_t record) {
  SavedPosition position(db);
  DirectoryNumbers directory;
  // The one failure that leaves the position where it is.
  if (!readDirectoryNumbers(db, &directory)) return position.leave(0);

  FoundRecord found;
  const bool there = internal_GetOneTableInfo(db, table, directory.tableCount, directory.slotSize,
                                              &found.table.slot, &found.table.slotPos) == 1 &&
                     internal_FindOneRecord(db, &found.table.slot, record, &found.header,
                                            &found.recordPos, nullptr) == 1;
  if (!there) return position.restore(0);
  return position.restore(
      internal_ModifyOneRecordDataInfo_LMTime(db, found.table.slot.tableID, found.recordPos));
}

int GetRecordUuIDList(int16_t db, uint64_t table, uint64_t* list, uint32_t* count) {
  if (list == nullptr || count == nullptr) return 0;
  SavedPosition position(db);
  *count = 0;
  return position.restore(listRecords(db, table, list, count));
}

int GetNumberOfRecords(int16_t db, uint64_t table, uint32_t* count) {
  *count = 0;
  SavedPosition position(db);
  FoundTable found;
  if (!findTable(db, table, &found)) return position.restore(0);
  *count = found.slot.recordCount;
  return position.restore(1);
}

namespace qvdbase::engine {

bool findRecord(int16_t db, uint64_t table, uint64_t record, FoundRecord* found) {
  return findTable(db, table, &found->table) &&
         internal_FindOneRecord(db, &found->table.slot, record, &found->header, &found->recordPos,
                                nullptr) == 1;
}

bool readRecordHeaderAt(int16_t db, int64_t recordPos, const unsigned char* tableID,
                        recordPart1* header) {
  return myFileSeek(db, recordPos, kFromStart) == 0 &&
         internal_GetOneRecordDataInfo(db, tableID, header) == 1;
}

bool writeLink(int16_t db, int64_t blockPos, int64_t fieldOffset, int64_t link) {
  // unreached: own position
  return myFileSeek(db, blockPos + fieldOffset, kFromStart) == 0 && writeInt64(db, link);
}

oneRecordInfoP1 recordInfo(const recordPart1& header, int64_t recordPos) {
  oneRecordInfoP1 info;
  info.tableID = identifierNumber(header.tableID);
  info.recordID = identifierNumber(header.recordID);
  info.createTime = header.createTime;
  info.modifyTime = header.modifyTime;
  info.dataLength = header.dataLength;
  info.dataCapacity = header.dataCapacity;
  info.recordPos = recordPos;
  info.dataPos = recordPos + record::kData;
  return info;
}

}  // namespace qvdbase::engine
