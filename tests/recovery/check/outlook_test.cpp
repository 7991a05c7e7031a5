// What the check says about the library's calls is what the calls do: every damage of the corrupter
// and every state of an interrupted operation, call by call.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>

#include "kit/temp_folder.h"
#include "recovery/check/base_files.h"
#include "recovery/check/random_database.h"
#include "recovery/survey/survey.h"

namespace qvdbase::test {
namespace {

class Outlook : public testing::Test {
 protected:
  // Runs `call` on a fresh copy of the bytes.
  template <typename Call>
  bool succeeds(const Bytes& bytes, Call call) {
    writeFile(folder / "a.qvd", bytes);
    const int16_t db = OpenDBaseW(folder.wide("a.qvd"), 3);
    EXPECT_NE(db, 0);
    const bool result = call(db);
    CloseDBase(db);
    return result;
  }

  static bool lists(int16_t db, const qvdb::TableOutlook& table) {
    if (table.counted > 100'000) return table.list;  // not walked here
    std::vector<uint64_t> ids(table.counted + 1);
    uint32_t count = 0;
    return GetRecordUuIDList(db, table.id.value, ids.data(), &count) == 1;
  }

  static bool readsData(int16_t db, uint64_t table) {
    uint32_t size = 0;
    if (GetTableDataSize(db, table, &size) != 1) return false;
    if (size > 1'000'000) return false;
    std::vector<unsigned char> data(size + 1);
    return size == 0 || GetTableData(db, table, data.data()) == 1;
  }

  // Whether `call` succeeds for each record that the table's walk reaches, each on a fresh copy.
  template <typename Call>
  bool succeedsForAll(const Bytes& bytes, const qvdb::TableOutlook& table, Call call) {
    const survey::MemorySource source(std::as_bytes(std::span(bytes.data(), bytes.size())));
    const survey::Survey survey = survey::makeSurvey(source);
    const survey::Walk& walk = survey.tableOfSlot(table.slot)->forward;
    if (walk.blocks.size() < table.counted && walk.end != survey::WalkEnd::loop) return false;
    const size_t count = std::min<size_t>(walk.blocks.size(), table.counted);
    for (size_t i = 0; i < count; ++i) {
      const uint64_t record = survey.blocks[walk.blocks[i]].recordID;
      if (!succeeds(bytes, [&](auto db) { return call(db, record) == 1; })) return false;
    }
    return true;
  }

  static bool hasRoomFor(const Bytes& bytes, const qvdb::TableOutlook& table, uint32_t size) {
    const survey::MemorySource source(std::as_bytes(std::span(bytes.data(), bytes.size())));
    const survey::Survey survey = survey::makeSurvey(source);
    const std::vector<uint32_t>& walk = survey.tableOfSlot(table.slot)->forward.blocks;
    return std::any_of(walk.begin(), walk.end(),
                       [&](uint32_t number) { return survey.blocks[number].capacity >= size; });
  }

  // Whether pack and link repair do what was predicted.
  void expectTrueOfTheFile(const Bytes& bytes, const Checked& checked, const std::string& what) {
    for (const qvdb::TableOutlook& table : checked.report.tables) {
      if (table.counted > 5'000) return;  // would copy a loop for long
    }
    writeFile(folder / "a.qvd", bytes);
    EXPECT_EQ(PackOneDB2NewW(folder.wide("a.qvd"), folder.wide("b.qvd"), 0, nullptr) == 1,
              checked.report.pack)
        << what << "\n"
        << checked.text();
    const qvdb::RepairPreview preview = qvdb::predict_repair(folder / "a.qvd");
    EXPECT_EQ(preview.result, checked.report.repair);
    int result = -1;
    EXPECT_EQ(FixOneDBLinkErrorW(folder.wide("a.qvd"), nullptr, 0, nullptr, &result), 1);
    EXPECT_EQ(result, preview.result) << what << "\n" << checked.text();
    const ReadDatabase after = slotsOf(readFile(folder / "a.qvd"));
    for (const qvdb::RepairedTable& table : preview.tables) {
      if (!table.rewritten) continue;
      EXPECT_EQ(after.tables[static_cast<size_t>(table.slot)].slot.recordCount, table.kept) << what;
    }
  }

  void expectTrue(const Bytes& bytes, const std::string& what) {
    const Checked checked = checkBytes(bytes);
    // A directory that is laid out in another way counts as unusable, though some of it may work.
    if (checked.has("H6")) return;
    expectTrueOfTheFile(bytes, checked, what);
    for (const qvdb::TableOutlook& table : checked.report.tables) {
      const uint64_t id = table.id.value;
      const std::string where = what + ", table " + table.name + "\n" + checked.text();
      uint32_t count = 0;
      EXPECT_EQ(succeeds(bytes, [&](auto db) { return GetNumberOfRecords(db, id, &count) == 1; }),
                table.reachable)
          << where;
      if (!table.reachable) continue;
      uint64_t record = 0;
      EXPECT_EQ(
          succeeds(bytes,
                   [&](auto db) { return AddRecordData(db, id, nullptr, 0, 0, &record) == 1; }),
          table.append)
          << where;
      EXPECT_EQ(succeeds(bytes, [&](auto db) { return lists(db, table); }), table.list) << where;
      EXPECT_EQ(succeeds(bytes, [&](auto db) { return SetTableData(db, id, nullptr, 0, 0) == 1; }),
                table.set_data)
          << where;
      EXPECT_EQ(succeedsForAll(
                    bytes, table,
                    [&](auto db, uint64_t each) { return DeleteOneRecord(db, id, each, nullptr); }),
                table.delete_all)
          << where;
      const ReadDatabase slots = slotsOf(bytes);
      const bool hasData = slots.tables[static_cast<size_t>(table.slot)].slot.firstDataPos != 0;
      if (hasData) {
        EXPECT_EQ(succeeds(bytes, [&](auto db) { return readsData(db, id); }), table.get_data)
            << where;
      }
      // Where a damaged capacity leaves space for it, a large payload makes no record move.
      if (hasRoomFor(bytes, table, 3000)) continue;
      const Bytes large = pattern(3000);
      EXPECT_EQ(succeedsForAll(bytes, table,
                               [&](auto db, uint64_t each) {
                                 return ModifyRecordData(db, id, large.data(), 3000, each, nullptr);
                               }),
                table.enlarge_all)
          << where;
    }
  }

  // The slots alone, whatever comes after them.
  static ReadDatabase slotsOf(const Bytes& bytes) {
    ReadDatabase database;
    for (size_t i = 0; i < kSlots && slotOffset(i + 1) <= bytes.size(); ++i) {
      ReadTable table;
      table.slot = decodeSlot(bytes, i);
      database.tables.push_back(table);
    }
    return database;
  }

  TempFolder folder{TempFolder::inMemory()};
};

// Damage without rhyme or reason: single bytes of header, slots and block headers.
TEST_F(Outlook, IsTrueForRandomDamage) {
  const uint64_t first = firstSeed();
  for (uint64_t seed = first; seed < first + seeds(40, 1500); ++seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    const std::vector<BaseFile> bases = {usedFile(), categoryFile()};
    Bytes bytes = bases[seed % 2].bytes;
    const ReadDatabase read = readDatabase(bytes);
    for (int i = 0; i < 3; ++i) {
      size_t at = 16 + random() % (22 - 16 + 3 * 144);
      const ReadTable& table = read.tables[random() % 2];
      if (random() % 2 == 0 && !table.records.empty()) {
        const ReadRecord& record = table.records[random() % table.records.size()];
        at = static_cast<size_t>(record.position) + random() % 55;
      }
      bytes[at] = random() % 3 == 0 ? uint8_t{0} : static_cast<uint8_t>(random());
    }
    expectTrue(bytes, "QVDBASE_TEST_SEED=" + std::to_string(seed));
    if (HasFailure()) return;
  }
}

// One forward link of a thousand is cleared: link repair keeps the part before it and no more.
TEST_F(Outlook, ReportsWhatLinkRepairWouldLose) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  std::vector<int64_t> at;
  for (uint64_t i = 1; i <= 1000; ++i) at.push_back(image.addRecord(table, i, {}));
  image.record(at[10]).nextRecordPos = 0;
  writeFile(folder / "a.qvd", image.build());
  const qvdb::RepairPreview preview = qvdb::predict_repair(folder / "a.qvd");
  EXPECT_EQ(preview.result, 2);
  EXPECT_EQ(preview.lost, 989u);
  EXPECT_TRUE(preview.salvage_gives_more);
  ASSERT_EQ(preview.tables.size(), 1u);
  EXPECT_EQ(preview.tables[0].kept, 11u);
  EXPECT_EQ(preview.tables[0].reachable, 1000u);
  EXPECT_TRUE(sameBytes(readFile(folder / "a.qvd"), image.build()));
  expectTrue(image.build(), "a cleared link");
}

TEST_F(Outlook, ReportsWhatLinkRepairWouldMiss) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  const int64_t first = image.addRecord(table, 1, {});
  image.addRecord(table, 2, {});
  image.slot(table).recordCount = image.slot(table).recordWriteCount = 1;
  image.slot(table).lastRecordPos = first;
  writeFile(folder / "a.qvd", image.build());
  const qvdb::RepairPreview preview = qvdb::predict_repair(folder / "a.qvd");
  EXPECT_EQ(preview.result, 0);
  EXPECT_EQ(preview.lost, 0u);
  EXPECT_EQ(preview.missed, 1u);
  EXPECT_TRUE(preview.salvage_gives_more);
}

TEST_F(Outlook, SaysThatLinkRepairHidesAnUnfinishedPack) {
  FileImage image;
  image.header().version = 101;
  writeFile(folder / "a.qvd", image.build());
  EXPECT_TRUE(qvdb::predict_repair(folder / "a.qvd").unfinished_pack);
}

TEST_F(Outlook, IsTrueForSoundFiles) {
  for (const BaseFile& base : {usedFile(), categoryFile()}) expectTrue(base.bytes, base.name);
}

TEST_F(Outlook, IsTrueForAnAppendThatWasCutOffBeforeTheSlot) {
  FileImage image;
  const size_t table = image.addTable("notes", 0x11);
  image.addRecord(table, 0xA1, bytesOf("first"));
  const int64_t last = image.addRecord(table, 0xA2, bytesOf("second"));
  SlotFields& slot = image.slot(table);
  slot.recordCount = slot.recordWriteCount = 1;
  slot.lastRecordPos = slot.lastWrittenRecordPos = slot.firstRecordPos;
  const Checked checked = checkBytes(image.build());
  EXPECT_TRUE(checked.has("R6")) << checked.text();
  EXPECT_EQ(checked.first("R6").offset, slot.firstRecordPos + 39);
  EXPECT_FALSE(checked.report.tables[0].append);
  EXPECT_EQ(checked.report.tables[0].found_elsewhere, 1u);
  expectTrue(image.build(), "last at " + std::to_string(last));
}

}  // namespace
}  // namespace qvdbase::test
