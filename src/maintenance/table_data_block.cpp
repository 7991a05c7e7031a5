// Checking a table-data block from end to end.
#include "maintenance/table_data_block.h"

#include "QVDbase/position.h"
#include "QVDbase/table_data.h"
#include "format/fields.h"
#include "format/layout.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;
using namespace qvdbase::maintenance;

namespace qvdbase::maintenance {

bool measureTableDataBlock(int16_t db, int64_t blockPos, const unsigned char* tableID,
                           int64_t* length) {
  TableDataHead head;
  uint8_t endMark = 0;
  if (!readTableDataHead(db, blockPos, tableID, &head)) return false;
  if (myFileSeek(db, head.dataCapacity, kFromCurrent) != 0) return false;
  if (!readUint8(db, &endMark) || endMark != kBlockEndMark) return false;
  *length = myGetFilePos(db) - blockPos;
  return true;
}

}  // namespace qvdbase::maintenance
