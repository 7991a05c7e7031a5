// The fields of each structure in a database file.
#include "views/field_list.h"

#include "format/intent.h"
#include "format/layout.h"

using namespace qvdbase::format;

namespace qvdb::tool {
namespace {

using enum FieldKind;

constexpr Field kHeader[] = {
    {"signature", 0, kSignatureSize, text},
    {"version", kVersionPos, 2, number},
    {"databaseID", kDatabaseIDPos, kIdentifierSize, identifier},
    {"tableCount", kTableCountPos, 2, count},
    {"slotCount", kSlotCountPos, 2, number},
    {"slotSize", kSlotSizePos, 2, number},
};

constexpr Field gap(size_t index) {
  return {"filler", slot::kGaps[index].begin, slot::kGaps[index].end - slot::kGaps[index].begin,
          filler};
}

constexpr Field kSlot[] = {
    {"slotMark", slot::kSlotMark, 1, mark},
    gap(0),
    {"infoSize", slot::kInfoSize, 2, number},
    {"tableVersion", slot::kTableVersion, 2, number},
    {"tableID", slot::kTableID, kIdentifierSize, identifier},
    {"tableName", slot::kTableName, kTableNameSize, text},
    {"tableFlags1", slot::kTableFlags1, 2, number},
    {"tableFlags2", slot::kTableFlags2, 2, number},
    gap(1),
    {"recordsInfoSize", slot::kRecordsInfoSize, 2, number},
    gap(2),
    {"recordCount", slot::kRecordCount, 4, number},
    {"recordWriteCount", slot::kRecordWriteCount, 4, number},
    gap(3),
    {"firstRecordPos", slot::kFirstRecordPos, 8, position},
    {"lastWrittenRecordPos", slot::kLastWrittenRecordPos, 8, position},
    {"lastRecordPos", slot::kLastRecordPos, 8, position},
    {"dataInfoSize", slot::kDataInfoSize, 2, number},
    gap(4),
    {"dataBlockCount", slot::kDataBlockCount, 4, number},
    {"dataWriteCount", slot::kDataWriteCount, 4, number},
    gap(5),
    {"firstDataPos", slot::kFirstDataPos, 8, position},
    {"lastWrittenDataPos", slot::kLastWrittenDataPos, 8, position},
    {"lastDataPos", slot::kLastDataPos, 8, position},
    {"slotEndMark", slot::kSlotEndMark, 1, mark},
    gap(6),
};

constexpr Field kRecord[] = {
    {"blockMark", record::kBlockMark, 1, mark},
    {"headerSize", record::kHeaderSize, 2, number},
    {"tableID", record::kTableID, kIdentifierSize, identifier},
    {"recordID", record::kRecordID, kIdentifierSize, identifier},
    {"createTime", record::kCreateTime, 4, time},
    {"modifyTime", record::kModifyTime, 4, time},
    {"prevRecordPos", record::kPrevRecordPos, 8, position},
    {"nextRecordPos", record::kNextRecordPos, 8, position},
    {"dataLength", record::kDataLength, 4, number},
    {"dataCapacity", record::kDataCapacity, 4, number},
};

constexpr Field kTableData[] = {
    {"blockMark", tabledata::kBlockMark, 1, mark},
    {"headerSize", tabledata::kHeaderSize, 2, number},
    {"tableID", tabledata::kTableID, kIdentifierSize, identifier},
    {"dataLength", tabledata::kDataLength, 4, number},
    {"dataCapacity", tabledata::kDataCapacity, 4, number},
};

constexpr Field kPendingWord[] = {
    {"start", pending::kStart, 8, position},
    {"nonce", pending::kNonce, 8, FieldKind::bytes},
    {"hash", pending::kHash, 8, FieldKind::bytes},
};

constexpr Field kIntent[] = {
    {"magic", intent::kMagic, 8, text},
    {"databaseID", intent::kDatabaseID, kIdentifierSize, identifier},
    {"flags", intent::kFlags, 1, number},
    {"state", intent::kState, 1, number},
    {"entryCount", intent::kEntryCount, 4, number},
    {"nonce", intent::kNonce, 8, FieldKind::bytes},
    {"sequence", intent::kSequence, 8, number},
    {"synced", intent::kSynced, 8, number},
    {"ownPosition", intent::kOwnPosition, 8, position},
    {"lengthBefore", intent::kLengthBefore, 8, number},
    {"blocksLength", intent::kBlocksLength, 8, number},
    {"blocksHash", intent::kBlocksHash, 16, FieldKind::bytes},
    {"hash", intent::kHash, 16, FieldKind::bytes},
};

constexpr Field kPrelude[] = {
    {"magic", prelude::kMagic, 8, text},
    {"databaseID", prelude::kDatabaseID, kIdentifierSize, identifier},
    {"ownPosition", prelude::kOwnPosition, 8, position},
    {"length", prelude::kLength, 8, number},
    {"hash", prelude::kHash, 8, FieldKind::bytes},
};

// The fields follow one another without gaps, up to the end of the structure.
constexpr bool cover(std::span<const Field> fields, int64_t size) {
  int64_t end = 0;
  for (const Field& field : fields) {
    if (field.offset != end) return false;
    end += field.size;
  }
  return end == size;
}
static_assert(cover(kHeader, kDirectoryPos));
static_assert(cover(kSlot, kSlotImageSize));
static_assert(cover(kRecord, record::kData));
static_assert(cover(kTableData, tabledata::kData));
static_assert(cover(kPendingWord, pending::kSize));
static_assert(cover(kIntent, intent::kEntries));
static_assert(cover(kPrelude, prelude::kSize));

}  // namespace

std::span<const Field> headerFields() {
  return kHeader;
}

std::span<const Field> slotFields() {
  return kSlot;
}

std::span<const Field> recordFields() {
  return kRecord;
}

std::span<const Field> tableDataFields() {
  return kTableData;
}

std::span<const Field> pendingWordFields() {
  return kPendingWord;
}

std::span<const Field> intentFields() {
  return kIntent;
}

std::span<const Field> preludeFields() {
  return kPrelude;
}

}  // namespace qvdb::tool
