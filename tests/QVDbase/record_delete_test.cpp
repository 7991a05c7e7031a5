// Taking records out of their table: the neighbours' links, the ends of the chain, the slot.
#include "QVDbase/record_delete.h"
#include "kit/layers.h"

#include <qvdbase/qvdbase.h>

#include "kit/record_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

class RecordDelete : public RecordTest {
 protected:
  static int erase(int16_t db, uint64_t record, uint64_t table = kNotes) {
    return DeleteOneRecord(db, table, record, nullptr);
  }

  // Deleting fails, restores the position and changes nothing.
  void expectRefused(uint64_t record) {
    const int16_t db = start();
    expectPositionKept(db, [&] { EXPECT_EQ(erase(db, record), 0); });
    expectFile();
    close(db);
  }
};

// ---- first, middle, last, only ------------------------------------------------------------------

TEST_F(RecordDelete, EmptiesTheTableOfItsOnlyRecord) {
  image.addRecord(notes, kA, bytesOf("only"));
  const int16_t db = start();
  ASSERT_EQ(erase(db, kA), 1);
  SlotFields& owner = image.slot(notes);
  owner.recordCount = 0;
  owner.firstRecordPos = owner.lastWrittenRecordPos = owner.lastRecordPos = 0;
  expectFile();
}

TEST_F(RecordDelete, WritesTheEmptiedSlotByteForByte) {
  image.addRecord(notes, kA, bytesOf("only"));
  const int16_t db = start();
  ASSERT_EQ(erase(db, kA), 1);
  // recordCount 0, recordWriteCount still 1, a gap, three positions.
  EXPECT_EQ(contents().at(22 + 60, 36), hex("00000000 01000000 CCCCCCCC 0000000000000000"
                                            "0000000000000000 0000000000000000"));
}

TEST_F(RecordDelete, LetsANewChainBeginInAnEmptiedTable) {
  image.addRecord(notes, kA, bytesOf("only"));
  const int16_t db = start();
  ASSERT_EQ(erase(db, kA), 1);
  const auto position = static_cast<int64_t>(fileSize());
  assignRecord(db, kNotes, kB, bytesOf("new"));
  const SlotFields owner = slot(notes);
  EXPECT_EQ(owner.recordCount, 1u);
  EXPECT_EQ(owner.recordWriteCount, 2u);
  EXPECT_EQ(owner.firstRecordPos, position);
  EXPECT_EQ(owner.lastWrittenRecordPos, position);
  EXPECT_EQ(owner.lastRecordPos, position);
  EXPECT_EQ(record(position).prevRecordPos, 0);
}

TEST_F(RecordDelete, MakesTheSecondRecordTheFirst) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kA), 1);
  image.record(b).prevRecordPos = 0;
  image.slot(notes).firstRecordPos = image.slot(notes).lastWrittenRecordPos = b;
  image.slot(notes).recordCount = 2;
  expectFile();
}

TEST_F(RecordDelete, LinksTheNeighboursOfAMiddleRecord) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kB), 1);
  image.record(a).nextRecordPos = c;
  image.record(c).prevRecordPos = a;
  image.slot(notes).lastWrittenRecordPos = c;
  image.slot(notes).recordCount = 2;
  expectFile();
}

TEST_F(RecordDelete, SetsTheLastWrittenRecordToTheSuccessorOfAMiddleOne) {
  threeRecords();
  image.slot(notes).lastWrittenRecordPos = a;
  const int16_t db = start();
  ASSERT_EQ(erase(db, kB), 1);
  EXPECT_EQ(slot(notes).lastWrittenRecordPos, c);
}

TEST_F(RecordDelete, MakesTheLastButOneTheLast) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kC), 1);
  image.record(b).nextRecordPos = 0;
  image.slot(notes).lastRecordPos = image.slot(notes).lastWrittenRecordPos = b;
  image.slot(notes).recordCount = 2;
  expectFile();
}

TEST_F(RecordDelete, LeavesTheDeletedBlockAsItWas) {
  threeRecords();
  for (const uint64_t record : {kA, kB, kC}) {
    const int16_t db = start();
    const oneRecordInfoP1 reported = info(db, kNotes, record);
    ASSERT_EQ(erase(db, record), 1);
    const auto at = static_cast<size_t>(reported.recordPos);
    EXPECT_EQ(contents().at(at, 56 + reported.dataCapacity),
              base.at(at, 56 + reported.dataCapacity));
    EXPECT_EQ(fileSize(), base.size());
    close(db);
  }
}

TEST_F(RecordDelete, CountsDownButNotTheRecordsEverWritten) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kB), 1);
  EXPECT_EQ(slot(notes).recordCount, 2u);
  EXPECT_EQ(slot(notes).recordWriteCount, 3u);
  EXPECT_EQ(numberOfRecords(db, kNotes), 2u);
}

TEST_F(RecordDelete, RemovesRecordsInAnyOrder) {
  const std::vector<std::vector<uint64_t>> orders = {{kA, kB, kC}, {kA, kC, kB}, {kB, kA, kC},
                                                     {kB, kC, kA}, {kC, kA, kB}, {kC, kB, kA}};
  threeRecords();
  for (const auto& order : orders) {
    const int16_t db = start();
    uint32_t left = 3;
    for (const uint64_t record : order) {
      ASSERT_EQ(erase(db, record), 1);
      EXPECT_EQ(list(db, kNotes).size(), --left);
    }
    EXPECT_EQ(slot(notes).lastWrittenRecordPos, 0);
    close(db);
  }
}

TEST_F(RecordDelete, KeepsTheRestOfTheSlot) {
  threeRecords();
  image.slot(notes).tableFlags1 = 0x1234;
  image.setTableData(notes, bytesOf("about the notes"));
  const int16_t db = start();
  ASSERT_EQ(erase(db, kC), 1);
  image.record(b).nextRecordPos = 0;
  image.slot(notes).lastRecordPos = image.slot(notes).lastWrittenRecordPos = b;
  image.slot(notes).recordCount = 2;
  expectFile();
}

TEST_F(RecordDelete, TakesTheEarlierOfTwoRecordsWithOneIdentifier) {
  image.addRecord(notes, kA, bytesOf("one"));
  image.addRecord(notes, kA, bytesOf("two"));
  const int16_t db = start();
  ASSERT_EQ(erase(db, kA), 1);
  EXPECT_EQ(payload(db, kNotes, kA), bytesOf("two"));
}

TEST_F(RecordDelete, FreesTheIdentifierForANewRecord) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kB), 1);
  assignRecord(db, kNotes, kB, bytesOf("again"));
  EXPECT_EQ(list(db, kNotes), (std::vector<uint64_t>{kA, kC, kB}));
  EXPECT_EQ(payload(db, kNotes, kB), bytesOf("again"));
}

TEST_F(RecordDelete, RestoresThePosition) {
  threeRecords();
  const int16_t db = start();
  uint64_t next[] = {kB, kA, kC};
  int i = 0;
  expectPositionKept(db, [&] { EXPECT_EQ(erase(db, next[i++]), 1); });
}

// ---- what is not there --------------------------------------------------------------------------

TEST_F(RecordDelete, FailsForARecordThatWasDeletedBefore) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kB), 1);
  expectUnchanged([&] { EXPECT_EQ(erase(db, kB), 0); });
}

TEST_F(RecordDelete, FailsForARecordOrATableThatIsNotThere) {
  threeRecords();
  const int16_t db = start();
  expectPositionKept(db, [&] {
    EXPECT_EQ(erase(db, kNoRecord), 0);
    EXPECT_EQ(erase(db, kA, kNoTable), 0);
    EXPECT_EQ(erase(db, kA, kOther), 0);
  });
  EXPECT_EQ(erase(0, kA), 0);
  EXPECT_EQ(erase(31000, kA), 0);
  expectFile();
}

TEST_F(RecordDelete, FailsInATableWithoutRecords) {
  expectRefused(kA);
}

TEST_F(RecordDelete, FailsOnAVersionOutsideTheRange) {
  threeRecords();
  image.header().version = 99;
  expectDamage(kDefaultFile, {"H2"});
  expectRefused(kA);
}

TEST_F(RecordDelete, FailsOnAHandleOpenedForReading) {
  threeRecords();
  const int16_t db = start(1);
  for (const uint64_t record : {kA, kB, kC}) {
    expectPositionKept(db, [&] { EXPECT_EQ(erase(db, record), 0); });
  }
  expectFile();
}

TEST_F(RecordDelete, LeavesTheUnusedArgumentAlone) {
  threeRecords();
  const int16_t db = start();
  int unused = 5;
  EXPECT_EQ(DeleteOneRecord(db, kNotes, kA, &unused), 1);
  EXPECT_EQ(unused, 5);
}

TEST_F(RecordDelete, EndsInALoopUnderTheLargestCount) {
  threeRecords();
  image.record(c).nextRecordPos = a;
  image.slot(notes).recordCount = 0xFFFFFFFF;
  expectDamage();
  expectRefused(kNoRecord);
}

// ---- links that contradict the slot -------------------------------------------------------------

TEST_F(RecordDelete, RefusesTheOnlyRecordOfAChainThatShouldHoldTwo) {
  image.addRecord(notes, kA, bytesOf("only"));
  image.slot(notes).recordCount = 2;
  expectDamage();
  expectRefused(kA);
}

TEST_F(RecordDelete, RefusesASoleRecordUnlessItsTableCountsOne) {
  // The lookup notices first that the chain is short; so this is asked of the unlinking itself.
  const int64_t only = image.addRecord(notes, kA, bytesOf("only"));
  const int16_t db = start();
  FoundRecord found;
  ASSERT_TRUE(findRecord(db, kNotes, kA, &found));
  ASSERT_EQ(found.recordPos, only);
  for (const uint32_t recordCount : {0u, 2u, 0xFFFFFFFFu}) {
    found.table.slot.recordCount = recordCount;
    EXPECT_FALSE(unlinkRecord(db, &found));
  }
  expectFile();
}

TEST_F(RecordDelete, RefusesAFirstRecordWithAPredecessor) {
  threeRecords();
  image.record(a).prevRecordPos = c;
  expectDamage();
  expectRefused(kA);
}

TEST_F(RecordDelete, RefusesALaterRecordWithoutPredecessor) {
  threeRecords();
  image.record(b).prevRecordPos = 0;
  image.record(c).prevRecordPos = 0;
  expectDamage();
  expectRefused(kB);
  expectRefused(kC);
}

TEST_F(RecordDelete, RefusesALastRecordWithASuccessor) {
  threeRecords();
  image.slot(notes).lastRecordPos = b;
  expectDamage();
  expectRefused(kB);
}

TEST_F(RecordDelete, RefusesAMiddleRecordWithoutSuccessor) {
  threeRecords();
  image.slot(notes).lastRecordPos = b;  // so that C is neither the first nor the last
  expectDamage();
  expectRefused(kC);
}

TEST_F(RecordDelete, TakesARecordForTheFirstOrTheLastAsTheSlotSays) {
  // Both ends at A: the slot makes it the first before it could be the last.
  threeRecords();
  image.slot(notes).lastRecordPos = a;
  expectDamage();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kA), 1);
  image.record(b).prevRecordPos = 0;
  image.slot(notes).firstRecordPos = image.slot(notes).lastWrittenRecordPos = b;
  image.slot(notes).recordCount = 2;
  expectFile();
}

// ---- damaged neighbours -------------------------------------------------------------------------

TEST_F(RecordDelete, RefusesWhenTheSuccessorIsNotSound) {
  threeRecords();
  expectDamage();
  const RecordFields soundB = image.record(b);
  const RecordFields soundC = image.record(c);
  const auto expectBothRefused = [&](const char* damage, const auto& spoil) {
    SCOPED_TRACE(damage);
    spoil(image.record(b));
    expectRefused(kA);
    image.record(b) = soundB;
    spoil(image.record(c));
    expectRefused(kB);
    image.record(c) = soundC;
  };
  expectBothRefused("mark", [](RecordFields& record) { record.blockMark = 150; });
  expectBothRefused("header size", [](RecordFields& record) { record.headerSize = 32; });
  expectBothRefused("another table's",
                    [](RecordFields& record) { record.tableID = identifier(kOther); });
}

TEST_F(RecordDelete, RefusesWhenASuccessorLiesWhereNoBlockCan) {
  threeRecords();
  expectDamage();
  for (const int64_t hostile : kHostilePositions) {
    SCOPED_TRACE(hostile);
    image.record(a).nextRecordPos = hostile;
    expectRefused(kA);
    image.record(a).nextRecordPos = b;
    image.record(b).nextRecordPos = hostile;
    expectRefused(kB);
    image.record(b).nextRecordPos = c;
  }
}

TEST_F(RecordDelete, RefusesWhenAPredecessorIsNotSound) {
  threeRecords();
  RecordFields dead = image.record(a);
  dead.blockMark = 134;
  const int64_t wrongMark = image.addDeadRecord(dead);
  dead.blockMark = 135;
  dead.tableID = identifier(kOther);
  const int64_t ofAnotherTable = image.addDeadRecord(dead);
  std::vector<int64_t> positions = {wrongMark, ofAnotherTable};
  positions.insert(positions.end(), std::begin(kHostilePositions), std::end(kHostilePositions));
  expectDamage();
  for (const int64_t position : positions) {
    SCOPED_TRACE(position);
    image.record(b).prevRecordPos = position;
    expectRefused(kB);
    image.record(b).prevRecordPos = a;
    image.record(c).prevRecordPos = position;
    expectRefused(kC);
    image.record(c).prevRecordPos = b;
  }
}

TEST_F(RecordDelete, DoesNotAskWhetherTheNeighboursPointBack) {
  threeRecords();
  image.record(c).prevRecordPos = a;  // not B
  allowDamage();
  int16_t db = start();
  ASSERT_EQ(erase(db, kB), 1);
  EXPECT_EQ(record(a).nextRecordPos, c);
  EXPECT_EQ(record(c).prevRecordPos, a);
  close(db);

  image.record(b).prevRecordPos = c;  // B's link back leads to C
  db = start();
  ASSERT_EQ(erase(db, kB), 1);
  EXPECT_EQ(record(a).nextRecordPos, b);
  EXPECT_EQ(record(c).nextRecordPos, c);
  EXPECT_EQ(record(c).prevRecordPos, c);
  EXPECT_EQ(slot(notes).recordCount, 2u);
}

// ---- order and failures -------------------------------------------------------------------------

TEST_F(RecordDelete, WritesTheLinksThenTheSlot) {
  threeRecords();
  const FileImage before = image;
  const auto slotPos = static_cast<int64_t>(slotOffset(notes));
  const auto linkTo = [](int64_t position) {
    return Bytes().be(8, static_cast<uint64_t>(position));
  };
  const auto logOf = [&](uint64_t record) {
    image = before;
    return ranges(writesOf([record](int16_t db) { return erase(db, record); }));
  };
  const auto slotAfter = [&](int64_t first, int64_t last, int64_t lastWritten) {
    SlotFields owner = FileImage(before).slot(notes);
    owner.firstRecordPos = first;
    owner.lastRecordPos = last;
    owner.lastWrittenRecordPos = lastWritten;
    owner.recordCount = 2;
    return owner.encode();
  };
  EXPECT_EQ(logOf(kA), (std::vector<Write>{{b + 31, linkTo(0), kDefaultFile},
                                           {slotPos, slotAfter(b, c, b), kDefaultFile}}));
  EXPECT_EQ(logOf(kB), (std::vector<Write>{{a + 39, linkTo(c), kDefaultFile},
                                           {c + 31, linkTo(a), kDefaultFile},
                                           {slotPos, slotAfter(a, c, c), kDefaultFile}}));
  EXPECT_EQ(logOf(kC), (std::vector<Write>{{b + 39, linkTo(0), kDefaultFile},
                                           {slotPos, slotAfter(a, b, b), kDefaultFile}}));
}

// The predecessor's link and the successor's are 40 bytes apart: the end of one block and the
// beginning of another are between them.
TEST_F(RecordDelete, WritesNothingBetweenTheLinksOfBlocksThatAreNextToEachOther) {
  a = image.addRecord(notes, kA, {});
  c = image.addRecord(notes, kC, {});
  b = image.addRecord(notes, kB, {});
  ASSERT_EQ(c, a + 56);
  // B is between them in the chain.
  image.record(a).nextRecordPos = b;
  image.record(b).prevRecordPos = a;
  image.record(b).nextRecordPos = c;
  image.record(c).prevRecordPos = b;
  image.record(c).nextRecordPos = 0;
  image.slot(notes).lastRecordPos = c;
  for (const int permission : {3, 4}) {
    const int16_t db = start(permission);
    host.forget();
    ASSERT_EQ(erase(db, kB), 1);
    const std::vector<Write> log = ranges(host.writes());
    close(db);
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0], (Write{a + 39, Bytes().be(8, uint64_t(c)), kDefaultFile}));
    EXPECT_EQ(log[1], (Write{c + 31, Bytes().be(8, uint64_t(a)), kDefaultFile}));
    EXPECT_EQ(log[2].position, int64_t(slotOffset(notes)));
  }
}

TEST_F(RecordDelete, StopsTakingOutTheFirstRecordAtTheFirstFailure) {
  threeRecords();
  expectStopsAtEachFailure([](int16_t db) { return erase(db, kA); });
}

TEST_F(RecordDelete, StopsTakingOutAMiddleRecordAtTheFirstFailure) {
  threeRecords();
  expectStopsAtEachFailure([](int16_t db) { return erase(db, kB); });
}

TEST_F(RecordDelete, StopsTakingOutTheLastRecordAtTheFirstFailure) {
  threeRecords();
  expectStopsAtEachFailure([](int16_t db) { return erase(db, kC); });
}

TEST_F(RecordDelete, StopsTakingOutTheOnlyRecordAtTheFirstFailure) {
  image.addRecord(notes, kA, bytesOf("only"));
  expectStopsAtEachFailure([](int16_t db) { return erase(db, kA); });
}

TEST_F(RecordDelete, ReadsNoClock) {
  threeRecords();
  const int16_t db = start();
  ASSERT_EQ(erase(db, kB), 1);
  EXPECT_EQ(host.count(Call::time), 0);
}

TEST_F(RecordDelete, WritesEachLinkAndTheSlotOnItsOwn) {
  if (platform::gathersTransfers()) GTEST_SKIP();
  threeRecords();
  EXPECT_EQ(expectStopsAtEachWrite([](int16_t db) { return erase(db, kB); }), 3);
}

}  // namespace
}  // namespace qvdbase::test
