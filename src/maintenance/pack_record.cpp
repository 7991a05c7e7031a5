// Appending a copied record: an ordinary append, whose new identifier and times are then replaced
// by those of the source record.
#include "maintenance/pack_record.h"

#include "QVDbase/position.h"
#include "QVDbase/record_append.h"
#include "QVDbase/record_find.h"
#include "format/fields.h"

using namespace qvdbase;
using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace {

// Identifier, create time and modify time are next to each other in a block.
bool writeIdentity(int16_t db, int64_t recordPos, const recordPart1& source) {
  static_assert(record::kCreateTime == record::kRecordID + kIdentifierSize);
  static_assert(record::kModifyTime == record::kCreateTime + 4);
  return myFileSeek(db, recordPos + record::kRecordID, kFromStart) == 0 &&
         writeBytes(db, source.recordID, sizeof source.recordID) &&
         writeUint32(db, source.createTime) &&  // unreached: own position
         writeUint32(db, source.modifyTime);
}

}  // namespace

int internal_AddOneRecordData_ForPack(int16_t db, tablePart1* slot, const unsigned char* tableID,
                                      int64_t slotPos, uint16_t slotSize,
                                      const unsigned char* payload, const recordPart1* source) {
  if (!chainHeadMatchesCount(*slot)) return 0;
  unsigned char passingID[kIdentifierSize];  // in the file until writeIdentity
  int64_t newRecordPos = 0;
  if (internal_WriteOneRecordDataInEOF(db, slot, tableID, passingID, slotPos, slotSize, payload,
                                       source->dataLength, source->dataCapacity, &newRecordPos,
                                       0) != 1) {
    return 0;
  }
  recordPart1 written;
  if (!readRecordHeaderAt(db, newRecordPos, slot->tableID, &written)) return 0;
  return writeIdentity(db, newRecordPos, *source) ? 1 : 0;
}
