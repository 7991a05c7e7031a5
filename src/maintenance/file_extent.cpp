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
  // unreached: the file is open
  if (position == -1 || myFileSeek(db, 0, kFromEnd) != 0) return -1;
  const int64_t length = myGetFilePos(db);
  // unreached: own position
  return myFileSeek(db, position, kFromStart) == 0 ? length : -1;
}

uint64_t mostRecordsIn(int16_t db) {
  return static_cast<uint64_t>(std::max<int64_t>(fileLengthOf(db), 0) / kRecordBlockOverhead);
}

bool fileHoldsAhead(int16_t db, uint64_t count) {
  const int64_t position = myGetFilePos(db);
  const int64_t length = fileLengthOf(db);
  // Not known: the read itself will show.
  if (length == -1) return true;  // unreached: the file is open
  // unreached: the callers have read the bytes before the position
  if (position == -1 || length < position) return count == 0;
  return count <= static_cast<uint64_t>(length - position);
}

}  // namespace qvdbase::maintenance
