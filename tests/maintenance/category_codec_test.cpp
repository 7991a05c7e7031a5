// Category records: decoding, encoding, replacing identifiers; what each owns and frees.
#include <qvdbase/qvrzdb_sub.h>

#include <cstdlib>
#include <cstring>

#include "kit/database_fixture.h"
#include "kit/recorded_calls.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kTable = 0x101;

// A payload, field by field.
struct Payload {
  uint64_t categoryID = 0x0102030405060708;
  std::u16string name = u"Name";
  uint32_t param = 0x11223344;
  uint64_t relatedID = 0x8877665544332211;
  std::vector<uint64_t> first;
  std::vector<uint64_t> second;
  Bytes extra;

  Bytes encode() const {
    Bytes out;
    out.be(8, categoryID);
    for (size_t i = 0; i < 32; ++i) out.le(2, i < name.size() ? name[i] : 0u);
    out.be(4, param).be(8, relatedID).be(4, first.size());
    for (const uint64_t id : first) out.be(8, id);
    out.be(4, second.size());
    for (const uint64_t id : second) out.be(8, id);
    return out.be(4, extra.size()).add(extra);
  }
};

class CategoryCodec : public DatabaseTest {
 protected:
  ~CategoryCodec() override { clear(); }

  void clear() {
    std::free(record.firstIDs);
    std::free(record.secondIDs);
    std::free(record.extraData);
    std::memset(&record, 0, sizeof record);
  }

  // Stores the payload as the only record of a file and opens it.
  int16_t store(const Bytes& payload) {
    FileImage image;
    image.addTable("t", kTable);
    image.addRecord(0, 0xA1, payload);
    db_ = put(image);
    info_ = info(db_, kTable, 0xA1);
    return db_;
  }

  void giveExtraBuffer(size_t size, unsigned char value = 0xEE) {
    std::free(record.extraData);
    record.extraData = static_cast<unsigned char*>(std::malloc(size));
    std::memset(record.extraData, value, size);
  }

  int decode() {
    qvrzOneCategoryRecord* pointer = &record;
    return InternalReadOneRecord2CategoryStruct(db_, &info_, &pointer);
  }

  // Decoding the payload fails late: the record owns nothing any more, and the position is
  // restored.
  void expectLateFailure(const Bytes& payload) {
    store(payload);
    giveExtraBuffer(100);
    seek(db_, 77);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(record.firstIDs, nullptr);
    EXPECT_EQ(record.secondIDs, nullptr);
    EXPECT_EQ(record.extraData, nullptr);
    EXPECT_EQ(position(db_), 77);
    close(db_);
  }

  static std::vector<uint64_t> listOf(const uint64_t* ids, int32_t count) {
    return {ids, ids + count};
  }

  static Bytes encoded(const qvrzOneCategoryRecord& category) {
    uint32_t length = 0;
    unsigned char* buffer = InternalPutOneCategory2Buffer(0, &category, &length);
    if (buffer == nullptr) return {};
    Bytes bytes(buffer, buffer + length);
    std::free(buffer);
    return bytes;
  }

  qvrzOneCategoryRecord record{};
  oneRecordInfoP1 info_{};
  int16_t db_ = 0;
};

using DecodingACategory = CategoryCodec;
using EncodingACategory = CategoryCodec;
using ReplacingIdentifiers = CategoryCodec;

// ---- decoding ----

TEST_F(DecodingACategory, FillsEveryField) {
  Payload payload;
  payload.first = {1, 0xFFFFFFFFFFFFFFFF};
  payload.second = {0x0203040506070809, 4, 5};
  payload.extra = bytesOf("free bytes");
  store(payload.encode());
  giveExtraBuffer(payload.extra.size());
  ASSERT_EQ(decode(), 1);
  EXPECT_EQ(record.categoryID, 0x0102030405060708u);
  EXPECT_EQ(text(record.categoryName), u"Name");
  EXPECT_EQ(record.categoryParam, 0x11223344u);
  EXPECT_EQ(record.relatedID, 0x8877665544332211u);
  EXPECT_EQ(listOf(record.firstIDs, record.firstIDCount), payload.first);
  EXPECT_EQ(listOf(record.secondIDs, record.secondIDCount), payload.second);
  EXPECT_EQ(record.extraLength, 10u);
  EXPECT_EQ(Bytes(record.extraData, record.extraData + 10), payload.extra);
}

TEST_F(DecodingACategory, ReadsTheNameLowByteFirstAmongNumbersHighByteFirst) {
  Bytes payload = Payload().encode();
  payload.putLe(8, 2, 0x1234);
  store(payload);
  ASSERT_EQ(decode(), 1);
  EXPECT_EQ(record.categoryName[0], 0x1234);
}

TEST_F(DecodingACategory, KeepsANameOf32CharactersWithoutATerminator) {
  Payload payload;
  payload.name = std::u16string(32, u'\u00E4');
  store(payload.encode());
  ASSERT_EQ(decode(), 1);
  EXPECT_EQ(std::u16string(record.categoryName, record.categoryName + 32), payload.name);
}

TEST_F(DecodingACategory, Takes96BytesForEmptyListsAndLeavesTheExtraBufferUnread) {
  const Bytes payload = Payload().encode();
  ASSERT_EQ(payload.size(), 96u);
  store(payload);
  giveExtraBuffer(4);
  ASSERT_EQ(decode(), 1);
  EXPECT_EQ(record.firstIDCount, 0);
  EXPECT_EQ(record.firstIDs, nullptr);
  EXPECT_EQ(record.secondIDCount, 0);
  EXPECT_EQ(record.secondIDs, nullptr);
  EXPECT_EQ(record.extraLength, 0u);
  EXPECT_EQ(Bytes(record.extraData, record.extraData + 4), Bytes(4, 0xEE));
}

TEST_F(DecodingACategory, TakesNegativeCountsForEmptyLists) {
  Bytes payload = Payload().encode();
  payload.putBe(84, 4, 0xFFFFFFFF);
  payload.putBe(88, 4, 0x80000000);
  store(payload);
  ASSERT_EQ(decode(), 1);
  EXPECT_EQ(record.firstIDCount, -1);
  EXPECT_EQ(record.secondIDCount, INT32_MIN);
  EXPECT_EQ(record.firstIDs, nullptr);
  EXPECT_EQ(record.secondIDs, nullptr);
}

TEST_F(DecodingACategory, IgnoresWhatFollowsTheFreeBytes) {
  Payload payload;
  payload.extra = bytesOf("ab");
  store(payload.encode().fill(50, 0x77));
  giveExtraBuffer(52);
  ASSERT_EQ(decode(), 1);
  EXPECT_EQ(Bytes(record.extraData, record.extraData + 3), bytesOf("ab").fill(1, 0xEE));
}

TEST_F(DecodingACategory, RestoresThePosition) {
  store(Payload().encode());
  seek(db_, 1234);
  ASSERT_EQ(decode(), 1);
  EXPECT_EQ(position(db_), 1234);
}

TEST_F(DecodingACategory, LeavesTheRecordUntouchedAndSucceedsForEightBytesOrLess) {
  for (const size_t length : {0u, 1u, 8u}) {
    store(pattern(length));
    std::memset(static_cast<void*>(&record), 0x55, sizeof record);
    const qvrzOneCategoryRecord before = record;
    seek(db_, 77);
    EXPECT_EQ(decode(), 1);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
    EXPECT_EQ(position(db_), 77);
    close(db_);
  }
  std::memset(static_cast<void*>(&record), 0, sizeof record);
}

TEST_F(DecodingACategory, LeavesTheRecordUntouchedAndSucceedsWithoutAPayloadPosition) {
  store(Payload().encode());
  info_.dataPos = 0;
  EXPECT_EQ(decode(), 1);
  EXPECT_EQ(record.categoryID, 0u);
}

TEST_F(DecodingACategory, LeavesTheRecordUntouchedAndSucceedsWhenItsFirstBytesCannotBeRead) {
  store(Payload().encode());
  info_.dataPos = static_cast<int64_t>(fileSize()) - 7;
  seek(db_, 77);
  EXPECT_EQ(decode(), 1);
  EXPECT_EQ(record.categoryID, 0u);
  EXPECT_EQ(position(db_), 77);
}

TEST_F(DecodingACategory, RefusesAPositionThatIsNoneWithoutFreeing) {
  store(Payload().encode());
  giveExtraBuffer(4);
  info_.dataPos = -1;
  EXPECT_EQ(decode(), 0);
  EXPECT_NE(record.extraData, nullptr);
}

TEST_F(DecodingACategory, RefusesAFileThatIsNotOpen) {
  store(Payload().encode());
  close(db_);
  EXPECT_EQ(decode(), 0);
  EXPECT_EQ(record.categoryID, 0u);
}

TEST_F(DecodingACategory, RefusesNullArguments) {
  store(Payload().encode());
  qvrzOneCategoryRecord* pointer = nullptr;
  EXPECT_EQ(InternalReadOneRecord2CategoryStruct(db_, &info_, nullptr), 0);
  EXPECT_EQ(InternalReadOneRecord2CategoryStruct(db_, &info_, &pointer), 0);
  pointer = &record;
  EXPECT_EQ(InternalReadOneRecord2CategoryStruct(db_, nullptr, &pointer), 0);
}

// The bounds on the fixed fields: 9 to 87 bytes are too few, and nothing is freed.
TEST_F(DecodingACategory, FailsEarlyWithoutFreeingWhenTheFixedFieldsAreNotCovered) {
  for (const uint32_t length : {9u, 71u, 72u, 75u, 76u, 83u, 84u, 87u}) {
    SCOPED_TRACE(length);
    store(Payload().encode().fill(100, 0));
    giveExtraBuffer(4);
    auto* list = static_cast<uint64_t*>(std::malloc(8));
    record.firstIDs = list;
    info_.dataLength = length;
    seek(db_, 77);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(record.firstIDs, list);
    EXPECT_NE(record.extraData, nullptr);
    EXPECT_NE(position(db_), 77) << "an early failure leaves the position where it was reached";
    close(db_);
    clear();
  }
}

TEST_F(DecodingACategory, StoresEachFixedFieldOnlyAsFarAsTheLengthCoversIt) {
  store(Payload().encode());
  info_.dataLength = 72;
  EXPECT_EQ(decode(), 0);
  EXPECT_EQ(text(record.categoryName), u"Name");
  EXPECT_EQ(record.categoryParam, 0u);
}

TEST_F(DecodingACategory, FailsLateAndFreesEverythingWhenAListIsLongerThanThePayload) {
  Payload payload;
  payload.first = {1, 2, 3};
  Bytes bytes = payload.encode();
  bytes.putBe(84, 4, 5);  // 88 + 5 * 8 is more than 96 + 3 * 8
  expectLateFailure(bytes);
  bytes.putBe(84, 4, 0x7FFFFFFF);
  expectLateFailure(bytes);
}

TEST_F(DecodingACategory, FailsLateAndFreesEverythingWhenTheSecondListIsLongerThanThePayload) {
  Payload payload;
  payload.first = {1, 2, 3};
  payload.second = {4};
  Bytes bytes = payload.encode();
  bytes.putBe(88 + 24, 4, 3);
  expectLateFailure(bytes);
  bytes.putBe(88 + 24, 4, 0x7FFFFFFF);
  expectLateFailure(bytes);
}

TEST_F(DecodingACategory, FailsLateWhenACountIsNotCovered) {
  const Bytes payload = Payload().encode();
  for (const size_t length : {88u, 91u, 92u, 95u}) expectLateFailure(payload.cut(length));
}

TEST_F(DecodingACategory, FailsLateWhenAListThatThePayloadCoversIsCutOffWithTheFile) {
  Payload payload;
  payload.second = {4, 5, 6};
  store(payload.encode());
  giveExtraBuffer(8);
  const std::uintmax_t length = fileSize();
  std::filesystem::resize_file(path(), length - 20);
  EXPECT_EQ(decode(), 0);
  EXPECT_EQ(record.secondIDs, nullptr);
  EXPECT_EQ(record.extraData, nullptr);
  allowDamage();
}

TEST_F(DecodingACategory, FailsEarlyWithoutFreeingWhenAFixedFieldIsCutOffWithTheFile) {
  allowDamage();
  for (const unsigned length : {8u, 71u, 72u, 75u, 76u, 83u, 84u, 87u}) {
    SCOPED_TRACE(length);
    store(Payload().encode());
    giveExtraBuffer(4);
    std::filesystem::resize_file(path(), static_cast<std::uintmax_t>(info_.dataPos) + length);
    seek(db_, 77);
    EXPECT_EQ(decode(), 0);
    EXPECT_NE(record.extraData, nullptr);
    EXPECT_NE(position(db_), 77) << "an early failure leaves the position where it was reached";
    close(db_);
    clear();
  }
}

TEST_F(DecodingACategory, FailsLateWhenACountIsCutOffWithTheFile) {
  allowDamage();
  for (const unsigned length : {88u, 91u, 92u, 95u}) {
    SCOPED_TRACE(length);
    store(Payload().encode());
    giveExtraBuffer(4);
    std::filesystem::resize_file(path(), static_cast<std::uintmax_t>(info_.dataPos) + length);
    seek(db_, 77);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(record.extraData, nullptr);
    EXPECT_EQ(position(db_), 77);
    close(db_);
  }
}

TEST_F(DecodingACategory, AsksForNoMemoryThatTheFileCannotFill) {
  Bytes payload = Payload().encode();
  payload.putBe(84, 4, 0x1FFFFFF0);
  store(payload);
  info_.dataLength = 0xFFFFFFFF;  // as a damaged header may claim
  RecordedCalls host;
  EXPECT_EQ(decode(), 0);
  for (const Event& event : host.events()) {
    if (event.call == Call::allocate) {
      EXPECT_LT(event.count, size_t{1} << 20);
    }
  }
}

TEST_F(DecodingACategory, FailsLateWithoutMemoryForEitherList) {
  Payload payload;
  payload.first = {1};
  payload.second = {2};
  for (int step = 0; step < 2; ++step) {
    store(payload.encode());
    giveExtraBuffer(4);
    {
      RecordedCalls host;
      host.failOnce(Call::allocate, step);
      EXPECT_EQ(decode(), 0);
      EXPECT_TRUE(host.failed());
    }
    EXPECT_EQ(record.firstIDs, nullptr);
    EXPECT_EQ(record.secondIDs, nullptr);
    EXPECT_EQ(record.extraData, nullptr);
    close(db_);
  }
}

// ---- free bytes that the payload does not cover ----

TEST_F(DecodingACategory, FailsLateWhenTheFreeBytesAreLongerThanThePayloadButNotThanTheFile) {
  Payload payload;
  payload.extra = bytesOf("four");
  Bytes bytes = payload.encode();
  bytes.putBe(92, 4, 5);  // the block's end mark would be the fifth
  expectLateFailure(bytes);
}

TEST_F(DecodingACategory, LeavesTheExtraBufferAsItWasWhenTheClaimIsLongerThanTheFile) {
  Payload payload;
  payload.extra = bytesOf("four");
  Bytes bytes = payload.encode();
  bytes.putBe(92, 4, 6);
  store(bytes);
  giveExtraBuffer(4);
  seek(db_, 77);
  EXPECT_EQ(decode(), 1);
  EXPECT_EQ(record.extraLength, 6u);
  EXPECT_EQ(Bytes(record.extraData, record.extraData + 4), Bytes(4, 0xEE));
  EXPECT_EQ(position(db_), 77);
}

TEST_F(DecodingACategory, LeavesTheExtraBufferAsItWasWhenTheFreeBytesAreCutOffWithTheFile) {
  Payload payload;
  payload.extra = bytesOf("four");
  store(payload.encode());
  giveExtraBuffer(4);
  std::filesystem::resize_file(path(), fileSize() - 3);  // the end mark, and two of the free bytes
  EXPECT_EQ(decode(), 1);
  EXPECT_EQ(record.extraLength, 4u);
  EXPECT_EQ(Bytes(record.extraData, record.extraData + 4), Bytes(4, 0xEE));
  allowDamage();
}

TEST_F(DecodingACategory, NeverWritesMoreIntoTheExtraBufferThanThePayloadHasLeft) {
  Payload payload;
  payload.extra = bytesOf("four");
  Bytes bytes = payload.encode();
  bytes.putBe(92, 4, 0xFFFFFFFF);
  store(bytes);
  giveExtraBuffer(4);  // a write beyond is found by the address sanitizer
  EXPECT_EQ(decode(), 1);
  EXPECT_EQ(record.extraLength, 0xFFFFFFFFu);
  EXPECT_EQ(Bytes(record.extraData, record.extraData + 4), Bytes(4, 0xEE));
}

TEST_F(DecodingACategory, DoesWithoutAnExtraBuffer) {
  Payload payload;
  payload.extra = bytesOf("four");
  store(payload.encode());
  EXPECT_EQ(decode(), 1);
  EXPECT_EQ(record.extraLength, 4u);
  EXPECT_EQ(record.extraData, nullptr);
}

// ---- encoding ----

TEST_F(EncodingACategory, WritesEveryFieldInTheOrderOfThePayload) {
  Payload payload;
  payload.first = {1, 0xFFFFFFFFFFFFFFFF};
  payload.second = {0x0203040506070809};
  payload.extra = bytesOf("free bytes");
  qvrzOneCategoryRecord category{};
  category.categoryID = payload.categoryID;
  for (size_t i = 0; i < 4; ++i) category.categoryName[i] = payload.name[i];
  category.categoryParam = payload.param;
  category.relatedID = payload.relatedID;
  category.firstIDCount = 2;
  category.firstIDs = payload.first.data();
  category.secondIDCount = 1;
  category.secondIDs = payload.second.data();
  category.extraLength = 10;
  category.extraData = payload.extra.data();
  const Bytes bytes = encoded(category);
  EXPECT_EQ(bytes.size(), 96u + 8 * 3 + 10);
  EXPECT_TRUE(sameBytes(bytes, payload.encode()));
}

TEST_F(EncodingACategory, ReturnsExactlyWhatWasDecoded) {
  Payload payload;
  payload.first = {7, 8, 9};
  payload.second = {10};
  payload.extra = pattern(33);
  payload.name = u"x";
  Bytes bytes = payload.encode();
  bytes.putLe(12, 2, 0x4142);  // after the name's terminator, and carried with it
  store(bytes);
  giveExtraBuffer(33);
  ASSERT_EQ(decode(), 1);
  EXPECT_TRUE(sameBytes(encoded(record), bytes));
  EXPECT_EQ(encoded(record).size(), info_.dataLength);
}

TEST_F(EncodingACategory, WritesNegativeCountsAsTheyAreWithoutEntries) {
  qvrzOneCategoryRecord category{};
  category.firstIDCount = -2;
  category.secondIDCount = INT32_MIN;
  const Bytes bytes = encoded(category);
  EXPECT_EQ(bytes.size(), 96u);
  EXPECT_EQ(bytes.from(84), hex("FFFFFFFE 80000000 00000000"));
}

TEST_F(EncodingACategory, IgnoresItsFileArgument) {
  qvrzOneCategoryRecord category{};
  uint32_t length = 0;
  unsigned char* buffer = InternalPutOneCategory2Buffer(31000, &category, &length);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(length, 96u);
  std::free(buffer);
}

TEST_F(EncodingACategory, RefusesNullWhereSomethingIsNeeded) {
  qvrzOneCategoryRecord category{};
  uint32_t length = 4711;
  EXPECT_EQ(InternalPutOneCategory2Buffer(0, nullptr, &length), nullptr);
  EXPECT_EQ(InternalPutOneCategory2Buffer(0, &category, nullptr), nullptr);
  category.extraLength = 1;
  EXPECT_EQ(InternalPutOneCategory2Buffer(0, &category, &length), nullptr);
  category = {};
  category.firstIDCount = 1;
  EXPECT_EQ(InternalPutOneCategory2Buffer(0, &category, &length), nullptr);
  category = {};
  category.secondIDCount = 1;
  EXPECT_EQ(InternalPutOneCategory2Buffer(0, &category, &length), nullptr);
  EXPECT_EQ(length, 4711u);
}

TEST_F(EncodingACategory, ReturnsNullForAPayloadOfFourGigabytesOrMore) {
  qvrzOneCategoryRecord category{};
  unsigned char byte = 0;
  category.extraData = &byte;
  category.extraLength = 0xFFFFFFFF;
  uint32_t length = 0;
  EXPECT_EQ(InternalPutOneCategory2Buffer(0, &category, &length), nullptr);
}

TEST_F(EncodingACategory, ReturnsNullWithoutMemory) {
  qvrzOneCategoryRecord category{};
  uint32_t length = 0;
  RecordedCalls host;
  host.failOnce(Call::allocate);
  EXPECT_EQ(InternalPutOneCategory2Buffer(0, &category, &length), nullptr);
  EXPECT_TRUE(host.failed());
}

// ---- replacing ----

int replaceIn(std::vector<uint64_t>& ids, const std::vector<UUIDMapping>& pairs, int32_t count) {
  qvrzOneCategoryRecord category{};
  category.secondIDCount = static_cast<int32_t>(ids.size());
  category.secondIDs = ids.data();
  qvrzOneCategoryRecord* pointer = &category;
  return InternalConvertOldCategoryID2New(&pointer, pairs.data(), count);
}

TEST_F(ReplacingIdentifiers, TakesTheFirstPairOfEachOldIdentifier) {
  std::vector<uint64_t> ids = {3, 1, 3};
  EXPECT_EQ(replaceIn(ids, {{1, 11}, {3, 33}, {3, 44}}, 3), 1);
  EXPECT_EQ(ids, (std::vector<uint64_t>{33, 11, 33}));
}

TEST_F(ReplacingIdentifiers, DoesNotReplaceTwice) {
  std::vector<uint64_t> ids = {1};
  EXPECT_EQ(replaceIn(ids, {{1, 2}, {2, 3}}, 2), 1);
  EXPECT_EQ(ids, std::vector<uint64_t>{2});
}

TEST_F(ReplacingIdentifiers, FailsAtTheFirstThatIsNotThereAndLeavesThoseBeforeItReplaced) {
  std::vector<uint64_t> ids = {1, 9, 1};
  EXPECT_EQ(replaceIn(ids, {{1, 11}}, 1), 0);
  EXPECT_EQ(ids, (std::vector<uint64_t>{11, 9, 1}));
}

TEST_F(ReplacingIdentifiers, SearchesTheCountedPairsOnlyAndNoneForANegativeCount) {
  for (const int32_t count : {1, 0, -1, INT32_MIN}) {
    std::vector<uint64_t> ids = {2};
    EXPECT_EQ(replaceIn(ids, {{1, 11}, {2, 22}}, count), 0) << count;
  }
}

TEST_F(ReplacingIdentifiers, SucceedsWithoutEntriesUnlessThereIsNoArray) {
  qvrzOneCategoryRecord category{};
  qvrzOneCategoryRecord* pointer = &category;
  const UUIDMapping pair{1, 2};
  EXPECT_EQ(InternalConvertOldCategoryID2New(&pointer, &pair, 0), 1);
  category.secondIDCount = -5;
  EXPECT_EQ(InternalConvertOldCategoryID2New(&pointer, &pair, 1), 1);
  EXPECT_EQ(InternalConvertOldCategoryID2New(&pointer, nullptr, 1), 0);
  category.secondIDCount = 1;
  EXPECT_EQ(InternalConvertOldCategoryID2New(&pointer, &pair, 1), 0);
}

TEST_F(ReplacingIdentifiers, RefusesRecordsThatAreNotThere) {
  const UUIDMapping pair{1, 2};
  qvrzOneCategoryRecord* pointer = nullptr;
  EXPECT_EQ(InternalConvertOldCategoryID2New(nullptr, &pair, 1), 0);
  EXPECT_EQ(InternalConvertOldCategoryID2New(&pointer, &pair, 1), 0);
}

}  // namespace
}  // namespace qvdbase::test
