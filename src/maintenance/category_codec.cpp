// Decoding and encoding category records.
//
// Decoding has three stages. When the first field cannot be read, there is nothing to decode. When
// one of the other fixed fields cannot, the call returns at once. From the first list on, a failure
// releases all that the record owns. The payload's length limits the lists before memory is taken
// for them: a list that crosses it would fail anyway.
#include "maintenance/category_codec.h"

#include <qvdbase/Aliment8.h>

#include <cstring>

#include "QVDbase/position.h"
#include "format/category.h"
#include "format/fields.h"
#include "format/identifiers.h"
#include "maintenance/file_extent.h"
#include "platform/host/memory.h"

using namespace qvdbase;
using namespace qvdbase::format;
using namespace qvdbase::engine;
using namespace qvdbase::maintenance;

namespace {

constexpr uint64_t kFixedBytes = category::kFirstIDs + 4 + 4;  // with empty lists, no free bytes
constexpr uint64_t kSpareBytes = 10;  // what the encoder allocates beyond the payload

uint64_t entriesOf(int32_t count) {
  return count > 0 ? static_cast<uint64_t>(count) : 0;
}

bool readCount(int16_t db, int32_t* count) {
  uint32_t bits = 0;
  if (!readUint32(db, &bits)) return false;
  *count = static_cast<int32_t>(bits);
  return true;
}

bool readIdentity(int16_t db, uint64_t* id) {
  unsigned char bytes[kIdentitySize];
  if (!readBytes(db, bytes, sizeof bytes)) return false;
  *id = identifierNumber(bytes);
  return true;
}

// The fields between the first one and the lists. The payload must reach to the end of each.
bool readFixedFields(int16_t db, uint32_t dataLength, qvrzOneCategoryRecord* record) {
  unsigned char name[category::kNameSize];
  if (!readBytes(db, name, sizeof name)) return false;
  RZGetQVWCHARFromBuffer(record->categoryName, name, sizeof name);
  if (dataLength < category::kCategoryParam) return false;
  uint32_t param = 0;
  if (!readUint32(db, &param) || dataLength < category::kRelatedID) return false;
  record->categoryParam = param;
  if (!readIdentity(db, &record->relatedID) || dataLength < category::kFirstIDCount) return false;
  int32_t count = 0;
  if (!readCount(db, &count) || dataLength < category::kFirstIDs) return false;
  record->firstIDCount = count;
  return true;
}

// The part of the payload after the fixed fields, with the count of bytes consumed so far.
class VariablePart {
 public:
  VariablePart(int16_t db, uint32_t dataLength, ExtraData extraData)
      : db_(db), dataLength_(dataLength), extraData_(extraData) {}

  bool read(qvrzOneCategoryRecord* record) {
    return readList(record->firstIDCount, &record->firstIDs) &&
           readListCount(&record->secondIDCount) &&
           readList(record->secondIDCount, &record->secondIDs) && readExtra(record);
  }

 private:
  bool readList(int32_t count, uint64_t** list) {
    const uint64_t entries = entriesOf(count);
    if (entries == 0) return true;
    const uint64_t bytes = entries * kIdentitySize;
    *list = nullptr;
    if (consumed_ + bytes > dataLength_ || !fileHoldsAhead(db_, bytes)) return false;
    *list = static_cast<uint64_t*>(platform::allocate(bytes));
    if (*list == nullptr) return false;
    std::memset(*list, 0, static_cast<size_t>(bytes));
    for (uint64_t i = 0; i < entries; ++i) {
      static_cast<void>(readIdentity(db_, *list + i));  // an entry that cannot be read stays unset
    }
    consumed_ += bytes;
    return true;
  }

  bool readListCount(int32_t* count) { return readCount(db_, count) && consume(4); }

  bool readExtra(qvrzOneCategoryRecord* record) {
    uint32_t length = 0;
    if (!readUint32(db_, &length)) return false;
    record->extraLength = length;
    if (!consume(4)) return false;
    if (extraData_ == ExtraData::newBuffer && !makeExtraBuffer(record)) return false;
    const bool fileHoldsIt = fileHoldsAhead(db_, length);
    // Longer than the rest of the payload: never read into a buffer that is made for the rest.
    // Where the file is long enough, the read would succeed and the record fail; elsewhere the read
    // would fail, which counts as read.
    if (length > dataLength_ - consumed_) return !fileHoldsIt;
    if (length != 0 && fileHoldsIt && record->extraData != nullptr) {
      static_cast<void>(readBytes(db_, record->extraData, length));
    }
    return true;
  }

  bool makeExtraBuffer(qvrzOneCategoryRecord* record) const {
    const int64_t fileLength = fileLengthOf(db_);
    const uint32_t length = record->extraLength;
    // unreached: the file is open
    if (fileLength < 0 || length > static_cast<uint64_t>(fileLength)) return false;
    platform::release(record->extraData);
    record->extraData = static_cast<unsigned char*>(platform::allocate(length));
    if (record->extraData == nullptr) return false;
    std::memset(record->extraData, 0, length);
    return true;
  }

  bool consume(uint64_t bytes) {
    if (consumed_ + bytes > dataLength_) return false;
    consumed_ += bytes;
    return true;
  }

  int16_t db_;
  uint64_t dataLength_;
  ExtraData extraData_;
  uint64_t consumed_ = category::kFirstIDs;
};

template <typename Unsigned>
unsigned char* putNumber(unsigned char* out, Unsigned value) {
  storeBigEndian(out, value);
  return out + sizeof value;
}

unsigned char* putList(unsigned char* out, int32_t count, const uint64_t* list) {
  out = putNumber(out, static_cast<uint32_t>(count));
  for (int32_t i = 0; i < count; ++i) out = putNumber(out, list[i]);
  return out;
}

bool pointersMatchCounts(const qvrzOneCategoryRecord& record) {
  return (record.firstIDCount <= 0 || record.firstIDs != nullptr) &&
         (record.secondIDCount <= 0 || record.secondIDs != nullptr) &&
         (record.extraLength == 0 || record.extraData != nullptr);
}

void putCategory(const qvrzOneCategoryRecord& record, unsigned char* out) {
  out = putNumber(out, uint64_t{record.categoryID});
  RZPutQVWCHAR2Buffer(out, record.categoryName, category::kNameSize);
  out += category::kNameSize;
  out = putNumber(out, uint32_t{record.categoryParam});
  out = putNumber(out, uint64_t{record.relatedID});
  out = putList(out, record.firstIDCount, record.firstIDs);
  out = putList(out, record.secondIDCount, record.secondIDs);
  out = putNumber(out, uint32_t{record.extraLength});
  if (record.extraLength != 0) std::memcpy(out, record.extraData, record.extraLength);
}

}  // namespace

namespace qvdbase::maintenance {

CategoryDecoding decodeCategory(int16_t db, const oneRecordInfoP1& info, ExtraData extraData,
                                qvrzOneCategoryRecord* record) {
  const CallScope scope(db);
  const int64_t position = myGetFilePos(db);
  if (position == -1) return CategoryDecoding::failed;
  const auto restored = [&](CategoryDecoding outcome) {
    // unreached: own position
    return myFileSeek(db, position, kFromStart) == 0 ? outcome : CategoryDecoding::failed;
  };

  if (info.dataLength <= category::kCategoryName || info.dataPos == 0) {
    return restored(CategoryDecoding::untouched);
  }
  if (myFileSeek(db, info.dataPos, kFromStart) != 0) return CategoryDecoding::failed;
  if (!readIdentity(db, &record->categoryID)) return restored(CategoryDecoding::untouched);
  // Before the lists a failure releases nothing and leaves the position where it was reached.
  if (!readFixedFields(db, info.dataLength, record)) return CategoryDecoding::failed;

  VariablePart rest(db, info.dataLength, extraData);
  const auto outcome = rest.read(record) ? CategoryDecoding::decoded : CategoryDecoding::failed;
  if (restored(outcome) == CategoryDecoding::decoded) return outcome;
  // The caller's free bytes too, on purpose: after a late failure the record owns nothing.
  releaseCategoryParts(record);
  return CategoryDecoding::failed;
}

void releaseCategoryParts(qvrzOneCategoryRecord* record) {
  platform::release(record->firstIDs);
  platform::release(record->secondIDs);
  platform::release(record->extraData);
  record->firstIDs = nullptr;
  record->secondIDs = nullptr;
  record->extraData = nullptr;
}

}  // namespace qvdbase::maintenance

int InternalReadOneRecord2CategoryStruct(int16_t db, const oneRecordInfoP1* info,
                                         qvrzOneCategoryRecord** record) {
  if (info == nullptr || record == nullptr || *record == nullptr) return 0;
  const auto outcome = decodeCategory(db, *info, ExtraData::callersBuffer, *record);
  // A payload without a category is a success that decodes nothing.
  return outcome == CategoryDecoding::failed ? 0 : 1;
}

unsigned char* InternalPutOneCategory2Buffer(int16_t, const qvrzOneCategoryRecord* record,
                                             uint32_t* length) {
  if (record == nullptr || length == nullptr || !pointersMatchCounts(*record)) return nullptr;
  const uint64_t entries = entriesOf(record->firstIDCount) + entriesOf(record->secondIDCount);
  const uint64_t payload = kFixedBytes + entries * kIdentitySize + record->extraLength;
  if (payload > UINT32_MAX) return nullptr;
  auto* buffer = static_cast<unsigned char*>(platform::allocate(payload + kSpareBytes));
  if (buffer == nullptr) return nullptr;
  putCategory(*record, buffer);
  *length = static_cast<uint32_t>(payload);
  return buffer;
}
