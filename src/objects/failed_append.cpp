// What an append that failed has left at the end of the file.
#include "objects/failed_append.h"

#include <algorithm>
#include <limits>

#include "QVDbase/take_back.h"
#include "format/fields.h"

using namespace qvdbase;

namespace qvdb::detail {
namespace {

bool slotLeadsTo(const tablePart1& slot, int64_t blockPos) {
  const int64_t positions[] = {slot.firstRecordPos,       slot.lastRecordPos,
                               slot.lastWrittenRecordPos, slot.firstDataPos,
                               slot.lastWrittenDataPos,   slot.lastDataPos};
  return std::any_of(std::begin(positions), std::end(positions),
                     [blockPos](int64_t position) { return position >= blockPos; });
}

enum class Leads { no, unknown, yes };

Leads leadsTo(int16_t db, const LinkPlace& link, int64_t blockPos) {
  int64_t position = 0;
  if (link.recordPos == 0) return Leads::no;
  if (myFileSeek(db, link.recordPos + link.offset, kFromStart) != 0 ||
      !format::readInt64(db, &position)) {
    return Leads::unknown;
  }
  return position == blockPos ? Leads::yes : Leads::no;
}

}  // namespace

bool takeBackBlock(const Operation& operation, Id table, int64_t blockPos,
                   std::initializer_list<LinkPlace> links) {
  if (blockPos == 0) return false;
  ReadScope scope(operation.db());
  engine::FoundTable found;
  if (!engine::findTable(operation.db(), table.value, &found)) return false;
  if (slotLeadsTo(found.slot, blockPos)) return found.slot.firstRecordPos == blockPos;
  for (const LinkPlace& link : links) {
    const Leads leads = leadsTo(operation.db(), link, blockPos);
    if (leads != Leads::no) return leads == Leads::yes;
  }
  // The handle is exclusive, or nothing is cut: whatever lies there was appended by this call.
  engine::cutBack(operation.db(), {blockPos, std::numeric_limits<int64_t>::max()});
  return false;
}

}  // namespace qvdb::detail
