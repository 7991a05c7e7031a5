// Records through the C++ layer: adding, finding, walking, reading, changing and deleting them.
#include <pthread.h>

#include <algorithm>
#include <functional>
#include <ranges>

#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using Ids = std::vector<uint64_t>;
using qvdb::Reason;

static_assert(std::ranges::input_range<qvdb::RecordRange>);
static_assert(!std::ranges::forward_range<qvdb::RecordRange>);

using LayerRecords = LayerTest;

TEST_F(LayerRecords, AreListedInTheOrderOfTheirChain) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  const uint64_t a = table.add(span(bytesOf("first"))).value;
  const uint64_t b = table.add(span(bytesOf("second"))).value;
  const uint64_t c = table.add({}).value;
  EXPECT_EQ(idsOf(table), (Ids{a, b, c}));
  EXPECT_EQ(table.count(), 3u);
  table.remove(qvdb::Id{b});
  EXPECT_EQ(idsOf(table), (Ids{a, c}));
}

TEST_F(LayerRecords, OfAnEmptyTableAreNone) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  EXPECT_EQ(idsOf(table), Ids{});
  EXPECT_FALSE(table.find(qvdb::Id{1}).has_value());
  EXPECT_FALSE(table.get(qvdb::Id{1}).has_value());
}

TEST_F(LayerRecords, TellWhatTheirHeadersHold) {
  FileImage image;
  image.addTable("notes", 0x11);
  const auto position = image.addRecord(0, 0xA1, bytesOf("payload"),
                                        {.reserve = 20, .createTime = 7, .modifyTime = 9});
  auto database = openImage(image);
  const auto record = database.table("notes").find(qvdb::Id{0xA1});
  ASSERT_TRUE(record.has_value());
  const qvdb::RecordInfo& info = record->info();
  EXPECT_EQ(info.create_time, 7u);
  EXPECT_EQ(info.modify_time, 9u);
  EXPECT_EQ(info.size, 7u);
  EXPECT_EQ(info.capacity, 20u);
  EXPECT_EQ(info.position, position);
  EXPECT_EQ(info.data_position, position + 55);
  EXPECT_EQ(record->table(), qvdb::Id{0x11});
}

TEST_F(LayerRecords, AreReadWholeInPiecesAndIntoACallersBuffer) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  const Bytes payload = pattern(1000);
  const qvdb::Id id = table.add(span(payload));
  EXPECT_EQ(bytes(table.get(id)), payload);

  const auto record = table.find(id);
  ASSERT_TRUE(record.has_value());
  Bytes pieces;
  std::vector<std::byte> piece(300);
  while (const size_t got = record->read(pieces.size(), piece)) {
    pieces.add(bytes(std::span(piece).first(got)));
  }
  EXPECT_EQ(pieces, payload);
  EXPECT_EQ(record->read(1000, piece), 0u);
  EXPECT_EQ(record->read(~uint64_t{0}, piece), 0u);

  std::vector<std::byte> small(10);
  EXPECT_EQ(table.get(id, small), 1000u);
  EXPECT_EQ(bytes(small), payload.cut(10));
  std::vector<std::byte> large(2000);
  EXPECT_EQ(table.get(id, large), 1000u);
  EXPECT_EQ(bytes(std::span(large).first(1000)), payload);
}

TEST_F(LayerRecords, WithAGivenIdentifierKeepItAndMayRepeatIt) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  table.add_with_id(qvdb::Id{0xABC}, span(bytesOf("one")));
  table.add_with_id(qvdb::Id{0xABC}, span(bytesOf("two")));
  EXPECT_EQ(idsOf(table), (Ids{0xABC, 0xABC}));
  EXPECT_EQ(bytes(table.get(qvdb::Id{0xABC})), bytesOf("one"));
}

TEST_F(LayerRecords, AreChangedInPlaceOrMoved) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  const qvdb::Id id = table.add(span(bytesOf("ten bytes.")), 50);
  table.add(span(bytesOf("behind")));
  const auto size = fileSize();
  EXPECT_TRUE(table.modify(id, span(pattern(40))));
  EXPECT_EQ(fileSize(), size);
  EXPECT_EQ(bytes(table.get(id)), pattern(40));
  EXPECT_TRUE(table.modify(id, span(pattern(60))));
  EXPECT_EQ(fileSize(), size + 55 + 60 + 1);
  EXPECT_EQ(bytes(table.get(id)), pattern(60));
  EXPECT_FALSE(table.modify(qvdb::Id{1}, span(pattern(60))));
}

TEST_F(LayerRecords, CanBeChangedToHoldNothing) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  const qvdb::Id first = table.add(span(bytesOf("abc")));
  const qvdb::Id second = table.add(span(bytesOf("de")));
  EXPECT_TRUE(table.modify(first, {}));
  EXPECT_TRUE(table.modify(*table.find(second), {}));
  for (const qvdb::Id id : {first, second}) {
    EXPECT_EQ(bytes(table.get(id)), Bytes());
    EXPECT_EQ(table.find(id)->size(), 0u);
  }
  EXPECT_EQ(table.find(first)->info().capacity, 3u);
  EXPECT_FALSE(table.modify(qvdb::Id{1}, {}));
}

TEST_F(LayerRecords, FoundBeforeAreChangedTouchedAndDeletedWhereTheyLie) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  std::vector<qvdb::Id> ids;
  for (unsigned i = 0; i < 5; ++i) ids.push_back(table.add(span(pattern(20, i + 1))));
  // The middle one grows and moves, the first shrinks in place, the last goes.
  EXPECT_TRUE(table.modify(*table.find(ids[2]), span(pattern(100))));
  EXPECT_TRUE(table.modify(*table.find(ids[0]), span(pattern(5))));
  EXPECT_TRUE(table.touch(*table.find(ids[1])));
  EXPECT_TRUE(table.remove(*table.find(ids[4])));
  EXPECT_EQ(idsOf(table), (Ids{ids[0].value, ids[1].value, ids[2].value, ids[3].value}));
  EXPECT_EQ(bytes(table.get(ids[2])), pattern(100));
  EXPECT_EQ(bytes(table.get(ids[0])), pattern(5));
}

TEST_F(LayerRecords, ThatMovedOrWentSinceTheyWereFoundAreSearchedAgain) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  table.add(span(bytesOf("before")));
  const qvdb::Id id = table.add(span(bytesOf("moves")));
  table.add(span(bytesOf("behind")));
  const qvdb::Record stale = *table.find(id);
  table.modify(id, span(pattern(100)));
  EXPECT_TRUE(table.modify(stale, span(pattern(70))));
  EXPECT_EQ(bytes(table.get(id)), pattern(70));
  EXPECT_TRUE(table.remove(stale));
  EXPECT_FALSE(table.remove(stale));
  EXPECT_FALSE(table.modify(stale, span(pattern(7))));
  EXPECT_FALSE(table.touch(stale));
  EXPECT_EQ(table.count(), 2u);
}

TEST_F(LayerRecords, AddedOrDeletedDuringAWalkAreNoticed) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  std::vector<qvdb::Id> ids;
  for (unsigned i = 0; i < 100; ++i) ids.push_back(table.add(span(pattern(20, i))));
  Ids seen;
  for (const qvdb::Record& record : table.records()) {
    seen.push_back(record.id().value);
    const size_t i = seen.size() - 1;
    if (i == 10) table.remove(ids[10]);  // the current one
    if (i == 20) table.remove(ids[21]);  // the one that is next
    if (i == 30) table.modify(ids[33], span(pattern(100)));
  }
  Ids expected;
  for (size_t i = 0; i < 100; ++i) {
    if (i != 21) expected.push_back(ids[i].value);
  }
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(table.count(), 98u);
}

TEST_F(LayerRecords, CanAllBeDeletedDuringTheWalk) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  for (unsigned i = 0; i < 50; ++i) table.add(span(pattern(20, i)));
  for (const qvdb::Record& record : table.records()) EXPECT_TRUE(table.remove(record));
  EXPECT_EQ(table.count(), 0u);
}

TEST_F(LayerRecords, AddedInTheWalkItselfDoNotKeepItGoing) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  for (unsigned i = 0; i < 5; ++i) table.add(span(pattern(20, i)));
  int seen = 0;
  for ([[maybe_unused]] const qvdb::Record& record : table.records()) {
    ++seen;
    table.add(span(bytesOf("more")));
  }
  EXPECT_EQ(seen, 5);
  EXPECT_EQ(table.count(), 10u);
}

// clang before 16 cannot read the adaptors of GCC's library.
#if !defined(__clang__) || __clang_major__ >= 16
TEST_F(LayerRecords, WorkWithTheAdaptorsOfTheStandardLibrary) {
  auto database = createDatabase();
  auto table = database.add_table("notes");
  for (unsigned i = 0; i < 30; ++i) table.add(span(pattern(i, i)));
  auto records = table.records();
  std::vector<uint32_t> sizes;
  for (const qvdb::Record& record : records | std::views::drop(10) | std::views::take(3)) {
    sizes.push_back(record.size());
  }
  EXPECT_EQ(sizes, (std::vector<uint32_t>{10, 11, 12}));
}
#endif

// ---- Damage

// A table of five records at known positions.
class DamagedChain : public LayerTest {
 protected:
  void SetUp() override {
    image.addTable("notes", 0x11);
    for (uint64_t i = 0; i < 5; ++i) {
      at.push_back(image.addRecord(0, 0xA0 + i, pattern(20, static_cast<unsigned>(i) + 1)));
    }
    allowDamage();
  }

  // Walks to the damage. Returns how many records were delivered before it.
  size_t walk(uint64_t expectedRecord) {
    auto database = openImage(image);
    size_t seen = 0;
    try {
      for ([[maybe_unused]] const qvdb::Record& record : database.table("notes").records()) ++seen;
      ADD_FAILURE() << "the walk came to its end";
    } catch (const qvdb::Error& error) {
      EXPECT_EQ(error.reason(), Reason::chain_damaged) << error.what();
      EXPECT_EQ(error.record_number(), expectedRecord) << error.what();
      EXPECT_EQ(error.table(), "notes") << error.what();
    }
    return seen;
  }

  FileImage image;
  std::vector<int64_t> at;
};

TEST_F(DamagedChain, IsReportedAtTheRecordWithAWrongMark) {
  image.record(at[2]).blockMark = 0;
  EXPECT_EQ(walk(3), 2u);
}

TEST_F(DamagedChain, IsReportedAtTheFirstRecord) {
  image.slot(0).firstRecordPos = 77;
  EXPECT_EQ(walk(1), 0u);
  image.slot(0).firstRecordPos = 0;
  EXPECT_EQ(walk(1), 0u);
  image.slot(0).firstRecordPos = -5;
  EXPECT_EQ(walk(1), 0u);
}

TEST_F(DamagedChain, ThatEndsEarlyIsReportedAfterItsLastRecord) {
  image.record(at[3]).nextRecordPos = 0;
  EXPECT_EQ(walk(5), 4u);
}

TEST_F(DamagedChain, ThatLoopsEndsSoonHoweverManyRecordsAreCounted) {
  image.record(at[4]).nextRecordPos = at[1];
  image.slot(0).recordCount = 0xFFFFFFFF;
  auto database = openImage(image);
  size_t seen = 0;
  expectError(Reason::chain_damaged, [&] {
    for ([[maybe_unused]] const qvdb::Record& record : database.table("notes").records()) ++seen;
  });
  EXPECT_GE(seen, 5u);
  EXPECT_LE(seen, 50u);
}

TEST_F(DamagedChain, MakesASearchFailThatWouldGoBeyondIt) {
  image.record(at[3]).tableID[0] ^= 1;
  auto database = openImage(image);
  const auto table = database.table("notes");
  EXPECT_TRUE(table.find(qvdb::Id{0xA2}).has_value());
  const auto message =
      expectError(Reason::chain_damaged, [&] { static_cast<void>(table.find(qvdb::Id{0xA4})); });
  EXPECT_NE(message.find("record 4 of 5"), std::string::npos) << message;
}

TEST_F(DamagedChain, MakesChangesFailWithTheReason) {
  image.record(at[3]).tableID[0] ^= 1;
  auto database = openImage(image);
  auto table = database.table("notes");
  expectError(Reason::chain_damaged, [&] { table.modify(qvdb::Id{0xA4}, span(pattern(3))); });
  expectError(Reason::chain_damaged, [&] { table.modify(qvdb::Id{0xA2}, span(pattern(30))); });
  expectError(Reason::chain_damaged, [&] { table.remove(qvdb::Id{0xA4}); });
  expectError(Reason::chain_damaged, [&] { table.touch(qvdb::Id{0xA4}); });
}

// The record can be read, but a change of it would have to be of the last one.
TEST_F(DamagedChain, ThatEndsEarlyKeepsTheRecordWithWhichItEnds) {
  image.record(at[3]).nextRecordPos = 0;
  auto database = openImage(image);
  auto table = database.table("notes");
  const qvdb::Id id{0xA3};
  EXPECT_EQ(bytes(table.get(id)), pattern(20, 4));
  expectError(Reason::chain_damaged, [&] { table.modify(id, span(pattern(3))); });
  expectError(Reason::chain_damaged, [&] { table.modify(id, span(pattern(30))); });
  expectError(Reason::chain_damaged, [&] { table.write(id, 0, span(pattern(3))); });
  expectError(Reason::chain_damaged, [&] { table.remove(id); });
  expectError(Reason::chain_damaged, [&] { table.touch(*table.find(id)); });
  EXPECT_TRUE(sameBytes(contents(), image.build()));
}

TEST_F(DamagedChain, WhoseLastRecordHasASuccessorTakesNoMore) {
  image.record(at[4]).nextRecordPos = at[1];
  auto database = openImage(image);
  auto table = database.table("notes");
  try {
    table.add(span(bytesOf("x")));
    FAIL();
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(error.reason(), Reason::chain_damaged);
    EXPECT_EQ(error.record_number(), 5u);
  }
}

TEST_F(DamagedChain, WhoseEndsContradictTheCountTakesNoMore) {
  image.slot(0).lastRecordPos = 0;
  auto database = openImage(image);
  auto table = database.table("notes");
  expectError(Reason::chain_damaged, [&] { table.add(span(bytesOf("x"))); });
}

TEST_F(DamagedChain, DoesNotMakeALengthFromTheFileAnAllocation) {
  image.record(at[1]).dataLength = 0xFFFFFFF0;
  auto database = openImage(image);
  const auto record = database.table("notes").find(qvdb::Id{0xA1});
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->size(), 0xFFFFFFF0u);
  expectError(Reason::data_damaged, [&] { static_cast<void>(record->payload()); });
  std::vector<std::byte> piece(10);
  expectError(Reason::data_damaged, [&] { record->read(0, piece); });
  const auto table = database.table("notes");
  expectError(Reason::data_damaged, [&] { static_cast<void>(table.get(qvdb::Id{0xA1})); });
  expectError(Reason::data_damaged, [&] { static_cast<void>(table.get(qvdb::Id{0xA1}, piece)); });
}

TEST_F(DamagedChain, OverwrittenByTheSameProgramDoesNoHarmToAWalkOrARecord) {
  auto database = openImage(image);
  auto records = database.table("notes").records();
  auto walk = records.begin();
  const qvdb::Record first = *walk;
  patchFile(path(), 4630, Bytes().fill(image.build().size() - 4630, 0xFF));
  expectError(Reason::record_missing, [&] { static_cast<void>(first.payload()); });
  try {
    while (walk != records.end()) ++walk;
  } catch (const qvdb::Error& error) {
    EXPECT_EQ(error.reason(), Reason::chain_damaged);
  }
}

TEST_F(DamagedChain, CutShortByAnotherProgramMakesReadsFail) {
  auto database = openImage(image);
  const auto record = database.table("notes").find(qvdb::Id{0xA4});
  std::filesystem::resize_file(path(), static_cast<std::uintmax_t>(at[4]) + 60);
  expectError(Reason::data_damaged, [&] { static_cast<void>(record->payload()); });
  std::filesystem::resize_file(path(), static_cast<std::uintmax_t>(at[4]) + 10);
  expectError(Reason::record_missing, [&] { static_cast<void>(record->payload()); });
}

// At whichever read it is: the process would end if the walk kept what unwinds its thread.
TEST_F(LayerRecords, LetTheCancellationOfTheirThreadPass) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  for (int i = 0; i < 6; ++i) table.add(span(Bytes(100'000, 'x')));
  const std::function<void()> walk = [&] {
    for (const qvdb::Record& record : table.records(qvdb::Load::payloads)) record.payload();
  };
  const auto start = [](void* run) -> void* {
    (*static_cast<const std::function<void()>*>(run))();
    return nullptr;
  };
  void* result = PTHREAD_CANCELED;
  int step = 0;
  for (; result == PTHREAD_CANCELED; ++step) {
    RecordedCalls host;
    host.observe([&](Call call) {
      if (call == Call::read && host.count(Call::read) == step) pthread_exit(PTHREAD_CANCELED);
    });
    pthread_t thread;
    void* argument = const_cast<void*>(static_cast<const void*>(&walk));
    ASSERT_EQ(pthread_create(&thread, nullptr, start, argument), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
  }
  EXPECT_GT(step, 6);
}

}  // namespace
}  // namespace qvdbase::test
