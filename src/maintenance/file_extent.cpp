// How much a file holds.
#include "maintenance/file_extent.h"

#include <algorithm>

#include "QVDbase/position.h"
#include "format/layout.h"

using namespace qvdbase::format;
using namespace qvdbase::maintenance;

namespace qvdbase::maintenance {

int64_t fileLengthOf(int16_t db) {
  const int64_t position = myGetFilePos(db);
  if (position == -1 || myFileSeek(db, 0, kFromEnd) != 0) return -1;
  const int64_t length = myGetFilePos(db);
  return myFileSeek(db, position, kFromStart) == 0 ? length : -1;
}

uint64_t mostRecordsIn(int16_t db) {
  return static_cast<uint64_t>(std::max<int64_t>(fileLengthOf(db), 0) / kRecordBlockOverhead);
}

bool fileHoldsAhead(int16_t db, uint64_t count) {
  const int64_t position = myGetFilePos(db);
  const int64_t length = fileLengthOf(db);
  if (length == -1) return true;  // not known: the read itself will show
  if (position == -1 || length < position) return count == 0;
  return count <= static_cast<uint64_t>(length - position);
}

}  // namespace qvdbase::maintenance
