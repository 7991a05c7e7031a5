// States that a power failure can leave when a record moves: the links that lead to its new block
// have reached the device, and of the block itself only a part. The older version, which is whole,
// is the one that salvage keeps.
#include <qvdbase/qvdbase.h>

#include "recovery/check/base_files.h"
#include "recovery/salvage/salvage_kit.h"

namespace qvdbase::test {
namespace {

constexpr uint64_t kTable = 0x11;

// A table whose record `moved` lies in a new block at the end of the file, linked from all sides;
// its old block is where it was.
struct MovedRecord {
  int64_t old = 0;
  int64_t block = 0;
  Bytes bytes;
  Contents before;  // the records with the old payload

  MovedRecord(uint64_t records, uint64_t moved) {
    FileImage image;
    const size_t table = image.addTable("notes", kTable);
    std::vector<int64_t> positions;
    for (uint64_t i = 0; i < records; ++i) {
      positions.push_back(image.addRecord(table, 0xA0 + i, payloadOf(i)));
      before.emplace_back(0xA0 + i, payloadOf(i));
    }
    old = positions[moved];
    RecordFields fields = image.record(old);
    fields.room = bytesOf("a longer text than before");
    fields.dataLength = fields.dataCapacity = 25;
    fields.modifyTime = 2000;
    block = image.end();
    image.addRaw(fields.encode());
    if (moved > 0) image.record(positions[moved - 1]).nextRecordPos = block;
    if (moved + 1 < records) image.record(positions[moved + 1]).prevRecordPos = block;
    SlotFields& slot = image.slot(table);
    if (moved == 0) slot.firstRecordPos = block;
    if (moved + 1 == records) slot.lastRecordPos = block;
    slot.lastWrittenRecordPos = block;
    bytes = image.build();
  }

  static Bytes payloadOf(uint64_t i) { return bytesOf("text " + std::to_string(i)); }

  size_t at(size_t field) const { return static_cast<size_t>(block) + field; }
  Bytes withoutIdentifier() const { return bytes.with(at(13), Bytes().zeros(10)); }
};

// The links that a power failure may have kept from the device, by the field that holds each.
Bytes withOldLink(const MovedRecord& state, Bytes bytes, size_t field, bool isBigEndian) {
  if (isBigEndian) {
    bytes.putBe(field, 8, static_cast<uint64_t>(state.old));
  } else {
    bytes.putLe(field, 8, static_cast<uint64_t>(state.old));
  }
  return bytes;
}

void expectTheOlderVersion(const Bytes& bytes, const Contents& before) {
  const Salvaged saved = salvaged(bytes);
  ASSERT_EQ(saved.database.tables.size(), 1u);
  EXPECT_EQ(contentsOf(saved.database.tables[0]), before);
}

TEST(SalvageOfIncompleteBlocks, KeepsTheOlderVersionOfABlockWithoutIdentifier) {
  for (const uint64_t records : {1u, 2u, 3u, 5u}) {
    for (uint64_t moved = 0; moved < records; ++moved) {
      SCOPED_TRACE(std::to_string(moved) + " of " + std::to_string(records));
      const MovedRecord state(records, moved);
      expectTheOlderVersion(state.withoutIdentifier(), state.before);
      const Salvaged whole = salvaged(state.bytes);
      ASSERT_EQ(contentsOf(whole.database.tables.at(0)).size(), records);
      EXPECT_EQ(contentsOf(whole.database.tables[0])[moved].second,
                bytesOf("a longer text than before"));
    }
  }
}

TEST(SalvageOfIncompleteBlocks, KeepsItWhenNothingAfterTheIdentifierIsThereEither) {
  for (const uint64_t moved : {0u, 1u, 2u}) {
    SCOPED_TRACE(moved);
    const MovedRecord state(3, moved);
    Bytes bytes = state.bytes;
    const size_t left = bytes.size() - state.at(13);
    bytes = bytes.with(state.at(13), Bytes().zeros(left));
    expectTheOlderVersion(bytes, state.before);
  }
}

TEST(SalvageOfIncompleteBlocks, KeepsItWhenOnlySomeOfTheLinksWereChanged) {
  for (const uint64_t moved : {0u, 1u, 2u}) {
    const MovedRecord state(3, moved);
    const Bytes bytes = state.withoutIdentifier();
    const auto block = static_cast<uint64_t>(state.block);
    for (size_t i = 0; i + 8 <= static_cast<size_t>(state.block); ++i) {
      const bool isBigEndian = i >= kDirectoryEnd;
      const uint64_t value = isBigEndian ? bytes.beAt(i, 8) : bytes.leAt(i, 8);
      if (value != block) continue;
      SCOPED_TRACE(std::to_string(moved) + ", link at " + std::to_string(i));
      expectTheOlderVersion(withOldLink(state, bytes, i, isBigEndian), state.before);
    }
  }
}

TEST(SalvageOfIncompleteBlocks, BringsNoDeletedRecordBack) {
  FileImage image;
  const size_t table = image.addTable("notes", kTable);
  const int64_t a = image.addRecord(table, 0xA1, bytesOf("first"));
  RecordFields deleted;  // it was the last one, after the first
  deleted.tableID = identifier(kTable);
  deleted.recordID = identifier(0xA2);
  deleted.createTime = deleted.modifyTime = 900;
  deleted.prevRecordPos = a;
  deleted.room = bytesOf("deleted");
  deleted.dataLength = deleted.dataCapacity = 7;
  image.addDeadRecord(deleted);
  image.addRecord(table, 0xA3, bytesOf("torn"));
  const int64_t torn = image.end() - 60;
  image.slot(table).recordWriteCount = 3;
  const Bytes bytes = image.build().with(static_cast<size_t>(torn) + 13, Bytes().zeros(10));
  expectTheOlderVersion(bytes, {{0xA1, bytesOf("first")}});
}

TEST(SalvageOfIncompleteBlocks, KeepsTheOlderVersionOfABlockWithAnOpenEnd) {
  for (const uint64_t moved : {0u, 1u, 2u}) {
    SCOPED_TRACE(moved);
    const MovedRecord state(3, moved);
    Bytes noMark = state.bytes;
    noMark[noMark.size() - 1] = 0;
    const Bytes cut = state.bytes.cut(state.bytes.size() - 5);
    for (const Bytes& bytes : {noMark, cut}) {
      const Salvaged saved = salvaged(bytes);
      const ReadTable* const notes = tableNamed(saved.database, "notes");
      ASSERT_NE(notes, nullptr);
      EXPECT_EQ(contentsOf(*notes), state.before);
      // What there is of the newer version is kept apart.
      const ReadTable* const apart = tableNamed(saved.database, "lost-and-found");
      ASSERT_NE(apart, nullptr);
      ASSERT_EQ(apart->records.size(), 1u);
      EXPECT_EQ(apart->records[0].id, 0xA0 + moved);
    }
  }
}

TEST(SalvageOfIncompleteBlocks, KeepsABlockWithAnOpenEndThatHasNoOlderVersion) {
  FileImage image;
  const size_t table = image.addTable("notes", kTable);
  image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  Bytes bytes = image.build();
  bytes[bytes.size() - 1] = 0;
  expectTheOlderVersion(bytes, {{0xA1, bytesOf("first")}, {0xA2, bytesOf("second")}});
}

TEST(SalvageOfIncompleteBlocks, LeavesBlocksWithoutIdentifierOutAndSaysSo) {
  FileImage image;
  const size_t table = image.addTable("notes", kTable);
  const int64_t a = image.addRecord(table, 0xA1, bytesOf("first"));
  image.addRecord(table, 0xA2, bytesOf("second"));
  image.record(a).recordID = identifier(0);
  for (const qvdb::BlockGrade grade : {qvdb::BlockGrade::a, qvdb::BlockGrade::c}) {
    const Salvaged saved = salvaged(
        image.build(), {.deleted = true, .versions = true, .orphans = true, .lowest_grade = grade});
    ASSERT_EQ(saved.database.tables.size(), 1u);
    EXPECT_EQ(contentsOf(saved.database.tables[0]), (Contents{{0xA2, bytesOf("second")}}));
    EXPECT_EQ(saved.report.blocks_left_out, 1u);
    EXPECT_EQ(saved.report.notes,
              (std::vector<std::string>{"Left out: 1 record block with the identifier 0."}));
  }
}

TEST(CheckOfIncompleteBlocks, CallsARecordWithoutIdentifierAnError) {
  for (const uint64_t moved : {0u, 1u, 2u}) {
    const MovedRecord state(3, moved);
    EXPECT_EQ(checkBytes(state.bytes, {}).report.state, qvdb::CheckState::sound);
    const Checked checked = checkBytes(state.withoutIdentifier(), {});
    EXPECT_EQ(checked.report.state, qvdb::CheckState::damaged);
    EXPECT_TRUE(checked.codes(qvdb::Severity::error).contains("R4")) << checked.text();
  }
}

}  // namespace
}  // namespace qvdbase::test
