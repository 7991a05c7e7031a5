// Reading the header and the directory numbers, setting and asking for the position, and
// seeding the generator.
#include "QVDbase/header.h"
#include "kit/layers.h"

#include <qvdbase/QVFile.h>
#include <qvdbase/caches.h>

#include <cstdlib>
#include <cstring>

#include "QVDbase/position.h"
#include "format/identifiers.h"
#include "kit/database_fixture.h"
#include "kit/fake_host.h"

namespace qvdbase::test {
namespace {

FileImage sampleImage() {
  FileImage image;
  image.header().signature = bytesOf("qVxy");
  image.header().version = 0x00C7;
  image.header().databaseID = hex("1122334455667788 0264");
  image.addTable("t", 0x77);
  return image;
}

struct Numbers {
  int16_t tableCount = 0x5A;
  int16_t slotCount = 0x5A;
  uint16_t slotSize = 0x5A;
};

int readNumbers(int16_t db, internal_Head1* head, Numbers* numbers) {
  return internal_GetDBHead2Table(db, head, &numbers->tableCount, &numbers->slotCount,
                                  &numbers->slotSize);
}

int readNumbers(int16_t db, Numbers* numbers) {
  internal_Head1 head;
  return readNumbers(db, &head, numbers);
}

// ---- the header ----

using ReadingTheHeader = DatabaseTest;

TEST_F(ReadingTheHeader, ReportsItsFieldsAndEndsAfterThem) {
  const int16_t db = put(sampleImage());
  seek(db, 3000);
  internal_Head1 head;
  EXPECT_EQ(internal_GetDBHead1(db, &head), 1);
  EXPECT_EQ(std::memcmp(head.signature, "qVxy", 4), 0);
  EXPECT_EQ(head.version, 199);
  EXPECT_EQ(Bytes(head.databaseID, head.databaseID + 10), hex("1122334455667788 0264"));
  EXPECT_EQ(head.databaseIDPos, 6);
  EXPECT_EQ(position(db), 16);
}

TEST_F(ReadingTheHeader, DoesNotJudgeTheVersion) {
  FileImage image;
  image.header().version = 0xFFFF;
  const int16_t db = put(image);
  internal_Head1 head;
  EXPECT_EQ(internal_GetDBHead1(db, &head), 1);
  EXPECT_EQ(head.version, 0xFFFF);
  expectDamage(kDefaultFile, {"H2"});
}

TEST_F(ReadingTheHeader, DoesNotLookAtTheCache) {
  const int16_t db = put(sampleImage());
  Numbers numbers;
  ASSERT_EQ(readNumbers(db, &numbers), 1);
  internal_Head1 head;
  EXPECT_EQ(internal_GetDBHead1(db, &head), 1);
  EXPECT_EQ(std::memcmp(head.signature, "qVxy", 4), 0);
}

TEST_F(ReadingTheHeader, FailsOnAFileThatIsCutOff) {
  const Bytes file = FileImage().build();
  for (size_t length = 0; length < 16; ++length) {
    const int16_t db = put(file.cut(length), "short");
    internal_Head1 head;
    EXPECT_EQ(internal_GetDBHead1(db, &head), 0) << length;
    close(db);
  }
  expectDamage("short");
}

TEST_F(ReadingTheHeader, StaysWhereItFails) {
  FileImage image;
  image.header().signature = bytesOf("QXdb");
  const int16_t db = put(image);
  internal_Head1 head;
  EXPECT_EQ(internal_GetDBHead1(db, &head), 0);
  EXPECT_EQ(position(db), 4);
  expectDamage(kDefaultFile, {"H1"});
}

TEST_F(ReadingTheHeader, FailsWithoutAnOutputOrAHandle) {
  const int16_t db = create();
  internal_Head1 head;
  EXPECT_EQ(internal_GetDBHead1(db, nullptr), 0);
  EXPECT_EQ(internal_GetDBHead1(0, &head), 0);
}

// ---- the directory numbers ----

using ReadingTheDirectoryNumbers = DatabaseTest;

TEST_F(ReadingTheDirectoryNumbers, ReportsThemAndEndsAtTheFirstSlot) {
  FileImage image = sampleImage();
  image.header().slotCount = 0x1234;
  image.header().slotSize = 0xFEDC;
  const int16_t db = put(image);
  Numbers numbers;
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_EQ(numbers.tableCount, 1);
  EXPECT_EQ(numbers.slotCount, 0x1234);
  EXPECT_EQ(numbers.slotSize, 0xFEDC);
  EXPECT_EQ(position(db), 22);
  expectDamage(kDefaultFile, {"H6"});
}

TEST_F(ReadingTheDirectoryNumbers, TakesTheTableCountAsSigned) {
  FileImage image;
  image.header().tableCount = -2;
  const int16_t db = put(image);
  Numbers numbers;
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_EQ(numbers.tableCount, -2);
  expectDamage(kDefaultFile, {"H5"});
}

TEST_F(ReadingTheDirectoryNumbers, FillsTheHeaderRecordTheFirstTime) {
  const int16_t db = put(sampleImage());
  internal_Head1 head;
  Numbers numbers;
  EXPECT_EQ(readNumbers(db, &head, &numbers), 1);
  EXPECT_EQ(std::memcmp(head.signature, "qVxy", 4), 0);
  EXPECT_EQ(head.version, 199);
}

TEST_F(ReadingTheDirectoryNumbers, ReadsTheFileOnce) {
  const int16_t db = put(sampleImage());
  Numbers numbers;
  ASSERT_EQ(readNumbers(db, &numbers), 1);
  FakeHost host;
  numbers = {};
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_EQ(host.count(FakeHost::Call::read), 0);
  EXPECT_EQ(numbers.tableCount, 1);
  EXPECT_EQ(numbers.slotCount, 32);
  EXPECT_EQ(numbers.slotSize, 144);
  EXPECT_EQ(position(db), 22);
}

TEST_F(ReadingTheDirectoryNumbers, NeedsAHeaderRecordOnlyTheFirstTime) {
  const int16_t db = put(sampleImage());
  Numbers numbers;
  EXPECT_EQ(readNumbers(db, nullptr, &numbers), 0);
  ASSERT_EQ(readNumbers(db, &numbers), 1);
  numbers = {};
  EXPECT_EQ(readNumbers(db, nullptr, &numbers), 1);
  EXPECT_EQ(numbers.tableCount, 1);
  EXPECT_EQ(numbers.slotCount, 32);
  EXPECT_EQ(numbers.slotSize, 144);
}

TEST_F(ReadingTheDirectoryNumbers, EndsAtTheFirstSlotAlsoWhenServedFromTheCache) {
  const int16_t db = put(sampleImage());
  Numbers numbers;
  ASSERT_EQ(readNumbers(db, &numbers), 1);
  seek(db, 4000);
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_EQ(position(db), 22);
}

// The header record gets the cache entry's own bytes from its header reference on: that reference,
// the three numbers, two bytes of padding, the position of the first slot. Where references have
// four bytes that is less than the record holds; what follows stays.
TEST_F(ReadingTheDirectoryNumbers, OverwritesTheHeaderRecordWithTheEntryWhenServedFromTheCache) {
  const int16_t db = put(sampleImage());
  Numbers numbers;
  ASSERT_EQ(readNumbers(db, &numbers), 1);
  internal_Head1 head;
  std::memset(&head, 0xEE, sizeof head);
  ASSERT_EQ(readNumbers(db, &head, &numbers), 1);

  Bytes bytes(sizeof head);
  std::memcpy(bytes.data(), &head, sizeof head);
  int size = 0;
  const void* entry = gbl_Gdb2tDQ.GetAtNoCopy(&size, SearchForGDB2TCache(db));
  ASSERT_NE(entry, nullptr);
  Bytes entryBytes(static_cast<size_t>(size));
  std::memcpy(entryBytes.data(), entry, entryBytes.size());
  const Bytes handedOut = entryBytes.from(sizeof(void*));
  EXPECT_EQ(bytes.cut(handedOut.size()), handedOut);
  EXPECT_EQ(bytes.from(handedOut.size()), Bytes().fill(bytes.size() - handedOut.size(), 0xEE));
  int16_t counts[2];
  std::memcpy(counts, bytes.data() + sizeof(void*), sizeof counts);
  EXPECT_EQ(counts[0], 1);
  EXPECT_EQ(counts[1], 32);
  int64_t directoryPos = 0;
  std::memcpy(&directoryPos, bytes.data() + sizeof(void*) + 8, sizeof directoryPos);
  EXPECT_EQ(directoryPos, 22);
}

TEST_F(ReadingTheDirectoryNumbers, ServesWhatTheCacheHoldsThoughTheFileHasChanged) {
  const int16_t db = put(sampleImage());
  Numbers numbers;
  ASSERT_EQ(readNumbers(db, &numbers), 1);
  patchFile(path(), 0, hex("0000"));  // no longer our letters
  patchFile(path(), 16, hex("0005 0006 0007"));
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_EQ(numbers.tableCount, 1);
  EXPECT_EQ(numbers.slotCount, 32);
  EXPECT_EQ(numbers.slotSize, 144);
  EraseSFGDB2TCache(SearchForGDB2TCache(db));
  EXPECT_EQ(readNumbers(db, &numbers), 0);
  patchFile(path(), 0, bytesOf("QV"));
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_EQ(numbers.tableCount, 5);
  EXPECT_EQ(numbers.slotCount, 6);
  EXPECT_EQ(numbers.slotSize, 7);
  expectDamage(kDefaultFile, {"H6"});
}

TEST_F(ReadingTheDirectoryNumbers, FailsOnAFileThatIsCutOffAndCachesNothing) {
  const Bytes file = FileImage().build();
  for (size_t length = 0; length < 22; ++length) {
    const int16_t db = put(file.cut(length), "short");
    Numbers numbers;
    EXPECT_EQ(readNumbers(db, &numbers), 0) << length;
    EXPECT_EQ(SearchForGDB2TCache(db), -1);
    close(db);
  }
  const int16_t db = put(file.cut(22), "short");
  Numbers numbers;
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  expectDamage("short", {"F2"});
}

TEST_F(ReadingTheDirectoryNumbers, RefusesAVersionOutOfRangeAndStaysAfterTheHeader) {
  for (const int version : {0, 99, 200, 65535}) {
    FileImage image;
    image.header().version = static_cast<uint16_t>(version);
    const int16_t db = put(image);
    Numbers numbers;
    EXPECT_EQ(readNumbers(db, &numbers), 0) << version;
    EXPECT_EQ(numbers.tableCount, 0x5A);
    EXPECT_EQ(position(db), 16);
    EXPECT_EQ(SearchForGDB2TCache(db), -1);
    close(db);
  }
  expectDamage(kDefaultFile, {"H2"});
}

TEST_F(ReadingTheDirectoryNumbers, SucceedsUncachedWhenTheCacheGetsNoMemory) {
  const int16_t db = put(sampleImage());
  FakeHost host;
  host.failFrom(FakeHost::Call::allocate);
  Numbers numbers;
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_TRUE(host.failed());
  EXPECT_EQ(numbers.tableCount, 1);
  EXPECT_EQ(position(db), 22);
  EXPECT_EQ(SearchForGDB2TCache(db), -1);
  host.heal();
  EXPECT_EQ(readNumbers(db, &numbers), 1);
  EXPECT_NE(SearchForGDB2TCache(db), -1);
}

TEST_F(ReadingTheDirectoryNumbers, FailsWhenTheFirstSlotCannotBeSoughtThoughCached) {
  const int16_t db = OpenDBaseW((put(sampleImage()), wide()), 1);
  Numbers numbers;
  ASSERT_EQ(readNumbers(db, &numbers), 1);
  ASSERT_EQ(QVFile().QVCloseFile(db), 1);  // leaves the entry in the cache
  EXPECT_EQ(readNumbers(db, &numbers), 0);
  EraseSFGDB2TCache(SearchForGDB2TCache(db));
}

// ---- positions ----

using Seeking = DatabaseTest;

TEST_F(Seeking, CountsFromStartEndAndPosition) {
  const int16_t db = create();
  EXPECT_EQ(myFileSeek(db, 100, 1), 0);
  EXPECT_EQ(myGetFilePos(db), 100);
  EXPECT_EQ(myFileSeek(db, 16, 3), 0);
  EXPECT_EQ(myGetFilePos(db), 116);
  EXPECT_EQ(myFileSeek(db, -6, 3), 0);
  EXPECT_EQ(myGetFilePos(db), 110);
  EXPECT_EQ(myFileSeek(db, 0, 2), 0);
  EXPECT_EQ(myGetFilePos(db), 4630);
  EXPECT_EQ(myFileSeek(db, -30, 2), 0);
  EXPECT_EQ(myGetFilePos(db), 4600);
}

TEST_F(Seeking, StaysWhereItIsWhenItFails) {
  const int16_t db = create();
  seek(db, 50);
  EXPECT_EQ(myFileSeek(db, -1, 1), -1);
  EXPECT_EQ(myFileSeek(db, -51, 3), -1);
  EXPECT_EQ(myFileSeek(db, -4631, 2), -1);
  EXPECT_EQ(myFileSeek(db, 10, 4), -1);
  EXPECT_EQ(myGetFilePos(db), 50);
}

TEST_F(Seeking, FailsOnAHandleThatIsNotOpen) {
  const int16_t db = create();
  close(db);
  EXPECT_EQ(myFileSeek(db, 0, 1), -1);
  EXPECT_EQ(myFileSeek(0, 0, 1), -1);
  EXPECT_EQ(myGetFilePos(db), -1);
  EXPECT_EQ(myGetFilePos(0), -1);
}

struct Visit {
  int16_t db = 0;
  int a = 0;
  int b = 0;
  int calls = 0;
};

uint16_t moveAndNote(int a, int b, void* context) {
  auto* call = static_cast<Visit*>(context);
  call->a = a;
  call->b = b;
  ++call->calls;
  if (call->db != 0) myFileSeek(call->db, 4000, 1);
  return 0xFEDC;
}

using CallingBack = DatabaseTest;

TEST_F(CallingBack, PassesOnItsArgumentsAndReturnsTheResult) {
  Visit call;
  EXPECT_EQ(SavedCallBack(0, moveAndNote, 17, -4, &call), 0xFEDC);
  EXPECT_EQ(call.a, 17);
  EXPECT_EQ(call.b, -4);
  EXPECT_EQ(call.calls, 1);
}

TEST_F(CallingBack, RestoresThePosition) {
  Visit call{.db = create()};
  expectPositionKept(call.db,
                     [&] { EXPECT_EQ(SavedCallBack(call.db, moveAndNote, 1, 2, &call), 0xFEDC); });
  EXPECT_EQ(call.calls, 3);
}

TEST_F(CallingBack, LeavesThePositionAloneWithoutAHandle) {
  Visit call{.db = create()};
  seek(call.db, 5);
  SavedCallBack(0, moveAndNote, 1, 2, &call);
  EXPECT_EQ(position(call.db), 4000);
}

TEST_F(CallingBack, CallsAlsoWithAHandleThatIsNotOpen) {
  const int16_t db = create();
  close(db);
  Visit call;
  EXPECT_EQ(SavedCallBack(db, moveAndNote, 1, 2, &call), 0xFEDC);
  EXPECT_EQ(call.calls, 1);
}

// ---- the generator ----

// Whether the generator of a fresh process gives what it gives without a seed.
bool generatorIsUnseeded() {
  const int first = std::rand();
  std::srand(1);
  return first == std::rand();
}

TEST(LoadingDeathTest, HasSeededTheGeneratorBeforeMain) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // runs this test in a process of its own
  EXPECT_EXIT(std::exit(generatorIsUnseeded() ? 1 : 0), testing::ExitedWithCode(0), "");
}

TEST(Loading, SeedsTheGeneratorWithProcessorTimePlusTime) {
  FakeHost host;
  host.setTime(4000);
  host.setProcessClock(321);
  std::srand(4321);
  const int expected = std::rand();
  Initializer();
  EXPECT_EQ(std::rand(), expected);
}

}  // namespace
}  // namespace qvdbase::test
