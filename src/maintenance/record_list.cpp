// Listing a table's records.
#include "maintenance/record_list.h"

#include <algorithm>
#include <cstring>

#include "QVDbase/loop_detector.h"
#include "QVDbase/position.h"
#include "QVDbase/record_find.h"
#include "format/identifiers.h"
#include "maintenance/file_extent.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;
using namespace qvdbase::maintenance;

namespace qvdbase::maintenance {
namespace {

constexpr uint64_t kSpareBytes = 16;

}  // namespace

RecordList::Outcome RecordList::read(int16_t db, uint64_t table) {
  count_ = 0;
  FoundTable found;
  if (!findTable(db, table, &found)) return Outcome::failed;
  const uint64_t expected = std::min<uint64_t>(found.slot.recordCount, mostRecordsIn(db));
  list_ = platform::Buffer(expected * sizeof(uint64_t) + kSpareBytes);
  if (!list_) return Outcome::noMemory;
  if (found.slot.recordCount == 0) return Outcome::complete;
  return walk(db, found.slot);
}

RecordList::Outcome RecordList::walk(int16_t db, const tablePart1& slot) {
  // unreached: the records were copied along the same links
  if (myFileSeek(db, slot.firstRecordPos, kFromStart) != 0) return Outcome::failed;
  LoopDetector loop;
  for (uint32_t i = 0; i < slot.recordCount; ++i) {
    recordPart1 header;
    if (loop.visited(myGetFilePos(db))) return Outcome::complete;
    if (internal_GetOneRecordDataInfo(db, slot.tableID, &header) != 1) return Outcome::failed;
    if (!add(identifierNumber(header.recordID))) return Outcome::noMemory;
    // After a record without successor the walk continues in its payload, and fails there.
    // unreached: as above
    if (header.nextRecordPos != 0 && myFileSeek(db, header.nextRecordPos, kFromStart) != 0) {
      return Outcome::failed;
    }
  }
  return Outcome::complete;
}

bool RecordList::add(uint64_t record) {
  if ((count_ + 1) * sizeof record > list_.size()) {
    platform::Buffer larger(2 * list_.size());
    if (!larger) return false;
    std::memcpy(larger.data(), list_.data(), static_cast<size_t>(count_) * sizeof record);
    list_ = std::move(larger);
  }
  std::memcpy(list_.data() + count_ * sizeof record, &record, sizeof record);
  ++count_;
  return true;
}

}  // namespace qvdbase::maintenance
