// Plain files are taken without a survey. Whatever is in a file: where it is taken as plain, survey
// and verdict find nothing wrong, and the same live blocks.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kit/file_image.h"
#include "kit/recorded_calls.h"
#include "recovery/check/random_database.h"
#include "recovery/salvage/salvage_kit.h"
#include "upkeep/plain_file.h"
#include "upkeep/verdict.h"

namespace qvdbase::test {
namespace {

using upkeep::LiveBlock;
using upkeep::LiveDatabase;

std::vector<int64_t> fieldsOf(const LiveBlock& block) {
  return {block.position, block.length,  block.capacity, static_cast<int64_t>(block.kind),
          block.isCut,    block.isFirst, block.isLast};
}

std::vector<std::vector<int64_t>> blocksOf(const LiveDatabase& database) {
  std::vector<std::vector<int64_t>> blocks;
  for (const upkeep::LiveTable& table : database.tables) {
    blocks.push_back({table.slot.recordCount, static_cast<int64_t>(table.records.size())});
    blocks.emplace_back(table.name.begin(), table.name.end());
    if (table.data) blocks.push_back(fieldsOf(*table.data));
    for (const LiveBlock& each : table.records) blocks.push_back(fieldsOf(each));
  }
  return blocks;
}

// Returns whether the file is plain.
bool isPlain(const Bytes& bytes) {
  const survey::MemorySource source(asBytes(bytes));
  const std::optional<LiveDatabase> plain = upkeep::takePlain(source);
  if (!plain) return false;
  const survey::Survey survey = survey::makeSurvey(source);
  LiveDatabase live;
  const auto damage = upkeep::takeLive(
      source, survey, [] {}, &live);
  EXPECT_FALSE(damage.has_value()) << damage->why;
  EXPECT_EQ(plain->header, live.header);
  EXPECT_EQ(plain->slotCount, live.slotCount);
  EXPECT_EQ(blocksOf(*plain), blocksOf(live));
  const upkeep::Verdict verdict = upkeep::judgeCopy(source, survey);
  EXPECT_TRUE(verdict.isClean()) << verdict.why();
  EXPECT_EQ(verdict.tornBlocks, 0u);
  return true;
}

Bytes randomFile(uint64_t seed, int operations) {
  TempFolder folder{TempFolder::inMemory()};
  RandomDatabase database(folder, "random.qvd", seed);
  database.run(operations);
  database.close();
  return readFile(database.path());
}

// Makes damage of the kinds that hide best: fields that are as they could be, bytes from elsewhere.
class Damage {
 public:
  Damage(const Bytes& sound, uint64_t seed) : sound_(sound), random_(seed) {
    for (const survey::Block& each : surveyOf(sound).blocks) {
      if (each.kind == survey::BlockKind::record) blocks_.push_back(each.position);
    }
  }

  Bytes damaged() {
    Bytes bytes = sound_;
    for (size_t i = 1 + below(2); i > 0; --i) damageOnce(&bytes);
    return bytes;
  }

 private:
  size_t below(size_t limit) { return static_cast<size_t>(random_() % limit); }
  int64_t anyBlock() { return blocks_.empty() ? 4630 : blocks_[below(blocks_.size())]; }

  void damageOnce(Bytes* bytes) {
    const auto at = static_cast<size_t>(anyBlock());
    const size_t choice = below(10);
    if (choice == 0) return flip(bytes, below(bytes->size()));
    if (choice == 1) return flip(bytes, 60 + below(2 * kSlotBytes));
    if (choice == 2) return bytes->resize(bytes->size() - below(60));
    if (choice == 3) return bytes->resize(bytes->size() + below(60));
    if (at + 60 > bytes->size()) return;
    if (choice == 4) return flip(bytes, at + below(55));
    if (choice < 8) {  // a link
      const auto link = static_cast<uint64_t>(below(4) == 0 ? 0 : anyBlock());
      return bytes->putBe(at + 31 + 8 * below(2), 8, link);
    }
    const auto other = static_cast<size_t>(anyBlock());
    if (other + 60 > bytes->size()) return;
    if (choice == 8) return copy(bytes, other, at, 13, 10);  // the record's identifier
    copy(bytes, other, at, 0, 47);                           // all but the lengths
  }

  static void flip(Bytes* bytes, size_t at) {
    if (at < bytes->size()) bytes->at(at) ^= static_cast<uint8_t>(1u << (at % 8));
  }
  static void copy(Bytes* bytes, size_t from, size_t to, size_t offset, size_t count) {
    *bytes = bytes->with(to + offset, bytes->at(from + offset, count));
  }

  const Bytes& sound_;
  std::mt19937_64 random_;
  std::vector<int64_t> blocks_;
};

TEST(PlainFiles, AreAllThatTheLibraryMakes) {
  for (uint64_t seed = firstSeed(); seed < firstSeed() + seeds(60, 1000); ++seed) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed));
    EXPECT_TRUE(isPlain(randomFile(seed, 60)));
  }
}

TEST(PlainFiles, AreNotThoseThatASurveyObjectsTo) {
  const uint64_t tries = seeds(150, 1000);
  uint64_t plain = 0;
  for (uint64_t seed = firstSeed(); seed < firstSeed() + seeds(40, 1000); ++seed) {
    const Bytes sound = randomFile(seed, 40);
    Damage damage(sound, seed);
    for (uint64_t i = 0; i < tries && !testing::Test::HasFailure(); ++i) {
      SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed) + ", damage " + std::to_string(i));
      plain += isPlain(damage.damaged()) ? 1u : 0u;
    }
  }
  EXPECT_GT(plain, 0u);  // damage in payloads, and in links of dead blocks
}

// Every prefix of the writes of a process that is killed, also with some of the last ones missing.
TEST(PlainFiles, AreNotThoseThatACrashLeavesInDoubt) {
  std::mt19937_64 random(firstSeed());
  size_t plain = 0;
  size_t others = 0;
  for (uint64_t seed = firstSeed(); seed < firstSeed() + seeds(4, 100); ++seed) {
    SCOPED_TRACE("QVDBASE_TEST_SEED=" + std::to_string(seed));
    TempFolder folder{TempFolder::inMemory()};
    RecordedCalls host;
    {
      RandomDatabase database(folder, "random.qvd", seed);
      database.run(40);
    }
    const std::vector<Write> writes = ranges(host.writes());
    Bytes bytes;
    for (size_t n = 0; n + 4 < writes.size() && !testing::Test::HasFailure(); ++n) {
      bytes = applied(std::move(bytes), {writes[n]});
      Bytes state = bytes;
      for (size_t after = n + 1; after < n + 5; ++after) {
        if (random() % 2 == 0) state = applied(std::move(state), {writes[after]});
      }
      (isPlain(bytes) ? plain : others)++;
      (isPlain(state) ? plain : others)++;
      const auto part = static_cast<size_t>(random() % 100);
      (isPlain(applied(bytes, {writes[n + 1]}, part)) ? plain : others)++;
    }
  }
  EXPECT_GT(plain, 0u);
  EXPECT_GT(others, 0u);
}

// A deleted record in whose payload those bytes are, between others that stay.
Bytes withDeadPayload(const Bytes& payload) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, pattern(30));
  const int64_t dead = image.addRecord(table, 0xA2, payload);
  const int64_t last = image.addRecord(table, 0xA3, pattern(30));
  EXPECT_GT(dead, first);
  image.record(first).nextRecordPos = last;
  image.record(last).prevRecordPos = first;
  image.slot(table).recordCount = 2;
  return image.build();
}

RecordFields recordOf(uint64_t table) {
  RecordFields record;
  record.tableID = identifier(table);
  record.recordID = identifier(0xB1);
  record.createTime = record.modifyTime = 1000;
  record.room = bytesOf("stored");
  record.dataLength = record.dataCapacity = 6;
  return record;
}

TEST(PlainFiles, HaveNoBlocksInsideOfDeadOnes) {
  for (const size_t before : {0u, 1u, 100u, 3900u, 4030u, 5000u, 300'000u}) {
    SCOPED_TRACE(before);
    const Bytes filler = pattern(before);
    EXPECT_TRUE(isPlain(withDeadPayload(filler)));
    for (const uint64_t table : {0x11u, 0x22u}) {
      const Bytes stored = Bytes(filler).add(recordOf(table).encode());
      EXPECT_FALSE(isPlain(withDeadPayload(stored)));
      EXPECT_FALSE(isPlain(withDeadPayload(Bytes(stored).add(filler))));
    }
    // The marks of a block, and no identifiers.
    EXPECT_TRUE(isPlain(withDeadPayload(Bytes(filler).add(hex("87 0040 96 0020")).add(filler))));
    FileImage database;
    database.addTable("t", 0x33);
    EXPECT_FALSE(isPlain(withDeadPayload(Bytes(filler).add(database.build()))));
  }
}

TEST(PlainFiles, MayHaveBlocksInsideOfLiveOnes) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  for (const size_t before : {0u, 100u, 5000u}) {
    image.addRecord(table, 0xA1 + before, Bytes(before).add(recordOf(0x11).encode()));
    image.addRecord(table, 0x50A1 + before, Bytes(before).add(FileImage().build()));
  }
  EXPECT_TRUE(isPlain(image.build()));
}

TEST(PlainFiles, HaveTheirTableDataWhereTheirSlotsSay) {
  FileImage image;
  const size_t notes = image.addTable("notes", 0x11);
  const size_t other = image.addTable("other", 0x22);
  const int64_t first = image.addRecord(notes, 0xA1, pattern(30));
  image.setTableData(notes, bytesOf("of notes"));
  const int64_t theirs = image.setTableData(other, bytesOf("of other"));
  EXPECT_TRUE(isPlain(image.build()));
  for (const int64_t wrong : {first, theirs, first + 1, image.end(), int64_t{1}, INT64_MAX}) {
    SCOPED_TRACE(wrong);
    FileImage damaged = image;
    SlotFields& slot = damaged.slot(notes);
    slot.firstDataPos = slot.lastDataPos = slot.lastWrittenDataPos = wrong;
    EXPECT_FALSE(isPlain(damaged.build()));
  }
}

// Those that are not read from end to end, too.
TEST(PlainFiles, HaveTheEndMarkOfEveryBlock) {
  for (const size_t size : {30u, 4030u, 4040u, 5000u, 300'000u}) {
    SCOPED_TRACE(size);
    FileImage image;
    const size_t table = image.addTable("notes", 0x11);
    const int64_t record = image.addRecord(table, 0xA1, pattern(size));
    image.addRecord(table, 0xA2, pattern(30));
    EXPECT_TRUE(isPlain(image.build()));
    image.record(record).blockEndMark = 'j';
    EXPECT_FALSE(isPlain(image.build()));
  }
}

// Where the slot counts fewer than there are, the last one may never have been in the chain.
TEST(PlainFiles, CountTheRecordsThatWereEverWritten) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 0xA1, pattern(30));
  RecordFields last = recordOf(0x11);
  last.prevRecordPos = first;
  image.addDeadRecord(last);
  image.slot(table).recordWriteCount = 2;
  EXPECT_TRUE(isPlain(image.build()));
  image.slot(table).recordWriteCount = 1;
  EXPECT_FALSE(isPlain(image.build()));
}

}  // namespace
}  // namespace qvdbase::test
