// Blocks are found wherever the damage is: every block that it did not touch, and none that never
// was. Bytes of noise at many places, no header, no directory, the file cut off at any byte.
#include <qvdbase/qvdbase.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "kit/file_image.h"
#include "kit/sanitized.h"
#include "recovery/check/random_database.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

using survey::Block;
using survey::Survey;

// A database in which everything has happened, and what the survey says of it undamaged.
struct Original {
  explicit Original(uint64_t seed) {
    TempFolder folder;
    RandomDatabase database(folder, "random.qvd", seed);
    database.run(600);
    database.close();
    bytes = readFile(database.path());
    survey = surveyOf(bytes);
    for (const Block& block : survey.blocks) byPosition[block.position] = &block;
  }

  Bytes bytes;
  Survey survey;
  std::map<int64_t, const Block*> byPosition;
};

const Original& original() {
  static const Original instance(firstSeed());
  return instance;
}

// Expects the survey of bytes in which `touched` was damaged to have found every other block, and
// nothing where none was; and a salvage to take every record that was in use.
void expectRecall(const Original& before, const Survey& survey, const survey::Range& touched,
                  const std::string& where) {
  const salvage::Plan plan = salvage::makePlan(survey, {});
  std::set<int64_t> found;
  std::set<int64_t> taken;
  for (size_t i = 0; i < survey.blocks.size(); ++i) {
    const int64_t position = survey.blocks[i].position;
    found.insert(position);
    if (plan.destination[i] >= 0) taken.insert(position);
    EXPECT_TRUE(before.byPosition.contains(position)) << where << ": invented " << position;
  }
  for (const auto& [position, block] : before.byPosition) {
    const bool isTouched = position < touched.end && block->end > touched.begin;
    if (isTouched) continue;
    EXPECT_TRUE(found.contains(position)) << where << ": missed " << position;
    if (block->label == survey::Label::live) {
      EXPECT_TRUE(taken.contains(position)) << where << ": left out " << position;
    }
  }
}

TEST(SalvageOfNoise, FindsEveryBlockThatTheNoiseDidNotTouch) {
  const Original& before = original();
  std::mt19937 random(static_cast<unsigned>(firstSeed()));
  const uint64_t places = seeds(60, 10'000);
  constexpr size_t kNoise = 512;
  for (uint64_t i = 0; i < places && !testing::Test::HasFailure(); ++i) {
    const size_t at = random() % (before.bytes.size() - kNoise);
    Bytes bytes = before.bytes;
    for (size_t n = 0; n < kNoise; ++n) bytes[at + n] = static_cast<uint8_t>(random());
    expectRecall(
        before, surveyOf(bytes), {static_cast<int64_t>(at), static_cast<int64_t>(at + kNoise)},
        "QVDBASE_TEST_SEED=" + std::to_string(firstSeed()) + ", noise at " + std::to_string(at));
  }
  reportCount("places of noise", places);
}

TEST(SalvageOfNoise, FindsEveryBlockWithoutHeaderAndDirectory) {
  const Original& before = original();
  Bytes bytes = before.bytes;
  std::fill(bytes.begin(), bytes.begin() + 4630, uint8_t{0});
  expectRecall(before, surveyOf(bytes), {0, 4630}, "no directory");
}

TEST(SalvageOfNoise, FindsEveryWholeBlockOfAFileThatWasCutOff) {
  const Original& before = original();
  const uint64_t step = seeds(37, 1) == 1 ? 1 : 37;
  for (size_t cut = 1; cut <= 2000 && !testing::Test::HasFailure(); cut += step) {
    const size_t size = before.bytes.size() - cut;
    expectRecall(before, surveyOf(before.bytes.cut(size)),
                 {static_cast<int64_t>(size), static_cast<int64_t>(before.bytes.size())},
                 "cut at " + std::to_string(size));
  }
}

// The order of records survives a lost directory, deletions and moves included.
TEST(SalvageOfNoise, KeepsTheOrderOfRecordsWithoutADirectory) {
  const Original& before = original();
  Bytes bytes = before.bytes;
  std::fill(bytes.begin(), bytes.begin() + 4630, uint8_t{0});
  const Salvaged saved = salvaged(bytes);
  const ReadDatabase was = readDatabase(before.bytes);
  for (const ReadTable& table : was.tables) {
    if (table.records.size() < 2) continue;
    const auto is = std::find_if(saved.database.tables.begin(), saved.database.tables.end(),
                                 [&](const ReadTable& each) { return each.id == table.id; });
    ASSERT_NE(is, saved.database.tables.end());
    EXPECT_EQ(contentsOf(*is), contentsOf(table));
  }
}

// ---- a device that cannot read some of its bytes

// A source of which one range cannot be read.
class UnreadableSource : public survey::MemorySource {
 public:
  UnreadableSource(const Bytes& bytes, survey::Range bad)
      : survey::MemorySource(asBytes(bytes)), bad_(bad) {}
  size_t readAt(int64_t position, void* buffer, size_t count) const override {
    ++reads;
    if (position >= bad_.begin && position < bad_.end) return 0;
    if (position < bad_.begin) {
      count = std::min(count, static_cast<size_t>(bad_.begin - position));
    }
    return survey::MemorySource::readAt(position, buffer, count);
  }
  mutable int64_t reads = 0;

 private:
  survey::Range bad_;
};

TEST(SalvageOfUnreadableFiles, FindsEveryBlockThatCanBeRead) {
  const Original& before = original();
  Bytes blind = before.bytes;
  std::fill(blind.begin(), blind.begin() + 4630, uint8_t{0});
  const auto size = static_cast<int64_t>(blind.size());
  for (int64_t begin = 8192; begin < size; begin += size / 20) {
    // Pages of a device, and other parts, as an image has them that begins anywhere on it.
    for (const survey::Range bad : {survey::Range{begin / 4096 * 4096, begin / 4096 * 4096 + 4096},
                                    survey::Range{begin, begin + 9000},
                                    survey::Range{begin, begin + 1}, survey::Range{begin, size}}) {
      const survey::Range inside = {bad.begin, std::min(bad.end, size)};
      const UnreadableSource source(blind, inside);
      const Survey survey = survey::makeSurvey(source);
      const std::string where = "unreadable from " + std::to_string(inside.begin) + " to " +
                                std::to_string(inside.end) +
                                ", QVDBASE_TEST_SEED=" + std::to_string(firstSeed());
      expectRecall(before, survey, inside, where);
      EXPECT_EQ(survey.unreadableAt, inside.begin) << where;
    }
  }
}

TEST(SalvageOfUnreadableFiles, AsksOnceForEachPageThatCannotBeRead) {
  RecordFields record;
  record.tableID = identifier(0x11);
  record.recordID = identifier(0xA1);
  Bytes bytes = FileImage().build();
  constexpr int64_t kPages = 5000;
  bytes.zeros(static_cast<size_t>((kPages + 2) * 4096) - bytes.size());
  const auto end = static_cast<int64_t>(bytes.size());
  bytes.add(record.encode());
  const UnreadableSource source(bytes, {8192, end});
  const Survey survey = survey::makeSurvey(source);
  ASSERT_EQ(survey.blocks.size(), 1u);
  EXPECT_EQ(survey.blocks[0].position, end);
  EXPECT_LT(source.reads, kPages + 200);
}

TEST(SalvageOfUnreadableFiles, NotesADirectoryThatCannotBeRead) {
  const Bytes& bytes = original().bytes;
  EXPECT_EQ(survey::makeSurvey(UnreadableSource(bytes, {0, 4096})).unreadableAt, 0);
  EXPECT_EQ(survey::makeSurvey(UnreadableSource(bytes, {200, 300})).unreadableAt, 22 + 144);
  EXPECT_EQ(surveyOf(bytes.cut(3000)).unreadableAt, -1);
  EXPECT_EQ(surveyOf(bytes.cut(10)).unreadableAt, -1);
}

// ---- databases stored as payloads

Bytes nestedDatabase() {
  FileImage image;
  const size_t table = image.addTable("inner", 0x4411);
  for (uint64_t i = 1; i < 9; ++i) image.addRecord(table, 0x900 + i, pattern(30));
  image.setTableData(table, bytesOf("inner data"));
  return image.build();
}

struct Nested {
  FileImage image;
  size_t table = image.addTable("outer", 0x11);
  int64_t a = 0;
  int64_t b = 0;
  int64_t c = 0;

  explicit Nested(const Bytes& payload) {
    a = image.addRecord(table, 0xA1, bytesOf("before"));
    b = image.addRecord(table, 0xA2, payload, {.reserve = uint32_t(payload.size() + 100)});
    c = image.addRecord(table, 0xA3, bytesOf("after"));
  }

  void deleteMiddle() {
    image.record(a).nextRecordPos = c;
    image.record(c).prevRecordPos = a;
    image.slot(table).recordCount = 2;
  }

  void expectOnlyOwnBlocks(Bytes bytes) const {
    for (const bool hasDirectory : {true, false}) {
      if (!hasDirectory) std::fill(bytes.begin(), bytes.begin() + 4630, uint8_t{0});
      std::set<int64_t> found;
      for (const Block& block : surveyOf(bytes).blocks) found.insert(block.position);
      EXPECT_EQ(found, (std::set<int64_t>{a, b, c})) << hasDirectory;
    }
  }
};

TEST(SalvageOfNestedDatabases, TakesAPayloadForAPayload) {
  Nested outer(nestedDatabase());
  outer.expectOnlyOwnBlocks(outer.image.build());
  outer.deleteMiddle();
  outer.expectOnlyOwnBlocks(outer.image.build());
}

TEST(SalvageOfNestedDatabases, TakesACopyOfTheDatabaseItselfForAPayload) {
  FileImage earlier;
  const size_t table = earlier.addTable("outer", 0x11);
  earlier.addRecord(table, 0xA1, bytesOf("before"));
  Nested outer(earlier.build());
  outer.expectOnlyOwnBlocks(outer.image.build());
  outer.deleteMiddle();
  outer.expectOnlyOwnBlocks(outer.image.build());
}

// An older copy of a database, from before it was packed: its table is the table "outer", and its
// record 0xA1 is elsewhere than today, between two that were deleted.
Bytes copyFromBeforeAPack() {
  FileImage image;
  const size_t table = image.addTable("outer", 0x11);
  image.addRecord(table, 0xD1, bytesOf("deleted first"));
  const int64_t a = image.addRecord(table, 0xA1, bytesOf("before"));
  image.addRecord(table, 0xD2, bytesOf("deleted last"));
  image.record(a).prevRecordPos = image.record(a).nextRecordPos = 0;
  image.slot(table).recordCount = 1;
  image.slot(table).firstRecordPos = image.slot(table).lastRecordPos = a;
  return image.build();
}

const survey::Block* blockAt(const Survey& survey, int64_t position) {
  const uint32_t number = survey.byPosition.find(position);
  return number == survey::kNoBlock ? nullptr : &survey.blocks[number];
}

TEST(SalvageOfNestedDatabases, TakesACopyFromBeforeAPackForAPayload) {
  Nested outer(copyFromBeforeAPack());
  outer.expectOnlyOwnBlocks(outer.image.build());
  outer.deleteMiddle();
  const Bytes bytes = outer.image.build();
  outer.expectOnlyOwnBlocks(bytes);
  const Survey survey = surveyOf(bytes);
  EXPECT_EQ(blockAt(survey, outer.b)->grade, survey::Grade::a);
  EXPECT_EQ(blockAt(survey, outer.b)->label, survey::Label::deleted);
  EXPECT_EQ(survey.nestedBlocks.size(), 3u);

  const Salvaged saved = salvaged(bytes, {.deleted = true});
  ASSERT_EQ(saved.database.tables.size(), 2u);
  EXPECT_EQ(contentsOf(*tableNamed(saved.database, "lost-and-found")),
            (Contents{{0xA2, copyFromBeforeAPack()}}));
}

// The same where the record that held the copy is not whole: it was torn off after the copy or in
// its last block, and other records came after it, one of which was deleted.
void expectCopyInATornBlock(size_t missing) {
  const Bytes copy = copyFromBeforeAPack();
  FileImage image;
  const size_t table = image.addTable("outer", 0x11);
  const int64_t a = image.addRecord(table, 0xA1, bytesOf("before"));
  RecordFields torn = image.record(a);
  torn.recordID = identifier(0xA2);
  torn.prevRecordPos = a;
  torn.dataLength = static_cast<uint32_t>(copy.size());
  torn.dataCapacity = 1 << 20;
  const int64_t b = image.addRaw(torn.encode().cut(55).add(copy.cut(copy.size() - missing)));
  const int64_t d = image.addRecord(table, 0xA3, bytesOf("deleted"));
  const int64_t e = image.addRecord(table, 0xA4, bytesOf("after"));
  image.record(a).nextRecordPos = e;
  image.record(e).prevRecordPos = a;
  image.slot(table).recordCount = 2;
  Bytes bytes = image.build();
  for (const bool hasDirectory : {true, false}) {
    if (!hasDirectory) std::fill(bytes.begin(), bytes.begin() + 4630, uint8_t{0});
    const Survey survey = surveyOf(bytes);
    std::set<int64_t> found;
    for (const Block& block : survey.blocks) found.insert(block.position);
    EXPECT_EQ(found, (std::set<int64_t>{a, b, d, e})) << hasDirectory << missing;
    EXPECT_EQ(survey.nestedBlocks.size(), 3u);
  }
}

TEST(SalvageOfNestedDatabases, DistinguishesACopyInATornBlockFromTheBlocksAfterIt) {
  for (const size_t missing : {0u, 1u, 10u}) expectCopyInATornBlock(missing);
}

// A table that the directory has lost, and an older copy still has.
TEST(SalvageOfNestedDatabases, LeavesALostTableItsBlocksAfterACopyOfThem) {
  FileImage earlier;
  const size_t lostThen = earlier.addTable("lost", 0x22);
  earlier.addRecord(lostThen, 0xB1, bytesOf("one"));
  Nested outer(earlier.build());
  outer.deleteMiddle();
  const size_t lost = outer.image.addTable("lost", 0x22);
  const int64_t d = outer.image.addRecord(lost, 0xB1, bytesOf("one"));
  const Bytes bytes = outer.image.build().with(slotOffset(lost), freeSlot().encode());
  std::set<int64_t> found;
  for (const Block& block : surveyOf(bytes).blocks) found.insert(block.position);
  EXPECT_EQ(found, (std::set<int64_t>{outer.a, outer.b, outer.c, d}));
}

// Where the blocks of a sound file are, one after the other.
std::set<int64_t> blocksOf(const Bytes& bytes) {
  std::set<int64_t> blocks;
  for (size_t at = 4630; at < bytes.size();) {
    blocks.insert(static_cast<int64_t>(at));
    at += bytes[at] == 135 ? 56 + bytes.beAt(at + 51, 4) : 22 + bytes.beAt(at + 17, 4);
  }
  return blocks;
}

// A database that was packed, and then had records added that hold copies of the file as it was
// before the pack, or as it was a moment ago; of these records many were changed or deleted.
Bytes databaseWithCopies(uint64_t seed) {
  TempFolder folder{TempFolder::inMemory()};
  std::mt19937 random(static_cast<unsigned>(seed));
  RandomDatabase database(folder, "random.qvd", seed);
  database.run(30);
  database.close();
  const Bytes earlier = readFile(database.path());
  EXPECT_EQ(PackOneDB2NewW(folder.wide("random.qvd"), folder.wide("packed.qvd"), 0, nullptr), 1);
  std::vector<std::pair<uint64_t, uint64_t>> records;
  for (const auto& table : database.tables()) {
    for (const auto& record : table.records) records.emplace_back(table.id, record.id);
  }
  for (int i = 0; i < 25; ++i) {
    const Bytes small = pattern(random() % 60);
    const Bytes payload = random() % 2 != 0   ? small
                          : random() % 3 != 0 ? earlier
                                              : readFile(folder / "packed.qvd");
    const auto size = static_cast<uint32_t>(payload.size());
    const int16_t db = OpenDBaseW(folder.wide("packed.qvd"), 3);
    const size_t any = records.empty() ? 0 : random() % records.size();
    if (records.empty() || random() % 3 == 0) {
      const uint64_t table = database.tables()[random() % database.tables().size()].id;
      records.emplace_back(table, 0);
      EXPECT_EQ(AddRecordData(db, table, payload.data(), size, 50, &records.back().second), 1);
    } else if (random() % 2 == 0 && size > 0) {
      EXPECT_EQ(ModifyRecordData(db, records[any].first, payload.data(), size, records[any].second,
                                 nullptr),
                1);
    } else {
      EXPECT_EQ(DeleteOneRecord(db, records[any].first, records[any].second, nullptr), 1);
      records.erase(records.begin() + static_cast<std::ptrdiff_t>(any));
    }
    CloseDBase(db);
  }
  return readFile(folder / "packed.qvd");
}

TEST(SalvageOfNestedDatabases, FindsTheBlocksOfAFileThatHoldsCopiesOfItself) {
  const uint64_t first = firstSeed();
  for (uint64_t seed = first; seed < first + seeds(20, 1000); ++seed) {
    const Bytes sound = databaseWithCopies(seed);
    const std::set<int64_t> blocks = blocksOf(sound);
    for (int damage = 0; damage < 4; ++damage) {
      Bytes bytes = sound;
      if (damage % 2 != 0) std::fill(bytes.begin(), bytes.begin() + 4630, uint8_t{0});
      if (damage / 2 != 0) bytes.zeros(100);
      std::set<int64_t> found;
      for (const Block& block : surveyOf(bytes).blocks) {
        found.insert(block.position);
        EXPECT_EQ(block.flaws, 0);
      }
      EXPECT_EQ(found, blocks) << "damage " << damage << ", QVDBASE_TEST_SEED=" << seed;
    }
    if (testing::Test::HasFailure()) return;
  }
}

// Of such a file that is damaged, every block is found that the damage did not touch, too.
TEST(SalvageOfNestedDatabases, MissesNoBlockOfADamagedFileThatHoldsCopiesOfItself) {
  const uint64_t first = firstSeed();
  for (uint64_t seed = first; seed < first + seeds(20, 1000); ++seed) {
    const Bytes sound = databaseWithCopies(seed);
    const std::set<int64_t> blocks = blocksOf(sound);
    std::mt19937 random(static_cast<unsigned>(seed));
    for (int damage = 0; damage < 20; ++damage) {
      Bytes bytes = sound;
      const bool isCut = damage % 2 != 0;
      const size_t at = 4630 + random() % (sound.size() - 4630);
      const size_t end = isCut ? sound.size() : std::min(at + 512, sound.size());
      for (size_t i = at; i < end; ++i) bytes[i] = static_cast<uint8_t>(random());
      if (isCut) bytes.resize(at);
      if (damage % 4 >= 2) std::fill(bytes.begin(), bytes.begin() + 4630, uint8_t{0});
      std::set<int64_t> found;
      for (const Block& block : surveyOf(bytes).blocks) found.insert(block.position);
      for (auto block = blocks.begin(); block != blocks.end(); ++block) {
        const auto next = std::next(block);
        const auto after = next == blocks.end() ? sound.size() : static_cast<size_t>(*next);
        const bool isTouched = after > at && static_cast<size_t>(*block) < end;
        EXPECT_TRUE(isTouched || found.contains(*block))
            << *block << " is missed with damage at " << at << ", QVDBASE_TEST_SEED=" << seed;
      }
    }
    if (testing::Test::HasFailure()) return;
  }
}

// ---- blocks in use that something other than a block follows

// A database whose last record, in use, holds `payload`, and 100 bytes of nothing after it.
struct Followed {
  FileImage image;
  size_t table = image.addTable("outer", 0x11);
  int64_t a = image.addRecord(table, 0xA1, bytesOf("before"));
  int64_t b = 0;
  Bytes bytes;

  explicit Followed(const Bytes& payload) {
    b = image.addRecord(table, 0xA2, payload);
    bytes = image.build().zeros(100);
  }
};

TEST(SalvageOfNestedDatabases, CutsNoBlockInUseThatBytesFollow) {
  const Bytes other = nestedDatabase();
  for (const Bytes& payload : {copyFromBeforeAPack(), other, other.from(4630)}) {
    const Followed file(payload);
    const Survey survey = surveyOf(file.bytes, {.deep = true});
    ASSERT_EQ(survey.blocks.size(), 2u);
    EXPECT_EQ(blockAt(survey, file.b)->flaws, 0);
    ASSERT_EQ(survey.leftovers.size(), 1u);
    EXPECT_EQ(survey.leftovers[0].range.size(), 100);
    const size_t nested = payload == copyFromBeforeAPack() ? 3 : 9;
    EXPECT_EQ(survey.nestedBlocks.size(), nested) << "each of them once";

    const Salvaged saved = salvaged(file.bytes, {.orphans = true});
    ASSERT_EQ(saved.database.tables.size(), 1u);
    EXPECT_EQ(contentsOf(saved.database.tables[0]),
              (Contents{{0xA1, bytesOf("before")}, {0xA2, payload}}));
  }
}

// A damaged capacity may lead to a byte that looks like an end mark.
TEST(SalvageOfNestedDatabases, CutsABlockInUseWhoseCapacityReachesOverOthers) {
  for (const bool areKnown : {true, false}) {
    FileImage image;
    const size_t table = image.addTable("outer", 0x11);
    const size_t other = image.addTable("other", 0x22);
    const int64_t a = image.addRecord(table, 0xA1, bytesOf("before"));
    const int64_t b = image.addRecord(other, 0xB1, Bytes().fill(60, 'i'));
    const int64_t c = image.addRecord(other, 0xB2, Bytes().fill(60, 'i'));
    if (areKnown) {
      image.slot(other).recordCount = 0;
      image.slot(other).firstRecordPos = image.slot(other).lastRecordPos = 0;
      image.record(b).nextRecordPos = image.record(c).prevRecordPos = 0;
    }
    image.record(a).dataCapacity = static_cast<uint32_t>(c + 55 + 20 - (a + 55));
    Bytes bytes = image.build();
    if (!areKnown) bytes = bytes.with(slotOffset(other), freeSlot().encode());
    const Survey survey = surveyOf(bytes);
    ASSERT_EQ(survey.blocks.size(), 3u) << areKnown;
    EXPECT_EQ(blockAt(survey, a)->end, b);
    EXPECT_TRUE(blockAt(survey, a)->isCut());
    for (const int64_t each : {b, c}) {
      ASSERT_NE(blockAt(survey, each), nullptr);
      EXPECT_EQ(blockAt(survey, each)->grade, survey::Grade::a);
    }
  }
}

TEST(SalvageOfNestedDatabases, DoesNotTakeNestedBlocksWhenTheOuterHeaderIsDestroyed) {
  Nested outer(nestedDatabase());
  outer.deleteMiddle();
  Bytes bytes = outer.image.build();
  bytes = bytes.with(static_cast<size_t>(outer.b), Bytes().fill(55, 0xEE));
  for (const Block& block : surveyOf(bytes).blocks) {
    EXPECT_TRUE(block.position == outer.a || block.position == outer.c) << block.position;
  }
}

TEST(SalvageOfNestedDatabases, AreFoundWhenTheyAreAskedFor) {
  const Nested outer(nestedDatabase());
  EXPECT_EQ(surveyOf(outer.image.build()).nestedBlocks.size(), 0u);
  EXPECT_EQ(surveyOf(outer.image.build(), {.deep = true}).nestedBlocks.size(), 9u);
  EXPECT_EQ(surveyOf(outer.image.build(), {.deep = true}).nestedDatabases,
            std::vector<int64_t>{outer.b + 55});
}

// ---- size

// A source of zeros with a block at its end.
class SparseSource : public survey::ByteSource {
 public:
  SparseSource(int64_t size, const Bytes& end) : size_(size), end_(end) {}
  int64_t size() const override { return size_; }
  size_t readAt(int64_t position, void* buffer, size_t count) const override {
    count = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(count), size_ - position));
    EXPECT_LE(count, size_t{1} << 20) << "large pieces cost memory";
    std::fill_n(static_cast<uint8_t*>(buffer), count, uint8_t{0});
    const int64_t start = size_ - static_cast<int64_t>(end_.size());
    for (size_t i = 0; i < end_.size(); ++i) {
      const int64_t place = start + static_cast<int64_t>(i) - position;
      if (place >= 0 && place < static_cast<int64_t>(count)) {
        static_cast<uint8_t*>(buffer)[place] = end_[i];
      }
    }
    return count;
  }

 private:
  int64_t size_;
  const Bytes& end_;
};

TEST(SalvageOfLargeFiles, FindsOneBlockAtTheEnd) {
  RecordFields record;
  record.tableID = identifier(0x11);
  record.recordID = identifier(0xA1);
  const Bytes block = record.encode();
  const int64_t size = int64_t(seeds(64, 4096)) << 20;
  const SparseSource source(size, block);
  const Survey survey = survey::makeSurvey(source);
  ASSERT_EQ(survey.blocks.size(), 1u);
  EXPECT_EQ(survey.blocks[0].position, size - static_cast<int64_t>(block.size()));
}

// Kilobytes of memory that a salvage takes, in a process of its own; 0 when it fails.
long memoryOfSalvage(const std::filesystem::path& source, const std::filesystem::path& target) {
  const pid_t child = fork();
  if (child == 0) {
    const qvdb::SalvageReport report = qvdb::salvage(source, target);
    _exit(report.verified && report.records_written == 2 ? 0 : 1);
  }
  int status = 0;
  struct rusage usage = {};
  if (wait4(child, &status, 0, &usage) != child || status != 0) return 0;
  return usage.ru_maxrss;
}

// Blocks at the end of 4 GiB of nothing, one of them directly after the hole, as it may be where
// the device works in pages.
TEST(SalvageOfLargeFiles, FindsBlocksAfterAHole) {
  TempFolder folder;
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t a = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  const Bytes blocks = image.build().from(static_cast<size_t>(a));
  constexpr uint64_t kEnd = uint64_t{4} << 30;
  writeFile(folder / "large.qvd", Bytes(image.build()).cut(4630));
  std::filesystem::resize_file(folder / "large.qvd", kEnd);
  patchFile(folder / "large.qvd", kEnd, blocks);
  struct stat status = {};
  ASSERT_EQ(stat((folder / "large.qvd").c_str(), &status), 0);
  if (status.st_blocks * 512 > status.st_size / 2) GTEST_SKIP() << "no holes in this file system";

  const long kilobytes = memoryOfSalvage(folder / "large.qvd", folder / "saved.qvd");
  EXPECT_GT(kilobytes, 0);
  EXPECT_TRUE(kIsSanitized || kilobytes < 100L * 1024) << kilobytes;
  const ReadDatabase saved = readDatabase(folder / "saved.qvd");
  ASSERT_EQ(saved.tables.size(), 1u);
  EXPECT_EQ(contentsOf(saved.tables[0]),
            (Contents{{0xA1, bytesOf("first")}, {0xA2, bytesOf("second")}}));
}

// A search goes on where a hole ends, and misses nothing there.
TEST(SalvageOfLargeFiles, FindsABlockDirectlyAfterAHole) {
  constexpr int64_t kMegabyte = int64_t{1} << 20;
  class Holey : public survey::MemorySource {
   public:
    Holey(const Bytes& bytes, platform::FileHole hole)
        : survey::MemorySource(asBytes(bytes)), hole_(hole) {}
    std::optional<platform::FileHole> nextHole(int64_t position) const override {
      if (position >= hole_.end) return std::nullopt;
      return platform::FileHole{std::max(position, hole_.begin), hole_.end};
    }

   private:
    platform::FileHole hole_;
  };
  for (int64_t inside = 0; inside <= 4; ++inside) {
    Bytes bytes = FileImage().build();
    bytes.zeros(static_cast<size_t>(2 * kMegabyte) - bytes.size());
    const auto after = static_cast<int64_t>(bytes.size()) + inside;
    RecordFields record;
    record.tableID = identifier(0x11);
    record.recordID = identifier(0xA1);
    bytes.zeros(static_cast<size_t>(inside)).add(record.encode());
    const Holey source(bytes, {10'000, after});
    const Survey survey = survey::makeSurvey(source);
    ASSERT_EQ(survey.blocks.size(), 1u) << inside;
    EXPECT_EQ(survey.blocks[0].position, after);
  }
}

}  // namespace
}  // namespace qvdbase::test
