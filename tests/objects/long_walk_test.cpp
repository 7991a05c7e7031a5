// Walks over thousands of records, which read the file in large pieces where records lie close.
#include <random>

#include "kit/random_seed.h"
#include "kit/recorded_calls.h"
#include "objects/layer_fixture.h"
#include "platform/transfer/transfer.h"

namespace qvdbase::test {
namespace {

using qvdb::Id;
using qvdb::Load;
using qvdb::Reason;

class LongWalk : public LayerTest {
 protected:
  struct Kept {
    Id id;
    Bytes payload;
    bool operator==(const Kept&) const = default;
  };

  static std::vector<Kept> walk(qvdb::Table& table, Load load) {
    std::vector<Kept> seen;
    for (const qvdb::Record& record : table.records(load)) {
      seen.push_back(
          {record.id(), load == Load::payloads ? bytes(record.loaded()) : bytes(record.payload())});
    }
    return seen;
  }

  // A table of so many records, of which it counts `counted`.
  static FileImage counting(uint32_t counted, uint64_t records) {
    FileImage image;
    image.addTable("notes", 0x11);
    for (uint64_t i = 0; i < records; ++i) image.addRecord(0, 0xA0 + i, pattern(5));
    image.slot(0).recordCount = counted;
    return image;
  }

  // Appends records of `size` bytes.
  static std::vector<Kept> fill(qvdb::Table& table, size_t count, size_t size) {
    std::vector<Kept> kept;
    for (size_t i = 0; i < count; ++i) {
      Bytes payload = pattern(size, static_cast<unsigned>(i));
      const Id id = table.add(span(payload));
      kept.push_back({id, std::move(payload)});
    }
    return kept;
  }
};

TEST_F(LongWalk, DeliversRecordsOfAllSizesInTheirOrder) {
  std::mt19937 random(static_cast<unsigned>(randomSeed()));
  auto database = createDatabase();
  auto table = database.add_table("t");
  std::vector<Kept> kept;
  for (int i = 0; i < 4000; ++i) {
    // Some payloads are larger than any piece; whole stretches are empty.
    const bool isHuge = i % 1000 == 700;
    const bool isEmpty = i / 500 == 3;
    const size_t size = isHuge ? 200'000 : isEmpty ? 0 : random() % 200;
    kept.push_back({{}, pattern(size, static_cast<unsigned>(i))});
    kept.back().id = table.add(span(kept.back().payload), static_cast<uint32_t>(random() % 50));
  }
  EXPECT_EQ(walk(table, Load::payloads), kept);
  EXPECT_EQ(walk(table, Load::headers), kept);
}

TEST_F(LongWalk, FollowsRecordsThatHaveMovedAndPassesDeletedOnes) {
  std::mt19937 random(static_cast<unsigned>(randomSeed()));
  auto database = createDatabase();
  auto table = database.add_table("t");
  std::vector<Kept> kept = fill(table, 3000, 90);
  {
    const qvdb::RecordIndex index = table.index();
    for (int i = 0; i < 300; ++i) {
      Kept& moved = kept[random() % kept.size()];
      moved.payload = pattern(moved.payload.size() + 20, static_cast<unsigned>(i));
      ASSERT_TRUE(table.modify(moved.id, span(moved.payload)));
      const size_t gone = random() % kept.size();
      ASSERT_TRUE(table.remove(kept[gone].id));
      kept.erase(kept.begin() + static_cast<std::ptrdiff_t>(gone));
    }
  }
  EXPECT_EQ(walk(table, Load::payloads), kept);
  EXPECT_EQ(walk(table, Load::headers), kept);
}

TEST_F(LongWalk, CanBeginAgainAtAnyPoint) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  const std::vector<Kept> kept = fill(table, 2500, 100);
  auto records = table.records(Load::payloads);
  size_t seen = 0;
  for (const qvdb::Record& record : records) {
    EXPECT_EQ(record.id(), kept[seen].id);
    if (++seen == 2000) break;
  }
  seen = 0;
  for (const qvdb::Record& record : records) {
    ASSERT_LT(seen, kept.size());
    EXPECT_EQ(bytes(record.loaded()), kept[seen].payload);
    ++seen;
  }
  EXPECT_EQ(seen, kept.size());
}

TEST_F(LongWalk, SeesWhatTheLayerChangesInThePieceThatItHolds) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  std::vector<Kept> kept = fill(table, 2500, 100);
  std::vector<Kept> seen;
  for (const qvdb::Record& record : table.records(Load::payloads)) {
    seen.push_back({record.id(), bytes(record.loaded())});
    if (seen.size() != 1500) continue;
    kept[1502].payload = bytesOf("changed");
    table.modify(kept[1502].id, span(kept[1502].payload));
    table.remove(kept[1501].id);
  }
  kept.erase(kept.begin() + 1501);
  EXPECT_EQ(seen, kept);
}

TEST_F(LongWalk, DeliversTheRecordsBeforeADamage) {
  FileImage image;
  image.addTable("notes", 0x11);
  std::vector<int64_t> at;
  for (uint64_t i = 0; i < 3000; ++i) at.push_back(image.addRecord(0, 0xA0 + i, pattern(50)));
  image.record(at[2222]).blockMark = 0;
  allowDamage();
  for (const Load load : {Load::headers, Load::payloads}) {
    auto database = openImage(image);
    size_t seen = 0;
    expectError(Reason::chain_damaged, [&] {
      for ([[maybe_unused]] const auto& record : database.table("notes").records(load)) ++seen;
    });
    EXPECT_EQ(seen, 2222u);
  }
}

TEST_F(LongWalk, DeliversTheRecordsBeforeTheEndOfAFileThatWasCutShort) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  fill(table, 3000, 100);
  database.close();
  writeFile(path(), contents().cut(static_cast<size_t>(4630 + 2000 * 156 + 100)));
  allowDamage();
  auto damaged = openDatabase(qvdb::Mode::read_only);
  auto cut = damaged.table("t");
  size_t seen = 0;
  expectError(Reason::data_damaged, [&] {
    for (const qvdb::Record& record : cut.records(Load::payloads)) {
      EXPECT_EQ(record.loaded().size(), 100u);
      ++seen;
    }
  });
  EXPECT_EQ(seen, 2000u);
}

// A loop that no piece leaves.
TEST_F(LongWalk, EndsInALoopWithinAPiece) {
  FileImage image;
  image.addTable("notes", 0x11);
  std::vector<int64_t> at;
  for (uint64_t i = 0; i < 1000; ++i) at.push_back(image.addRecord(0, 0xA0 + i, pattern(5)));
  image.record(at.back()).nextRecordPos = at[500];
  image.slot(0).recordCount = 0xFFFFFFFF;
  allowDamage();
  auto database = openImage(image);
  size_t seen = 0;
  expectError(Reason::chain_damaged, [&] {
    for ([[maybe_unused]] const auto& record : database.table("notes").records()) ++seen;
  });
  EXPECT_GE(seen, 1000u);
  EXPECT_LE(seen, 10'000u);
}

// The next record lies in the piece, but the table counts no more.
TEST_F(LongWalk, EndsWhereTheCountEndsWithinAPiece) {
  const FileImage image = counting(600, 1000);
  allowDamage();
  for (const Load load : {Load::headers, Load::payloads}) {
    auto database = openImage(image);
    EXPECT_EQ(std::ranges::distance(database.table("notes").records(load)), 600);
  }
}

TEST_F(LongWalk, ReportsThatTheChainEndsBeforeTheCountWithinAPiece) {
  const FileImage image = counting(1001, 1000);
  allowDamage();
  auto database = openImage(image);
  size_t seen = 0;
  const std::string why = expectError(Reason::chain_damaged, [&] {
    for ([[maybe_unused]] const auto& record : database.table("notes").records()) ++seen;
  });
  EXPECT_EQ(seen, 1000u);
  EXPECT_NE(why.find("1001"), std::string::npos) << why;
}

// A piece holds some 840 of these: one of the damaged records is at the beginning of a piece.
TEST_F(LongWalk, ReportsDamageAtTheBeginningOfAPiece) {
  FileImage image;
  image.addTable("notes", 0x11);
  std::vector<int64_t> at;
  for (uint64_t i = 0; i < 3000; ++i) at.push_back(image.addRecord(0, 0xA0 + i, pattern(100)));
  allowDamage();
  const Bytes sound = image.build();
  for (size_t damaged = 1000; damaged < 1900; ++damaged) {
    writeFile(path(), sound.with(static_cast<size_t>(at[damaged]), Bytes().zeros(1)));
    auto database = openDatabase(qvdb::Mode::read_only);
    size_t seen = 0;
    expectError(Reason::chain_damaged, [&] {
      for ([[maybe_unused]] const auto& record : database.table("notes").records()) ++seen;
    });
    ASSERT_EQ(seen, damaged);
  }
}

TEST_F(LongWalk, FailsWhenTheDatabaseIsClosedWithinAPiece) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  fill(table, 2000, 50);
  size_t seen = 0;
  expectError(Reason::not_open, [&] {
    for ([[maybe_unused]] const auto& record : table.records()) {
      if (++seen == 1500) database.close();
    }
  });
  EXPECT_EQ(seen, 1500u);
}

// A piece that cannot hold its first record is not tried again: each of the large records that
// follow costs its own reads.
TEST_F(LongWalk, ReadsNoPiecesInVain) {
  if (!platform::gathersTransfers()) GTEST_SKIP();
  auto database = createDatabase();
  auto table = database.add_table("t");
  fill(table, 300, 100);
  fill(table, 20, 300'000);
  size_t asked = 0;
  RecordedCalls host;
  EXPECT_EQ(std::ranges::distance(table.records(Load::payloads)), 320);
  for (const Event& event : host.events()) {
    if (event.call == Call::read) asked += event.count;
  }
  EXPECT_LE(asked, 20u * 310'000 + 1'000'000);
}

// 10,000 blocks of 156 bytes are 1,560,000 bytes, or twelve pieces of 128 KiB: a few reads more for
// the first batches and the ends of pieces, and none of them twice.
TEST_F(LongWalk, ReadsTheFileInLargePieces) {
  auto database = createDatabase();
  auto table = database.add_table("t");
  {
    qvdb::BulkAppender bulk = table.appender();
    for (int i = 0; i < 10'000; ++i) bulk.add(qvdb::NewRecord(span(Bytes(100, 'x'))));
    bulk.finish();
  }
  for (const Load load : {Load::headers, Load::payloads}) {
    RecordedCalls host;
    EXPECT_EQ(std::ranges::distance(table.records(load)), 10'000);
    if (platform::gathersTransfers()) {
      EXPECT_LE(host.count(Call::read), 60);
    }
  }
}

}  // namespace
}  // namespace qvdbase::test
