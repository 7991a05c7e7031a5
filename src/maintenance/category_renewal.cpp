// Renewing the category records of a renumbered file.
#include "maintenance/category_renewal.h"

#include "QVDbase/position.h"
#include "QVDbase/record_find.h"
#include "QVDbase/record_modify.h"
#include "format/category.h"
#include "maintenance/category_codec.h"
#include "maintenance/record_list.h"
#include "platform/host/memory.h"

using namespace qvdbase::format;
using namespace qvdbase::engine;

namespace qvdbase::maintenance {

bool CategoryRenewal::run() {
  const uint64_t srcTable = FindTableByName(src_, kCategoryTable);
  if (srcTable == 0) return false;
  const uint64_t dstTable = FindTableByName(dst_, kCategoryTable);
  uint32_t count = 0;
  if (GetNumberOfRecords(src_, srcTable, &count) != 1) return false;
  if (GetNumberOfRecords(dst_, dstTable, &count) != 1) return false;
  return renewAll(srcTable, dstTable);
}

bool CategoryRenewal::renewAll(uint64_t srcTable, uint64_t dstTable) {
  RecordList records;
  // unreached: there is no other outcome
  switch (records.read(src_, srcTable)) {
    case RecordList::Outcome::failed:
      return false;
    case RecordList::Outcome::noMemory:
      return true;  // intended: the categories then stay as they were copied
    case RecordList::Outcome::complete:
      break;
  }
  if (!srcRecords_.build(src_, srcTable) || !dstRecords_.build(dst_, dstTable)) return false;
  for (const uint64_t recordID : records) {
    if (!renew(recordID)) return false;
  }
  return true;
}

bool CategoryRenewal::renew(uint64_t recordID) {
  const int64_t recordPos = srcRecords_.find(recordID);
  recordPart1 header;
  if (recordPos == 0) return false;  // unreached: list and index are of the same chain
  if (!readRecordHeaderAt(src_, recordPos, srcRecords_.table().slot.tableID, &header)) return false;

  const auto outcome =
      decodeCategory(src_, recordInfo(header, recordPos), ExtraData::newBuffer, record_);
  if (outcome == CategoryDecoding::failed) return false;
  if (outcome == CategoryDecoding::untouched) {
    // Too short for a category, it stays as it was copied. One that could not be read must not.
    return header.dataLength <= category::kCategoryName;
  }
  bool done = pairs_ == nullptr || pairs_->convert(record_);
  if (done) {
    uint32_t size = 0;
    unsigned char* payload = InternalPutOneCategory2Buffer(0, record_, &size);
    // A record that cannot be encoded stays as it was copied.
    if (payload != nullptr) done = store(recordID, payload, size);
    platform::release(payload);
  }
  releaseCategoryParts(record_);
  return done;
}

// ModifyRecordData, without its walk to the record.
bool CategoryRenewal::store(uint64_t recordID, const unsigned char* payload, uint32_t size) {
  FoundRecord found{dstRecords_.table(), {}, dstRecords_.find(recordID)};
  if (found.recordPos == 0) return false;  // unreached: every category was copied
  if (!readRecordHeaderAt(dst_, found.recordPos, found.table.slot.tableID, &found.header)) {
    return false;
  }
  if (size <= found.header.dataCapacity) {
    return overwriteRecord(dst_, found.recordPos, payload, size);
  }
  int64_t newRecordPos = 0;
  if (!relocateRecord(dst_, &found, payload, size, &newRecordPos)) return false;
  dstRecords_.moved(recordID, newRecordPos, found.table);
  return true;
}

}  // namespace qvdbase::maintenance
