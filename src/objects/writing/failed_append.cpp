// What a change that failed has left at the end of the file.
#include "objects/writing/failed_append.h"

#include <algorithm>
#include <limits>

#include "QVDbase/take_back.h"
#include "format/fields.h"
#include "platform/host/host_failure.h"

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

// Returns whether a link, or the beginning of the table, is known to lead to the block: the
// operation itself has written there before it failed.
bool cutUnlessLinked(const Operation& operation, Id table, int64_t blockPos,
                     std::initializer_list<LinkPlace> links) {
  if (blockPos == 0) return false;
  engine::SavedPosition scope(operation.db());
  engine::FoundTable found;
  if (!engine::findTable(operation.db(), table.value, &found)) return false;
  if (slotLeadsTo(found.slot, blockPos)) return found.slot.firstRecordPos == blockPos;
  for (const LinkPlace& link : links) {
    const Leads leads = leadsTo(operation.db(), link, blockPos);
    if (leads != Leads::no) return leads == Leads::yes;
  }
  // Nothing is cut unless the handle is exclusive: what lies there was appended by this call.
  engine::cutBack(operation.db(), {blockPos, std::numeric_limits<int64_t>::max()});
  return false;
}

}  // namespace

void takeBack(const Operation& operation, Id table, int64_t blockPos,
              std::initializer_list<LinkPlace> links, uint64_t bytes) {
  const bool isLinked = cutUnlessLinked(operation, table, blockPos, links);
  operation.failIfWriteWasRefused(bytes);
  if (isLinked && platform::lastHostFailure()) operation.failedWrite(bytes);
}

}  // namespace qvdb::detail
